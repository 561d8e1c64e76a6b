#include "common/text_lines.h"

#include <algorithm>
#include <cstring>

namespace vunkc {
namespace {

// A file can have tens of thousands of lines, all of which are looked at: these are inline, and of a pair only those ends are
// trimmed that the line's own trimming has not reached.
inline std::string_view TrimmedFront(std::string_view text)
{
	while (!text.empty() && IsBlank(text.front()))
		text.remove_prefix(1);
	return text;
}

inline std::string_view TrimmedBack(std::string_view text)
{
	while (!text.empty() && IsBlank(text.back()))
		text.remove_suffix(1);
	return text;
}

inline std::string_view Trimmed(std::string_view text)
{
	return TrimmedBack(TrimmedFront(text));
}

std::string_view Unquoted(std::string_view value)
{
	const bool quoted = value.size() >= 2 && value.front() == '"' && value.back() == '"';
	return quoted ? value.substr(1, value.size() - 2) : value;
}

void ParseHeader(std::string_view content, Line &line)
{
	if (content.back() != ']')
		return;
	line.name = Trimmed(content.substr(1, content.size() - 2));
	if (!line.name.empty())
		line.kind = Line::Kind::kHeader;
}

void ParsePair(std::string_view content, Line &line)
{
	const size_t sign = content.find('=');
	if (sign == 0 || sign == std::string_view::npos)
		return;
	line.name = TrimmedBack(content.substr(0, sign));
	line.value = Unquoted(TrimmedFront(content.substr(sign + 1)));
	line.kind = Line::Kind::kPair;
}

// What the keys of nearly all pairs begin with. Of a line that begins so, the first '=' makes a pair.
constexpr bool IsLetter(char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

} // namespace

LineReader::LineReader(std::string_view wholeText) : text(wholeText), nul(wholeText.find('\0'))
{
	if (text.starts_with(kByteOrderMark))
		next = kByteOrderMark.size();
}

Line LineReader::Next()
{
	Line line;
	while (next < text.size()) {
		const size_t newline = text.find('\n', next);
		const size_t stop = std::min(newline, text.size());
		line.number = ++number;
		line.begin = next;
		line.end = next = newline == std::string_view::npos ? stop : stop + 1;
		if (nul < stop) {
			line.kind = Line::Kind::kBad;
			return line;
		}
		const std::string_view content = Trimmed(text.substr(line.begin, stop - line.begin));
		if (content.empty() || IsCommentSign(content.front()))
			continue;
		line.kind = Line::Kind::kBad;
		if (content.front() == '[')
			ParseHeader(content, line);
		else
			ParsePair(content, line);
		return line;
	}
	return {};
}

Line LineReader::NextHeader()
{
	for (;;) {
		PassOverPairs();
		const Line line = Next();
		if (line.kind != Line::Kind::kPair)
			return line;
	}
}

// Stops at the first line that has to be looked at more closely. Sections are found in a file of thousands by passing over
// the others, so that a pair must cost hardly more than finding the end of its line.
void LineReader::PassOverPairs()
{
	const char *const end = text.data() + std::min(nul, text.size());
	for (const char *line = text.data() + next; line < end && IsLetter(*line);) {
		const void *const newline = memchr(line, '\n', static_cast<size_t>(end - line));
		if (newline == nullptr ||
		    memchr(line, '=', static_cast<size_t>(static_cast<const char *>(newline) - line)) == nullptr)
			return;
		line = static_cast<const char *>(newline) + 1;
		next = static_cast<size_t>(line - text.data());
		++number;
	}
}

} // namespace vunkc
