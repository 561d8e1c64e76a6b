#include "btrfs_metadata_cache/paths.h"
#include "btrfs_metadata_cache/progress.h"
#include "btrfs_metadata_cache/volume_lookup.h"
#include "support/check.h"
#include "support/handles.h"

#include <vunkcore/pid_file.h>
#include <zevostorage/error.h>
#include <zevotuned/metadata_cache.h>

#include <cstring>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace {

constexpr int kRepeats = 5;

// What a pid file says, which is one process for ever.
using Entry = TextBuffer<64>;

Entry ReadEntry(const VolumePath &pidFile)
{
	Entry entry;
	const FileDescriptor file(open(pidFile.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
	if (!file || read(file.get(), entry.data(), entry.capacity() - 1) < 0)
		return Entry();
	return entry;
}

// The process that a pid file named when it was first looked at. An engine that has followed it since is not to be stopped.
class Engine {
public:
	explicit Engine(const VolumePath &pidFile) : file(pidFile), entry(ReadEntry(pidFile)) {}

	bool HasSuccessor() const
	{
		const Entry now = ReadEntry(file);
		const bool areRead = *entry.c_str() != '\0' && *now.c_str() != '\0';
		return areRead && strcmp(now.c_str(), entry.c_str()) != 0;
	}
	bool IsAlive() const { return !HasSuccessor() && VUNKCProcAliveByPidFile(file.c_str()) == 1; }
	void Signal(int number) const { VUNKCProcSignalByPidFile(file.c_str(), number); }

private:
	const VolumePath &file;
	const Entry entry;
};

// A signal for the host program must not cut the engine's time short.
void SleepASecond()
{
	unsigned left = 1;
	while (left > 0)
		left = sleep(left);
}

// The lock of the killed engine is free, and the next one can have it, only when the process has ended. That takes a moment,
// and longer while it waits for a device.
void WaitForEnd(const Engine &engine)
{
	constexpr int kLooks = 100;
	constexpr useconds_t kPause = 10'000;
	for (int look = 0; look < kLooks && engine.IsAlive(); ++look)
		usleep(kPause);
}

// Whether the process ended of its own accord.
bool End(const Engine &engine)
{
	engine.Signal(SIGTERM);
	for (int repeat = 0; repeat < kRepeats; ++repeat) {
		SleepASecond();
		if (!engine.IsAlive())
			return true;
		engine.Signal(SIGTERM);
	}
	engine.Signal(SIGKILL);
	return false;
}

} // namespace

int ZEVOBtrfsMetadataCacheForceStop(const char *szPath)
{
	CHECK_ARGUMENT(__null != szPath);

	VolumePath volume;
	if (BtrfsMetadataCacheSpaceFind(szPath, volume.data()) != 0) {
		LOG_ERROR("Failed to find space with [%s]", szPath);
		return -1;
	}
	UuidText uuid;
	if (BtrfsMetadataCacheUuidGet(volume.c_str(), uuid) != 0)
		return VUNKCErrGet() == ZEVO_ERR_NOT_BTRFS ? 0 : -1;
	VolumePath pidFile;
	const int present = BtrfsMetadataCachePidPathGet(volume.c_str(), pidFile.data(), false);
	if (present < 0) {
		LOG_ERROR("Failed to get Btrfs Metadata Cache Pid file path with vol path [%s].", volume.c_str());
		return -1;
	}
	if (present == 0)
		return 0;
	const Engine engine(pidFile);
	if (End(engine)) {
		LOG_NOTABLE("Success to force stop Btrfs Metadata Cache with vol path [%s].", volume.c_str());
	} else {
		LOG_ERROR("Failed to force stop Btrfs Metadata Cache with vol path [%s].", volume.c_str());
		WaitForEnd(engine);
	}
	if (!engine.HasSuccessor()) { // whose files they would be
		BtrfsMetadataCacheProgressEnd(uuid.c_str());
		unlink(pidFile.c_str());
	}
	return 0;
}
