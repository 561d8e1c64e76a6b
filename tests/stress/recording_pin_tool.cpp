// Stands in for the pin tool while many engines work: keeps what is pinned, a byte for each block of a volume, in a file that
// has the name of the volume.
//
// A tool that outlives its engine could pin what the next engine has just unpinned, and nobody would ever unpin it. That is
// between engine and tool, and not what many callers are let loose for. So here each run takes its turn by a lock, and does
// nothing for an engine that is about to end. One that is not still has the volume to itself, so that no other engine has had
// a turn yet.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr unsigned kExiting = 4; // PF_EXITING, set before the kernel closes a process's files
constexpr unsigned long kSectorsOfBlock = 8;
constexpr char kMarked = 1;
constexpr char kInCache = 2;

constexpr const char *kFolder = "/run/pin-tool/";

struct Process {
	char state = 'X';
	int parent = 0;
	unsigned flags = kExiting;

	bool Lives() const { return state != 'Z' && state != 'X' && (flags & kExiting) == 0; }
};

Process Find(int pid)
{
	Process process;
	const int fd = open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
	char text[4096] = {};
	if (fd >= 0 && read(fd, text, sizeof(text) - 1) > 0)
		if (const char *const name = strrchr(text, ')'); name != nullptr)
			// NOLINTNEXTLINE(cert-err34-c): the kernel's numbers fit
			sscanf(name + 1, " %c %d %*d %*d %*d %*d %u", &process.state, &process.parent, &process.flags);
	close(fd);
	return process;
}

/// The tool's parent is who waits for it, and whose parent is the engine. PIN_TOOL_REAPER adopts what either leaves.
bool HasEngine()
{
	const char *const setting = getenv("PIN_TOOL_REAPER");
	if (setting == nullptr)
		return true; // engines end by themselves
	const long reaper = strtol(setting, nullptr, 10);
	const int waiting = getppid();
	const int engine = waiting == reaper ? 0 : Find(waiting).parent;
	return engine != 0 && engine != reaper && Find(engine).Lives();
}

bool Change(int fd, const std::string &action, unsigned long block, unsigned long count)
{
	std::vector<char> blocks(count);
	if (pread(fd, blocks.data(), count, static_cast<off_t>(block)) < 0)
		return false;
	for (char &bits : blocks)
		if (action == "--set-bitmap")
			bits = kMarked | kInCache;
		else
			bits = static_cast<char>(bits & ~(action == "--unset-bitmap" ? kMarked : kInCache));
	return pwrite(fd, blocks.data(), count, static_cast<off_t>(block)) == static_cast<ssize_t>(count);
}

/// Counts a run, by the size of a file.
void Count(const std::string &name)
{
	const int fd = open((std::string(kFolder) + name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
	[[maybe_unused]] const ssize_t written = write(fd, "", 1);
	close(fd);
}

} // namespace

int main(int argc, char **argv)
{
	// tool --set-bitmap --mount-path /volume1 --start-sector 128 --num-sectors 8
	if (argc != 8)
		return 2;
	const std::string volume = argv[3];
	const int fd = open((std::string(kFolder) + volume.substr(volume.rfind('/') + 1)).c_str(),
	                    O_RDWR | O_CREAT | O_CLOEXEC, 0600);
	if (fd < 0 || flock(fd, LOCK_EX) != 0)
		return 2;
	if (!HasEngine()) {
		Count("late");
		return 1;
	}
	Count("runs");
	const unsigned long block = strtoul(argv[5], nullptr, 10) / kSectorsOfBlock;
	return Change(fd, argv[1], block, strtoul(argv[7], nullptr, 10) / kSectorsOfBlock) ? 0 : 2;
}
