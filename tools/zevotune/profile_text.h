#ifndef ZEVOTUNE_PROFILE_TEXT_H
#define ZEVOTUNE_PROFILE_TEXT_H

// A profile's file as it is written, with its lines.

#include <string>
#include <string_view>
#include <vector>

struct ProfileText {
	struct Pair {
		std::string key;
		std::string value;
		int line;
	};
	struct Section {
		std::string name;
		int line;
		std::vector<Pair> pairs;
	};

	std::vector<Section> sections; // one for each header
	std::vector<int> badLines; // that the file cannot be read for: neither header, pair of a section, nor comment
};

ProfileText ParseProfileText(std::string_view text);

/// Throws Failure when the file cannot be read at all.
ProfileText ReadProfileText(const std::string &path);

/// The line that a key's value comes from: its last one in the sections of that name. 0 when there is none.
int LineOf(const ProfileText &text, std::string_view section, std::string_view key);

/// The line of the first header of a section. 0 when there is none.
int LineOf(const ProfileText &text, std::string_view section);

#endif
