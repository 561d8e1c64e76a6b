#include "btrfs_metadata_cache/pid_file.h"

#include "unit/internals/pin_pass_test.h"

#include <vunkcore/pid_file.h>

#include <sys/stat.h>

namespace {

class MetadataPidFile : public PinPassTest {
protected:
	int Write() { return BtrfsMetadataCachePidFileWrite(volume.kPath, written); }
	int Remove() { return BtrfsMetadataCachePidFileRemove(volume.kPath, written); }

	VolumePath written;
	const std::string noPath = "Failed to get Btrfs Metadata Cache Pid file path with vol path [{volume}].{code}";
};

TEST_F(MetadataPidFile, NamesTheProcessUntilItIsRemoved)
{
	EXPECT_EQ(Write(), 0);
	EXPECT_EQ(written.c_str(), volume.kPid);
	EXPECT_EQ(VUNKCProcAliveByPidFile(volume.kPid.c_str()), 1);
	struct stat status;
	ASSERT_EQ(stat(volume.kPid.c_str(), &status), 0);
	EXPECT_EQ(status.st_mode & 07777, 0644u);
	EXPECT_EQ(Remove(), 0);
	EXPECT_FALSE(std::filesystem::exists(volume.kPid));
	EXPECT_EQ(Remove(), 0); // it need not be there
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataPidFile, ReplacesOneThatIsLeft)
{
	kit::WriteFile(volume.kPid, "999999 1\n");
	EXPECT_EQ(Write(), 0);
	EXPECT_EQ(VUNKCProcAliveByPidFile(volume.kPid.c_str()), 1);
	EXPECT_EQ(Remove(), 0);
}

TEST_F(MetadataPidFile, IsNotLeftEmptyWhenItCannotBeWritten)
{
	const std::string inTheWay = "/run/zevotuned/metadata_cache/." + std::string(volume.kUuid) + ".pid.new";
	std::filesystem::create_directories(inTheWay);
	EXPECT_EQ(Write(), -1);
	EXPECT_EQ(journal.Lines(),
	          Log({"Failed to VUNKCProcPidFileCreate with [{pid}]{code}"}, Of("[0x0B00 {pid}:0]")));
	EXPECT_FALSE(std::filesystem::exists(volume.kPid));
	std::filesystem::remove(inTheWay);
}

TEST_F(MetadataPidFile, IsOfAVolumeWithAUuid)
{
	{
		const kit::Fault fault("ZEVOFSGetBTRFSUuid");
		EXPECT_EQ(Write(), -1);
	}
	EXPECT_EQ(journal.Lines(), Log({"Failed to get UUID from [{volume}]\n{code}", noPath}));
	Forget();
	volume.storage.volumes[0].type = ZEVO_FS_EXT;
	EXPECT_EQ(Write(), -1);
	EXPECT_EQ(journal.Lines(), Log({noPath}, "[0xD900 btrfs_metadata_cache.cpp]"));
}

TEST_F(MetadataPidFile, IsRemovedAlsoWhenTheVolumeCannotBeAskedAnyMore)
{
	EXPECT_EQ(Write(), 0);
	const kit::Fault fault("ZEVOGetFSType");
	EXPECT_EQ(Remove(), -1);
	EXPECT_EQ(journal.Lines(), Log({"Failed to get UUID from [{volume}]\n{code}", noPath}));
	EXPECT_FALSE(std::filesystem::exists(volume.kPid));
}

TEST_F(MetadataPidFile, MayBeRemovedBySomebodyElseAtTheSameMoment)
{
	EXPECT_EQ(Write(), 0);
	timeline.before = [](const std::string &line) {
		if (line.starts_with("unlink "))
			std::filesystem::remove(line.substr(7));
	};
	EXPECT_EQ(Remove(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataPidFile, FailsToBeRemovedWhereItStays)
{
	EXPECT_EQ(Write(), 0);
	{
		const kit::PathFault fault("unlink", volume.kPid, EPERM);
		EXPECT_EQ(Remove(), -1);
	}
	EXPECT_EQ(journal.Lines(), Log({"Failed to delete btrfs metadata cache pid file ({pid}) "}));
	EXPECT_EQ(Remove(), 0);
}

} // namespace
