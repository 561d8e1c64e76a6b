#include "profile_text.h"

#include "failure.h"

#include "common/text_lines.h"
#include "common/text_read.h"

#include <vunkcore/error.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

std::vector<int> LinesWithNul(std::string_view text)
{
	std::vector<int> lines;
	int line = 1;
	for (const char c : text) {
		if (c == '\0' && (lines.empty() || lines.back() != line))
			lines.push_back(line);
		line += c == '\n' ? 1 : 0;
	}
	return lines;
}

} // namespace

ProfileText ParseProfileText(std::string_view text)
{
	using Kind = vunkc::Line::Kind;
	ProfileText profile;
	profile.badLines = LinesWithNul(text);
	// The reader gives up at a NUL byte, and here it is to tell all lines.
	const std::vector<int> withNul = profile.badLines;
	std::string readable(text);
	std::replace(readable.begin(), readable.end(), '\0', '?');
	vunkc::LineReader reader(readable);
	for (vunkc::Line line = reader.Next(); line.kind != Kind::kEnd; line = reader.Next()) {
		if (std::binary_search(withNul.begin(), withNul.end(), line.number))
			continue;
		if (line.kind == Kind::kHeader)
			profile.sections.push_back({std::string(line.name), line.number, {}});
		else if (line.kind == Kind::kPair && !profile.sections.empty())
			profile.sections.back().pairs.push_back(
				{std::string(line.name), std::string(line.value), line.number});
		else
			profile.badLines.push_back(line.number);
	}
	std::sort(profile.badLines.begin(), profile.badLines.end());
	return profile;
}

ProfileText ReadProfileText(const std::string &path)
{
	std::string text;
	if (vunkc::ReadText(path.c_str(), text) != VUNKC_ERR_NONE)
		throw Failure(path + " cannot be read (" + strerror(errno) + ")");
	return ParseProfileText(text);
}

int LineOf(const ProfileText &text, std::string_view section, std::string_view key)
{
	int line = 0;
	for (const ProfileText::Section &one : text.sections)
		for (const ProfileText::Pair &pair : one.pairs)
			if (one.name == section && pair.key == key)
				line = pair.line;
	return line;
}

int LineOf(const ProfileText &text, std::string_view section)
{
	for (const ProfileText::Section &one : text.sections)
		if (one.name == section)
			return one.line;
	return 0;
}
