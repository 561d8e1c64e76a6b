#ifndef PLATFORM_CORE_KEPT_SECTIONS_H
#define PLATFORM_CORE_KEPT_SECTIONS_H

#include "section_text.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

namespace vunkc {

/// A large section file as it was read, for who asks for its sections in turn: each of them would otherwise be found by reading
/// the whole file, which for some thousands takes seconds.
///
/// It is used only while the file is provably the one that was read. The kernel stamps each change of a file with the time of
/// its clock's last tick; a file that was not changed in the last few ticks before it was read thus gets another stamp with
/// the next change.
///
/// A process has one at most, which is gone when the last section of the file has been asked for, or another file is read or
/// written. Whoever works with it has taken it away, and others do without: there is no lock that a fork could leave taken, and
/// nothing to destroy when the process ends.
class KeptSections {
public:
	/// What is kept of a file. Null when there is nothing; what is kept of another file is then gone.
	static std::unique_ptr<KeptSections> Take(std::string_view path);
	static void PutBack(std::unique_ptr<KeptSections> kept);
	static void Drop() { PutBack(nullptr); }

	/// Whether the text is that of the file now.
	bool IsCurrent() const;
	const std::string &Text() const { return text; }
	std::vector<Occurrence> Find(std::string_view name) const;

	/// Around the reading of a file of which nothing current is kept. The first time it is only noted that the file is read;
	/// its text is kept when it is read again right after that, and has not changed meanwhile nor shortly before.
	void BeforeReading();
	static std::unique_ptr<KeptSections> AfterReading(std::unique_ptr<KeptSections> kept, const char *szPath,
	                                                  std::string &&readText);

private:
	explicit KeptSections(const char *szPath) : path(szPath) {}
	void Keep(std::string &&readText);

	struct Section {
		std::string_view name;
		Occurrence place;
	};
	static bool ByName(const Section &a, const Section &b) { return a.name < b.name; }

	struct Stamp {
		dev_t device;
		ino_t inode;
		off_t size;
		timespec modified;
		timespec changed;

		bool operator==(const Stamp &other) const;
	};

	std::optional<Stamp> Look() const;
	static bool IsSettled(const Stamp &stamp);

	const std::string path;
	std::optional<Stamp> stamp;
	std::string text;              // empty until it is kept
	std::vector<Section> sections; // by name, and in file order where names are the same
};

} // namespace vunkc

#endif
