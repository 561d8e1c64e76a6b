#include "text_file.h"

#include "common/descriptor.h"
#include "hash.h"
#include "common/internal.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vunkc {
namespace {

constexpr bool IsBlank(char c)
{
	return c == ' ' || (c >= '\t' && c <= '\r' && c != '\n');
}

constexpr bool IsCommentSign(char c)
{
	return c == '#' || c == ';';
}

std::string_view Trimmed(std::string_view text)
{
	while (!text.empty() && IsBlank(text.front()))
		text.remove_prefix(1);
	while (!text.empty() && IsBlank(text.back()))
		text.remove_suffix(1);
	return text;
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
	line.name = Trimmed(content.substr(0, sign));
	line.value = Unquoted(Trimmed(content.substr(sign + 1)));
	line.kind = Line::Kind::kPair;
}

bool HasBlankEnd(std::string_view text)
{
	return IsBlank(text.front()) || IsBlank(text.back());
}

bool IsStorableKey(std::string_view key)
{
	return !key.empty() && !HasBlankEnd(key) && !IsCommentSign(key.front()) && key.front() != '[' &&
	       key.find_first_of("=\n") == std::string_view::npos;
}

bool IsStorableValue(std::string_view value)
{
	return value.find('\n') == std::string_view::npos;
}

/// The whole content of an open file, whose size is only a first guess: it may grow, and files of /proc have none.
bool ReadAll(int fd, size_t size, std::string &text)
{
	text.resize(size + 1); // one more, so that the end is found without growing
	size_t filled = 0;
	for (;;) {
		const ssize_t count = Retried([&] { return read(fd, text.data() + filled, text.size() - filled); });
		if (count < 0)
			return false;
		filled += static_cast<size_t>(count);
		if (filled > kMaxFileSize) {
			errno = EFBIG;
			return false;
		}
		if (count == 0)
			break;
		if (filled == text.size())
			text.resize(std::min(2 * filled + 4096, kMaxFileSize + 1));
	}
	text.resize(filled);
	return true;
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

bool IsStorableSection(std::string_view name)
{
	return !name.empty() && !HasBlankEnd(name) && name.find('\n') == std::string_view::npos;
}

void AppendHeader(std::string &text, std::string_view name)
{
	text.append("[").append(name).append("]\n");
}

bool AppendPairs(std::string &text, const VUNKSZHASH &pairs)
{
	for (const VUNKSZHASH::Pair *pair : pairs.InOrder()) {
		const auto &[key, value] = *pair;
		if (!IsStorableKey(key) || !IsStorableValue(value))
			return false;
		text.append(key).append("=\"").append(value).append("\"\n");
	}
	return true;
}

int ReadText(const char *path, std::string &text)
{
	// Not blocking, so that a fifo under that name is opened, and refused, without waiting for somebody to write to
	// it.
	const Descriptor file(Retried([&] { return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
	if (!file)
		return errno == ENOENT || errno == ENOTDIR ? VUNKC_ERR_FILE_MISSING : VUNKC_ERR_FILE_OPEN;
	struct stat status;
	if (fstat(file.Get(), &status) != 0)
		return VUNKC_ERR_FILE_READ;
	if (!S_ISREG(status.st_mode)) {
		errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
		return VUNKC_ERR_FILE_READ;
	}
	if (status.st_size > static_cast<off_t>(kMaxFileSize)) {
		errno = EFBIG;
		return VUNKC_ERR_FILE_READ;
	}
	return ReadAll(file.Get(), static_cast<size_t>(status.st_size), text) ? VUNKC_ERR_NONE : VUNKC_ERR_FILE_READ;
}

VUNKSZHASH CopyOf(const VUNKSZHASH &pairs)
{
	VUNKSZHASH copy;
	for (const VUNKSZHASH::Pair *pair : pairs.InOrder())
		copy.Set(pair->first, pair->second);
	return copy;
}

} // namespace vunkc
