// A host whose threads log and allocate without a pause forks children that nobody waits for. Each child does what such
// locks could stop, and ends; the host is left as it was, and what it does at its exit is done once.

#include "kit/files.h"
#include "kit/lab.h"
#include "kit/slow_build.h"

#include <vunkcore/process.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int kChildren = kit::kIsSlowBuild ? 100 : 1000;
constexpr int kThreads = 4;
constexpr char kChildLine[] = "line of child ";

bool Append(const std::string &path, const std::string &text)
{
	const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
	const bool good = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
	return close(fd) == 0 && good;
}

struct Paths {
	explicit Paths(const kit::TempDir &dir)
		: made(dir.Path("made")), lived(dir.Path("lived")), ends(dir.Path("ends")), stream(dir.Path("stream"))
	{
	}

	std::string made;   // the process ids that the host was told, one a line
	std::string lived;  // and those that the children have
	std::string ends;   // what runs at the host's exit
	std::string stream; // a stream of the host's that is never flushed before
};

/// In the host, and in what is forked from it, an object that says when it is destroyed.
struct StaticObject {
	~StaticObject()
	{
		if (!path.empty())
			Append(path, "static object\n");
	}

	std::string path;
} staticObject;

std::multiset<std::string> Lines(const std::string &path)
{
	std::multiset<std::string> lines;
	const std::string text = kit::ReadFile(path);
	for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
		lines.insert(text.substr(at, end - at));
	return lines;
}

