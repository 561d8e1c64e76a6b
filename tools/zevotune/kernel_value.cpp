#include "kernel_value.h"

#include "scheduler_tunables.h"

#include "support/handles.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::string_view kParameters = "/proc/sys/";

// Longer ones are tables, which nobody sets by a profile.
constexpr size_t kMaxLength = 64 << 10;

std::vector<std::string> Words(std::string_view text)
{
	std::istringstream stream{std::string(text)};
	std::vector<std::string> words;
	for (std::string word; stream >> word;)
		words.push_back(word);
	return words;
}

std::string OneLine(const std::string &text)
{
	std::string line;
	for (const std::string &word : Words(text))
		line += (line.empty() ? "" : " ") + word;
	return line;
}

// "none [mq-deadline] kyber"; a lone name goes without brackets.
std::string Selected(const std::string &offered)
{
	const size_t begin = offered.find('[');
	const size_t end = offered.find(']', begin);
	return end == std::string::npos ? offered : offered.substr(begin + 1, end - begin - 1);
}

std::string NameIn(const std::string &path)
{
	return path.substr(path.rfind('/') + 1);
}

int NumberBase(const std::string &path)
{
	return SchedulerPathOf(path).empty() || TakesAnyNotation(NameIn(path)) ? 0 : 10;
}

bool IsSameWord(const std::string &a, const std::string &b, int base)
{
	if (a == b)
		return true;
	char *endOfA = nullptr;
	char *endOfB = nullptr;
	errno = 0;
	const long long numberA = strtoll(a.c_str(), &endOfA, base);
	const long long numberB = strtoll(b.c_str(), &endOfB, base);
	return errno == 0 && *endOfA == '\0' && *endOfB == '\0' && numberA == numberB;
}

std::string WhyUnread(int error)
{
	switch (error) {
	case ENOENT:
	case ENOTDIR:
		return "this kernel does not have it";
	case EACCES:
	case EPERM:
		return geteuid() == 0 ? "it can only be written" : "only root can read it";
	default:
		return strerror(error);
	}
}

} // namespace

std::optional<std::string> ReadAttribute(const std::string &path)
{
	const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	struct stat status;
	if (!file || fstat(file.get(), &status) != 0)
		return std::nullopt;
	if (!S_ISREG(status.st_mode)) {
		errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
		return std::nullopt;
	}
	std::string text(4096, '\0');
	size_t length = 0;
	for (;;) {
		const ssize_t count = read(file.get(), text.data() + length, text.size() - length);
		if (count < 0)
			return std::nullopt;
		length += static_cast<size_t>(count);
		if (count == 0 || length == kMaxLength)
			break;
		if (length == text.size())
			text.resize(kMaxLength);
	}
	text.resize(length);
	return text;
}

KernelValue ReadKernelValue(const std::string &path)
{
	const std::optional<std::string> text = ReadAttribute(path);
	if (!text)
		return {std::nullopt, WhyUnread(errno)};
	const std::string line = OneLine(*text);
	return {IsSchedulerPath(path) ? Selected(line) : line, ""};
}

std::string SysctlPath(std::string_view name)
{
	std::string path(name);
	// Whichever separator comes first is the one between folders; the other one stands for itself in a folder's name.
	if (const size_t first = path.find_first_of("./"); first != std::string::npos && path[first] == '.')
		for (char &c : path)
			c = c == '.' ? '/' : c == '/' ? '.' : c;
	return std::string(kParameters) + path;
}

std::string SysctlName(const std::string &path)
{
	std::string name = path.substr(kParameters.size());
	std::replace(name.begin(), name.end(), '/', '.');
	return name;
}

bool IsSysctlPath(std::string_view path)
{
	return path.starts_with(kParameters);
}

bool IsSchedulerPath(std::string_view path)
{
	return path.starts_with("/sys/block/") && path.ends_with("/queue/scheduler");
}

std::string SchedulerPathOf(const std::string &tunablePath)
{
	const size_t folder = tunablePath.rfind("/iosched/");
	return folder == std::string::npos ? "" : tunablePath.substr(0, folder) + "/scheduler";
}

bool IsSameValue(const std::string &path, std::string_view a, std::string_view b)
{
	const int base = NumberBase(path);
	const std::vector<std::string> wordsOfA = Words(a);
	const std::vector<std::string> wordsOfB = Words(b);
	if (wordsOfA.size() != wordsOfB.size())
		return false;
	for (size_t i = 0; i < wordsOfA.size(); ++i)
		if (!IsSameWord(wordsOfA[i], wordsOfB[i], base))
			return false;
	return true;
}

std::string OtherOfPair(const std::string &path)
{
	static constexpr const char *kPairs[][2] = {
		{"/proc/sys/vm/dirty_ratio", "/proc/sys/vm/dirty_bytes"},
		{"/proc/sys/vm/dirty_background_ratio", "/proc/sys/vm/dirty_background_bytes"},
	};
	for (const auto &[ratio, bytes] : kPairs) {
		if (path == ratio)
			return bytes;
		if (path == bytes)
			return ratio;
	}
	if (SchedulerPathOf(path).empty())
		return "";
	const std::string unit = "_us";
	const std::string other = path.ends_with(unit) ? path.substr(0, path.size() - unit.size()) : path + unit;
	const std::set<std::string> known = KnownTunables();
	return known.contains(NameIn(path)) && known.contains(NameIn(other)) ? other : "";
}
