#include "kit/journal.h"

#include "kit/nth_call.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <regex>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

namespace {

struct Line {
	int priority;
	std::string text;
};

std::mutex mutex;
bool capturing = false;
pid_t owner = -1; // the process that captures; its children have a copy of it
std::vector<Line> lines;

/// In memory that children share: what they have logged, priority and text, one line after the other.
struct OfChildren {
	static constexpr size_t kLine = 4096;
	static constexpr size_t kLines = 256;

	struct Entry {
		int priority;
		char text[kLine];
	};

	std::atomic<size_t> count;
	Entry entries[kLines];
};

// Past the C library's mmap(), which can fail when a test wants it to.
OfChildren &Shared()
{
	static OfChildren *const shared = [] {
		const long pages = syscall(SYS_mmap, nullptr, sizeof(OfChildren), PROT_READ | PROT_WRITE,
		                           MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
		if (pages == -1)
			abort();
		return new (reinterpret_cast<void *>(pages)) OfChildren;
	}();
	return *shared;
}

void KeepForParent(int priority, const char *text)
{
	OfChildren &shared = Shared();
	const size_t at = shared.count++;
	if (at >= OfChildren::kLines)
		return;
	shared.entries[at].priority = priority;
	snprintf(shared.entries[at].text, OfChildren::kLine, "%s", text);
}

// Past the C library, whose functions fail when a test wants them to.
long OpenForAppending(const char *path)
{
	return syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

// Also where a test has taken all free descriptors away.
long OpenForAppendingAnyway(const char *path)
{
	const long fd = OpenForAppending(path);
	if (fd >= 0 || errno != EMFILE)
		return fd;
	rlimit limit;
	getrlimit(RLIMIT_NOFILE, &limit);
	const rlimit raised = {limit.rlim_max, limit.rlim_max};
	setrlimit(RLIMIT_NOFILE, &raised);
	const long opened = OpenForAppending(path);
	setrlimit(RLIMIT_NOFILE, &limit);
	return opened;
}

void Keep(const std::string &text)
{
	static const char *path = getenv("ZEVOTUNED_CAPTURED_LINES");
	if (path == nullptr)
		return;
	std::string line;
	for (char c : text)
		line += c == '\n' ? std::string("\\n") : std::string(1, c);
	line += '\n';
	const long fd = OpenForAppendingAnyway(path);
	if (fd < 0 || syscall(SYS_write, fd, line.data(), line.size()) != static_cast<long>(line.size()))
		abort(); // a run whose record has holes proves nothing
	syscall(SYS_close, fd);
}

__attribute__((format(printf, 2, 0))) void Capture(int priority, const char *format, va_list values)
{
	const kit::Uncounted uncounted;
	if ((setlogmask(0) & LOG_MASK(LOG_PRI(priority))) == 0)
		return;
	char *text = nullptr;
	if (vasprintf(&text, format, values) < 0)
		abort();
	const std::lock_guard lock(mutex);
	if (capturing)
		lines.push_back({priority, text});
	if (capturing && getpid() != owner)
		KeepForParent(priority, text);
	Keep(text);
	free(text);
}

std::string WithoutPositions(const std::string &text)
{
	static const std::regex prefix(R"(^(\w+\.cpp):\d+ (?:(\w+):\d+ (?=Can't open|Failed to set parameter))?)");
	static const std::regex suffix(R"(\[(0x[0-9A-F]{4,}) (\w+\.cpp):\d+\]$)");
	std::smatch found;
	std::string out = text;
	if (std::regex_search(text, found, prefix))
		out = found[1].str() + " " + (found[2].matched ? found[2].str() + " " : "") +
		      text.substr(found.length(0));
	return std::regex_replace(out, suffix, "[$1 $2]");
}

} // namespace

extern "C" {

void syslog(int priority, const char *format, ...)
{
	va_list values;
	va_start(values, format);
	Capture(priority, format, values);
	va_end(values);
}

__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int, const char *format, ...)
{
	va_list values;
	va_start(values, format);
	Capture(priority, format, values);
	va_end(values);
}

} // extern "C"

namespace kit {

Journal::Journal()
{
	const std::lock_guard lock(mutex);
	if (capturing)
		throw std::logic_error("one journal at a time");
	capturing = true;
	owner = getpid();
	Shared().count = 0;
	lines.clear();
}

Journal::~Journal()
{
	const std::lock_guard lock(mutex);
	capturing = false;
	lines.clear();
}

std::vector<std::string> Journal::Lines() const
{
	const std::lock_guard lock(mutex);
	std::vector<std::string> out;
	for (const Line &line : lines)
		out.push_back((line.priority == LOG_ERR ? "" : "<" + std::to_string(line.priority) + ">") +
		              WithoutPositions(line.text));
	return out;
}

std::vector<std::string> Journal::Raw() const
{
	const std::lock_guard lock(mutex);
	std::vector<std::string> out;
	for (const Line &line : lines)
		out.push_back(line.text);
	return out;
}

void Journal::Clear()
{
	const std::lock_guard lock(mutex);
	lines.clear();
}

void CollectLinesOfChildren()
{
	const std::lock_guard lock(mutex);
	OfChildren &shared = Shared();
	const size_t count = shared.count.exchange(0);
	if (count > OfChildren::kLines)
		throw std::logic_error("children have logged more than the kit keeps");
	for (size_t i = 0; i < count; ++i)
		lines.push_back({shared.entries[i].priority, shared.entries[i].text});
}

} // namespace kit
