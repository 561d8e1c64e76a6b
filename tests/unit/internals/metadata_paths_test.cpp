#include "btrfs_metadata_cache/paths.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/storage.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const std::string kUuid = "11111111-2222-4333-8444-555555555555";
const std::string kRunFolder = "/run/zevotuned/metadata_cache";
const std::string kFault = "[0xFA17 fault:1]";

mode_t ModeOf(const std::string &path)
{
	struct stat status = {};
	EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
	return status.st_mode & 07777;
}

class MetadataPaths : public kit::LabTest {
protected:
	MetadataPaths()
	{
		VUNKCErrSetEx(0, "", 0);
		storage.volumes = {{volume, kUuid}, {"/ext4", "", {}, ZEVO_FS_EXT}};
	}

	int Mapping(bool create) { return BtrfsMetadataCacheConfigPathGet(volume.c_str(), path.data(), create); }
	int Progress(const std::string &its, bool create)
	{
		return BtrfsMetadataCacheProgressPathGet(its.c_str(), path.data(), create);
	}
	int Pid(const std::string &volumePath, bool create)
	{
		return BtrfsMetadataCachePidPathGet(volumePath.c_str(), path.data(), create);
	}
	int Uuid(const std::string &volumePath) { return BtrfsMetadataCacheUuidGet(volumePath.c_str(), uuid); }

	void ExpectNeitherLinesNorError() const
	{
		EXPECT_EQ(journal.Lines(), Lines{});
		EXPECT_EQ(VUNKCErrGet(), 0);
	}

	kit::TempDir dir;
	const std::string volume = dir.Path();
	const std::string folder = volume + "/@eaDir";
	const std::string mapping = folder + "/zevo_btrfs_metadata_mapping_config";
	const std::string progress = kRunFolder + "/" + kUuid + ".progress";
	const std::string pid = kRunFolder + "/" + kUuid + ".pid";
	VolumePath path;
	UuidText uuid;
	kit::FakeStorage storage;
	kit::Journal journal;
};

using MetadataUuid = MetadataPaths;
using MappingPath = MetadataPaths;
using ProgressPath = MetadataPaths;
using PidPath = MetadataPaths;

TEST_F(MetadataUuid, IsThatOfABtrfsVolume)
{
	EXPECT_EQ(Uuid(volume), 0);
	EXPECT_EQ(uuid.c_str(), kUuid);
	EXPECT_EQ(storage.calls, (Lines{"ZEVOGetFSType " + volume + " 0", "ZEVOFSGetBTRFSUuid " + volume + " 40"}));
	ExpectNeitherLinesNorError();
}

TEST_F(MetadataUuid, IsSilentlyNoneOfAnotherFileSystem)
{
	for (const int stale : {0, 0xD900, 0xC200, 0xB00}) {
		VUNKCErrSetEx(stale, "stale", 1);
		EXPECT_EQ(Uuid("/ext4"), -1);
		EXPECT_EQ(VUNKCErrGet(), 0xD900);
		EXPECT_STREQ(VUNKCErrorGetFile(), "btrfs_metadata_cache.cpp");
	}
	EXPECT_STREQ(uuid.c_str(), "");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataUuid, FailsWithTheCodeOfTheFailureWhateverStoodThereBefore)
{
	for (const char *function : {"ZEVOGetFSType", "ZEVOFSGetBTRFSUuid"}) {
		SCOPED_TRACE(function);
		journal.Clear();
		VUNKCErrSetEx(0xD900, "stale", 1);
		const kit::Fault fault(function);
		EXPECT_EQ(Uuid(volume), -1);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(),
		          Lines{"btrfs_metadata_cache.cpp Failed to get UUID from [" + volume + "]\n" + kFault});
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
	EXPECT_STREQ(uuid.c_str(), "");
}

TEST_F(MetadataUuid, LeavesNoCodeOfAnEarlierCall)
{
	VUNKCErrSetEx(0xD900, "stale", 1);
	EXPECT_EQ(Uuid(volume), 0);
	ExpectNeitherLinesNorError();
}

TEST_F(MappingPath, IsNotThereAndNothingIsMadeUnlessAskedFor)
{
	EXPECT_EQ(Mapping(false), 0);
	EXPECT_EQ(path.c_str(), mapping);
	EXPECT_FALSE(fs::exists(folder));
	ExpectNeitherLinesNorError();
}