/// A /dev in which there is a null device, and the receiver of log lines if there is one (not -1).
bool EnterPrivateDev(int log)
{
	const sockaddr_un address = {AF_UNIX, "/dev/log"};
	return unshare(CLONE_NEWNS) == 0 && mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
	       mount("stress-tests", "/dev", "tmpfs", 0, "mode=0755") == 0 &&
	       mknod("/dev/null", S_IFCHR | 0666, makedev(1, 3)) == 0 &&
	       (log < 0 || bind(log, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0);
}

bool Allocate(size_t size)
{
	char *volatile memory = static_cast<char *>(malloc(size)); // not to be optimised away
	const bool good = memory != nullptr;
	free(memory);
	return good;
}

bool TellTheTime()
{
	const time_t now = time(nullptr);
	tm local;
	return localtime_r(&now, &local) != nullptr;
}

/// Threads that take the locks of the log, of the time zone and of the allocator over and over.
class BusyThreads {
public:
	BusyThreads()
	{
		for (int i = 0; i < kThreads; ++i)
			threads.emplace_back(&BusyThreads::Work, this);
		while (working < kThreads) // their start allocates as well
			std::this_thread::yield();
	}
	~BusyThreads()
	{
		stop = true;
		for (std::thread &thread : threads)
			thread.join();
	}
	BusyThreads(const BusyThreads &) = delete;
	BusyThreads &operator=(const BusyThreads &) = delete;

private:
	void Work()
	{
		++working;
		for (size_t size = 0; !stop; size = (size + 977) % 5000) {
			syslog(LOG_DEBUG, "line of the host");
			TellTheTime();
			// The allocator of the address sanitizer has locks that no fork looks after.
			if (!kit::kIsSlowBuild)
				Allocate(size);
		}
	}

	std::atomic<bool> stop = false;
	std::atomic<int> working = 0;
	std::vector<std::thread> threads;
};

[[noreturn]] void LiveAsChild(const Paths &paths)
{
	const std::string pid = std::to_string(getpid());
	syslog(LOG_DEBUG, "%s%s", kChildLine, pid.c_str());
	_exit(Allocate(5000) && TellTheTime() && Append(paths.lived, pid + "\n") ? 0 : 1);
}

/// Forks all the children. False when one could not be forked or written down.
bool MakeChildren(const Paths &paths)
{
	const BusyThreads threads;
	for (int i = 0; i < kChildren; ++i) {
		const pid_t child = VUNKCProcForkChildNoWait();
		if (child == 0)
			LiveAsChild(paths);
		if (child < 0 || !Append(paths.made, std::to_string(child) + "\n"))
			return false;
	}
	return true;
}

/// The host's main(). What it finds wrong it says in its exit status.
int Host(const Paths &paths, int log)
{
	if (!EnterPrivateDev(log))
		return 2;
	staticObject.path = paths.ends;
	atexit([] { Append(staticObject.path, "exit handler\n"); });
	FILE *const stream = fopen(paths.stream.c_str(), "ae");
	if (stream == nullptr || fputs("unflushed\n", stream) < 0)
		return 3;
	const std::set<int> descriptors = kit::OpenDescriptors();
	if (!MakeChildren(paths))
		return 4;
	closelog();
	if (kit::OpenDescriptors() != descriptors)
		return 5;
	return waitpid(-1, nullptr, __WALL) == -1 && errno == ECHILD ? 0 : 6;
}

/// Reads what is logged, and keeps the process ids in lines of children.
class Log {
public:
	Log() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
	~Log() { close(fd); }
	Log(const Log &) = delete;
	Log &operator=(const Log &) = delete;

	int Descriptor() const { return fd; }
	void Start() { reader = std::thread(&Log::Read, this); }
	std::multiset<std::string> StopAndTell()
	{
		shutdown(fd, SHUT_RD); // the reader still gets what is there
		reader.join();
		return children;
	}

private:
	void Read()
	{
		char line[1024];
		for (ssize_t size; (size = recv(fd, line, sizeof(line) - 1, 0)) > 0;) {
			line[size] = '\0';
			if (const char *const found = strstr(line, kChildLine); found != nullptr)
				children.insert(found + strlen(kChildLine));
		}
	}

	const int fd;
	std::thread reader;
	std::multiset<std::string> children;
};

/// With and without a receiver of log lines.
class NoWait : public kit::LabTest, public testing::WithParamInterface<bool> {
protected:
	NoWait() { prctl(PR_SET_CHILD_SUBREAPER, 1); } // the children of the host come to this process
	~NoWait() { prctl(PR_SET_CHILD_SUBREAPER, 0); }

	/// Collects the children of this process, also those that it adopts, until there is none. Returns how many there were of
	/// each status; nothing when one is left that has not ended for two minutes.
	static std::map<int, int> Collect()
	{
		using namespace std::chrono_literals;
		std::map<int, int> statuses;
		auto deadline = std::chrono::steady_clock::now() + 2min;
		for (int status;;) {
			const pid_t ended = waitpid(-1, &status, WNOHANG);
			if (ended < 0)
				return statuses;
			if (ended == 0 && std::chrono::steady_clock::now() >= deadline)
				return {};
			if (ended == 0) {
				std::this_thread::sleep_for(10ms);
				continue;
			}
			++statuses[status];
			deadline = std::chrono::steady_clock::now() + 2min;
		}
	}

	kit::TempDir dir;
	const Paths paths{dir};
};

TEST_P(NoWait, ChildrenOfABusyHostAllLiveAndLeaveTheHostAsItWas)
{
	Log log;
	fflush(nullptr); // the host's exit writes what is left in the copies of this process's streams
	const pid_t host = fork();
	ASSERT_GE(host, 0);
	if (host == 0)
		exit(Host(paths, GetParam() ? log.Descriptor() : -1));
	log.Start();
	const std::map<int, int> statuses = Collect();
	const std::multiset<std::string> logged = log.StopAndTell();

	EXPECT_EQ(statuses, (std::map<int, int>{{0, kChildren + 1}}));
	const std::multiset<std::string> made = Lines(paths.made);
	EXPECT_EQ(made.size(), static_cast<size_t>(kChildren));
	EXPECT_EQ(Lines(paths.lived), made);
	EXPECT_EQ(logged, GetParam() ? made : std::multiset<std::string>());
	EXPECT_EQ(kit::ReadFile(paths.ends), "exit handler\nstatic object\n");
	EXPECT_EQ(kit::ReadFile(paths.stream), "unflushed\n");
}

INSTANTIATE_TEST_SUITE_P(WithoutAndWithALog, NoWait, testing::Bool());

} // namespace
