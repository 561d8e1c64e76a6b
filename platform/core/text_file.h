#ifndef PLATFORM_CORE_TEXT_FILE_H
#define PLATFORM_CORE_TEXT_FILE_H

#include <vunkcore/hash.h>
#include <vunkcore/text_file.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>

namespace vunkc {

/// A longer file is not read and, so that it can be read again, not written either.
constexpr size_t kMaxFileSize = size_t{256} << 20;

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

/// Repeats a system call for as long as signals interrupt it.
template <class Call>
auto Retried(Call &&call)
{
	for (;;) {
		const auto result = call();
		if (result != -1 || errno != EINTR)
			return result;
	}
}

/// A line of a text that says something, or the first that cannot be understood.
struct Line {
	enum class Kind {
		kEnd,    // there are no more lines
		kBad,    // not a line of this syntax
		kHeader, // name
		kPair    // name (of the key), value
	};
	Kind kind = Kind::kEnd;
	int number = 0;   // 1 for the first line of the text
	size_t begin = 0; // where the line begins in the text; a byte order mark is not part of the first line
	size_t end = 0;   // behind its newline
	std::string_view name;
	std::string_view value;
};

/// Takes a text apart line by line, passing over empty lines and comments. Lines are views of the text.
class LineReader {
public:
	explicit LineReader(std::string_view wholeText);

	Line Next();

private:
	const std::string_view text;
	const size_t nul; // of the first NUL byte; npos when there is none
	size_t next = 0;
	int number = 0;
};

/// Whether the syntax can hold a name of a section such that it is read back as it is.
bool IsStorableSection(std::string_view name);

void AppendHeader(std::string &text, std::string_view name);

/// Appends the lines of all pairs, or returns false when the syntax cannot hold one of them.
bool AppendPairs(std::string &text, const VUNKSZHASH &pairs);

/// Reads a whole file. Returns VUNKC_ERR_NONE or the code of the failure with errno set; the error stack is left alone,
/// as a missing file is not a failure to every caller.
int ReadText(const char *path, std::string &text);

/// A hash of its own with the same pairs in the same order.
VUNKSZHASH CopyOf(const VUNKSZHASH &pairs);

} // namespace vunkc

#endif
