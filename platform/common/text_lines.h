#ifndef PLATFORM_COMMON_TEXT_LINES_H
#define PLATFORM_COMMON_TEXT_LINES_H

#include <vunkcore/text_file.h>

#include <cstddef>
#include <string_view>

/// The syntax of pair files and section files.
namespace vunkc {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

constexpr bool IsBlank(char c)
{
	return c == ' ' || (c >= '\t' && c <= '\r' && c != '\n');
}

constexpr bool IsCommentSign(char c)
{
	return c == '#' || c == ';';
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

	/// As Next, but passes over pairs as well, and does so much faster.
	Line NextHeader();

private:
	void PassOverPairs();

	const std::string_view text;
	const size_t nul; // of the first NUL byte; npos when there is none
	size_t next = 0;
	int number = 0;
};

} // namespace vunkc

#endif
