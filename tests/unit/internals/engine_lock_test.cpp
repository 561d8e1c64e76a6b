#include "btrfs_metadata_cache/engine_lock.h"

#include "unit/internals/pin_pass_test.h"

#include <sys/stat.h>

namespace {

class EngineLockTest : public PinPassTest {
protected:
	EngineLock Take() { return EngineLockTake(context, volume.kPath, fd); }

	MetadataCacheContext context = {};
	int fd = -7;
};

TEST_F(EngineLockTest, IsHeldUntilItIsReleased)
{
	ASSERT_EQ(Take(), EngineLock::Held);
	EXPECT_FALSE(IsLockFree());
	EXPECT_STREQ(context.szUuid, volume.kUuid);
	EXPECT_EQ(context.szLockPath, volume.kLock);
	EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0); // or a tool that outlives the engine would hold it
	struct stat status;
	ASSERT_EQ(fstat(fd, &status), 0);
	EXPECT_EQ(status.st_mode & 07777, 0644u);
	EXPECT_EQ(EngineLockRelease(context, fd), 0);
	EXPECT_TRUE(IsLockFree());
	EXPECT_TRUE(std::filesystem::exists(volume.kLock));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(EngineLockTest, IsBusyWhileAnotherDescriptorHasIt)
{
	ASSERT_EQ(Take(), EngineLock::Held);
	const int first = std::exchange(fd, -7);
	EXPECT_EQ(Take(), EngineLock::Busy);
	EXPECT_EQ(VUNKCErrGet(), 0x6400);
	EXPECT_EQ(fd, -7);
	EXPECT_EQ(EngineLockRelease(context, first), 0);
	ASSERT_EQ(Take(), EngineLock::Held); // of the file that is there
	EXPECT_EQ(EngineLockRelease(context, fd), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(EngineLockTest, IsOfOneVolume)
{
	volume.storage.volumes.push_back({.path = "/run/volume2", .uuid = "22222222-0000-4000-8000-0000000000aa"});
	ASSERT_EQ(Take(), EngineLock::Held);
	MetadataCacheContext other = {};
	int otherFd = -1;
	ASSERT_EQ(EngineLockTake(other, "/run/volume2", otherFd), EngineLock::Held);
	EXPECT_EQ(EngineLockRelease(other, otherFd), 0);
	EXPECT_EQ(EngineLockRelease(context, fd), 0);
}

TEST_F(EngineLockTest, IsNotForOtherFileSystems)
{
	volume.storage.volumes[0].type = ZEVO_FS_EXT;
	EXPECT_EQ(Take(), EngineLock::NotBtrfs);
	EXPECT_EQ(VUNKCErrGet(), 0xD900);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_FALSE(std::filesystem::exists("/run/lock/zevotuned/metadata_cache"));
	EXPECT_EQ(fd, -7);
}

TEST_F(EngineLockTest, FailsForAVolumeThatCannotBeAskedWhateverHasFailedBefore)
{
	for (const char *const function : {"ZEVOGetFSType", "ZEVOFSGetBTRFSUuid"}) {
		Forget();
		VUNKCErrSetEx(0xD900, "stale", 1);
		const kit::Fault fault(function);
		EXPECT_EQ(Take(), EngineLock::Failed);
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(journal.Lines(), Log({"Failed to get UUID from [{volume}]\n{code}"}));
	}
	EXPECT_EQ(fd, -7);
}

TEST_F(EngineLockTest, FailsWithoutAFile)
{
	for (const char *const function : {"open", "flock"})
		for (const int error : {EINTR, ENOLCK, EMFILE}) {
			VUNKCErrSetEx(0x6400, "stale", 1);
			const kit::PathFault fault(function, volume.kLock, error);
			EXPECT_EQ(Take(), EngineLock::Failed);
			EXPECT_EQ(VUNKCErrGet(), 0x900);
			EXPECT_STREQ(VUNKCErrorGetFile(), "btrfs_metadata_cache.cpp");
			EXPECT_EQ(fault.Calls(), 1);
		}
	{
		const kit::PathFault fault("flock", volume.kLock, EAGAIN);
		EXPECT_EQ(Take(), EngineLock::Busy);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(fd, -7);
}

TEST_F(EngineLockTest, ClosesTheFileAlsoWhenItCannotBeUnlocked)
{
	ASSERT_EQ(Take(), EngineLock::Held);
	const kit::Fault fault("VUNKCFileUnlockByFile");
	EXPECT_EQ(EngineLockRelease(context, fd), -1);
	EXPECT_EQ(journal.Lines(), Log({"fail to VUNKCFileUnlockByFile of [{lock}] config{code}"}));
	EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

} // namespace