TEST_F(MappingPath, IsMadeEmptyWithItsFolderWhateverTheUmask)
{
	umask(0077);
	EXPECT_EQ(Mapping(true), 1);
	EXPECT_EQ(path.c_str(), mapping);
	EXPECT_EQ(kit::ReadFile(mapping), "");
	EXPECT_EQ(ModeOf(mapping), 0644u);
	EXPECT_EQ(Mapping(false), 1);
	ExpectNeitherLinesNorError();
}

TEST_F(MappingPath, LeavesAFileThatIsThereAsItIs)
{
	kit::WriteFile(mapping, "[config]\nstatus=\"2\"\n");
	ASSERT_EQ(chmod(mapping.c_str(), 0600), 0);
	EXPECT_EQ(Mapping(true), 1);
	EXPECT_EQ(Mapping(false), 1);
	EXPECT_EQ(kit::ReadFile(mapping), "[config]\nstatus=\"2\"\n");
	EXPECT_EQ(ModeOf(mapping), 0600u);
	ExpectNeitherLinesNorError();
}

TEST_F(MappingPath, FailsWhereItsFolderIsSomethingElse)
{
	kit::WriteFile(folder, "");
	EXPECT_EQ(Mapping(false), -1);
	EXPECT_EQ(Mapping(true), -1);
	EXPECT_EQ(journal.Lines(),
	          (Lines{"btrfs_metadata_cache.cpp Failed to get zevotuned config directory [0xA000 utils.cpp]",
	                 "btrfs_metadata_cache.cpp Failed to create pin btrfs metadata directory [" + folder +
	                         "] [0xA000 utils.cpp]"}));
	EXPECT_EQ(VUNKCErrGet(), 0xA000);
}

TEST_F(MappingPath, FailsWhereItsFolderCannotBeMade)
{
	const kit::PathFault fault("mkdir", folder, EROFS);
	EXPECT_EQ(Mapping(true), -1);
	EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Failed to create pin btrfs metadata directory [" +
	                                 folder + "] [0x0C00 utils.cpp]"});
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
}

TEST_F(MappingPath, FailsSilentlyWhereSomethingElseThanAFileIs)
{
	fs::create_directories(mapping);
	for (const bool create : {false, true}) {
		VUNKCErrSetEx(0, "", 0);
		EXPECT_EQ(Mapping(create), -1);
		EXPECT_EQ(VUNKCErrGet(), 0xC000);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MappingPath, FailsWhereItCannotBeMade)
{
	const kit::PathFault fault("open", mapping, EDQUOT);
	EXPECT_EQ(Mapping(true), -1);
	EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Failed to create [" + mapping + "]\n"});
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
	EXPECT_FALSE(fs::exists(mapping));
}

TEST_F(MappingPath, IsNotMadeThroughALinkThatLeadsNowhere)
{
	fs::create_directory(folder);
	fs::create_symlink(dir.Path("elsewhere"), mapping);
	EXPECT_EQ(Mapping(true), -1);
	EXPECT_FALSE(fs::exists(dir.Path("elsewhere")));
	EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Failed to create [" + mapping + "]\n"});
}

// A volume is its users' data: what they put there is not followed, and not believed.
TEST_F(MappingPath, IsNotLookedForBehindALink)
{
	fs::create_directory(dir.Path("elsewhere"));
	fs::create_directory_symlink(dir.Path("elsewhere"), folder);
	EXPECT_EQ(Mapping(false), -1);
	EXPECT_EQ(Mapping(true), -1);
	const std::string code = "[0xA000 btrfs_metadata_cache.cpp]";
	EXPECT_EQ(journal.Lines(), (Lines{"btrfs_metadata_cache.cpp Failed to get zevotuned config directory " + code,
	                                  "btrfs_metadata_cache.cpp Failed to create pin btrfs metadata directory [" +
	                                          folder + "] " + code}));
	EXPECT_EQ(kit::Names(dir.Path("elsewhere")), std::set<std::string>());
}

TEST_F(MappingPath, IsNoFileOfAnotherUserAndNoLink)
{
	fs::create_directory(folder);
	kit::WriteFile(dir.Path("file"), "");
	fs::create_symlink(dir.Path("file"), mapping);
	EXPECT_EQ(Mapping(false), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xC000);
	fs::remove(mapping);
	kit::WriteFile(mapping, "");
	if (chown(mapping.c_str(), 1000, 1000) != 0)
		GTEST_SKIP() << "only root can give files away";
	for (const bool create : {false, true}) {
		VUNKCErrSetEx(0, "", 0);
		EXPECT_EQ(Mapping(create), -1);
		EXPECT_EQ(VUNKCErrGet(), 0xC000);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressPath, IsThereForAllWhoMakeItsFolderAtTheSameMoment)
{
	for (int round = 0; round < 100; ++round) {
		fs::remove_all("/run/zevotuned");
		std::vector<std::thread> callers;
		for (int i = 0; i < 3; ++i)
			callers.emplace_back([] {
				VolumePath found;
				EXPECT_EQ(BtrfsMetadataCacheProgressPathGet("some-uuid", found.data(), true), 1);
			});
		for (std::thread &caller : callers)
			caller.join();
	}
}

TEST_F(ProgressPath, IsNeverThatOfAnEmptyUuid)
{
	for (const bool create : {false, true}) {
		journal.Clear();
		EXPECT_EQ(Progress("", create), -1);
		EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Failed to get or create progress file with "
		                                 "un-initialized uuid.[0x0000 :0]"});
	}
	EXPECT_STREQ(path.c_str(), "");
	EXPECT_FALSE(fs::exists("/run/zevotuned"));
}

