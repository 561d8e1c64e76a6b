#ifndef TESTS_KIT_JOURNAL_H
#define TESTS_KIT_JOURNAL_H

#include <string>
#include <vector>

namespace kit {

/// What goes to syslog while the object lives; nothing of it reaches the machine's log. Objects do not nest.
///
/// Every captured line is also appended, exactly as it is, to the file that the environment variable
/// ZEVOTUNED_CAPTURED_LINES names.
class Journal {
public:
	Journal();
	~Journal();
	Journal(const Journal &) = delete;
	Journal &operator=(const Journal &) = delete;

	/// The lines so far, without what changes with every edit of the sources:
	/// "utils.cpp:120 Failed to find the profile [x].[0x0D00 utils.cpp:77]" is
	/// "utils.cpp Failed to find the profile [x].[0x0D00 utils.cpp]", and a function's name loses its line as well. The
	/// place of an error in a data file stays whole: "[0x1500 /usr/local/share/x:3]".
	/// A line that was not logged at priority error is preceded by its priority: "<4>utils.cpp ...".
	std::vector<std::string> Lines() const;

	/// The lines as they were logged.
	std::vector<std::string> Raw() const;

	void Clear();
};

/// Adds to the journal what children have logged since it began, or since this was last called, which otherwise they alone
/// know of. They must have ended.
void CollectLinesOfChildren();

} // namespace kit

#endif