TEST_F(ProgressPath, MakesItsFolderWheneverItIsAskedFor)
{
	EXPECT_EQ(Progress(kUuid, false), 0);
	EXPECT_EQ(path.c_str(), progress);
	EXPECT_TRUE(fs::is_directory(kRunFolder));
	EXPECT_FALSE(fs::exists(progress));
	umask(0077);
	EXPECT_EQ(Progress(kUuid, true), 1);
	EXPECT_EQ(ModeOf(progress), 0644u);
	EXPECT_EQ(Progress(kUuid, false), 1);
	ExpectNeitherLinesNorError();
}

TEST_F(ProgressPath, FailsSilentlyWhereAFolderIsSomethingElseOrCannotBeMade)
{
	for (const std::string parent : {"/run/zevotuned", "/run/zevotuned/metadata_cache"}) {
		SCOPED_TRACE(parent);
		kit::FreshMachine();
		{
			const kit::PathFault fault("mkdir", parent, ENOSPC);
			EXPECT_EQ(Progress(kUuid, true), -1);
			EXPECT_EQ(VUNKCErrGet(), 0xC00);
		}
		kit::FreshMachine();
		kit::WriteFile(parent, "");
		EXPECT_EQ(Progress(kUuid, true), -1);
		EXPECT_EQ(VUNKCErrGet(), 0xA000);
		fs::remove(parent);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressPath, FailsSilentlyWhereSomethingElseThanAFileIs)
{
	fs::create_directories(progress);
	EXPECT_EQ(Progress(kUuid, false), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xC000);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressPath, IsNotThereWhereItCannotBeMade)
{
	const kit::PathFault fault("open", progress, ENOSPC);
	EXPECT_EQ(Progress(kUuid, true), 0);
	EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Failed to create [" + progress + "]\n"});
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
}

TEST_F(PidPath, IsNamedByTheUuidOfTheVolume)
{
	EXPECT_EQ(Pid(volume, false), 0);
	EXPECT_EQ(path.c_str(), pid);
	EXPECT_FALSE(fs::exists(pid));
	umask(0077);
	EXPECT_EQ(Pid(volume, true), 1);
	EXPECT_EQ(ModeOf(pid), 0644u);
	EXPECT_EQ(kit::ReadFile(pid), "");
	EXPECT_EQ(Pid(volume, false), 1);
	ExpectNeitherLinesNorError();
}

TEST_F(PidPath, IsSilentlyNoneOfAnotherFileSystem)
{
	EXPECT_EQ(Pid("/ext4", true), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xD900);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_FALSE(fs::exists("/run/zevotuned"));
}

TEST_F(PidPath, FailsWhereTheUuidCannotBeHad)
{
	const kit::Fault fault("ZEVOFSGetBTRFSUuid");
	EXPECT_EQ(Pid(volume, true), -1);
	EXPECT_EQ(journal.Lines(),
	          Lines{"btrfs_metadata_cache.cpp Failed to get UUID from [" + volume + "]\n" + kFault});
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	EXPECT_FALSE(fs::exists("/run/zevotuned"));
}

TEST_F(PidPath, IsNotThereWhereItCannotBeMadeAndFailsWhereItIsNoFile)
{
	{
		const kit::PathFault fault("open", pid, ENOSPC);
		EXPECT_EQ(Pid(volume, true), 0);
		EXPECT_EQ(VUNKCErrGet(), 0xC00);
	}
	fs::create_directories(pid);
	EXPECT_EQ(Pid(volume, true), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xC000);
	EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Failed to create [" + pid + "]\n"});
}

} // namespace
