#include "answers.h"

#include "kit/faults.h"
#include "kit/files.h"

#include <vunkcore/vunkcore.h>
#include <zevostorage/volume_conf.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include <sys/stat.h>

using namespace answers;

namespace fs = std::filesystem;

namespace {

const std::string kDir = ZEVO_VOLUME_CONF_DIR;
const std::string kUuid = "0b7d9a3e-5f12-4c8a-9d3b-6a1e2f3c4d5e";
const std::string kOtherUuid = "5c1f20d4-7a3b-4e6d-8f90-12ab34cd56ef";
const std::string kFile = kDir + "/" + kUuid;

/// Two Btrfs volumes, by what they say of themselves.
class VolumeConf : public StorageTest {
protected:
	VolumeConf() { machine.btrfsPaths = {{"/volume1", kUuid}, {"/volume2", kOtherUuid}}; }
};

/// "1", or a failure.
std::string Get(const std::string &path)
{
	ZEVOVOLUMECONF conf = {77};
	SetOldCode();
	if (ZEVOVolumeConfGet(path.c_str(), &conf) != 0) {
		EXPECT_EQ(conf.uMetadataCache, 77U) << "changed by a call that failed";
		return Failed();
	}
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	return std::to_string(conf.uMetadataCache);
}

std::string Set(const std::string &path, unsigned value, int fields = ZEVO_VOLUME_CONF_METADATA_CACHE)
{
	const ZEVOVOLUMECONF conf = {value};
	SetOldCode();
	const int result = ZEVOVolumeConfSet(path.c_str(), &conf, fields);
	if (result != 0) {
		EXPECT_EQ(result, -1);
		return Failed();
	}
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	return "set";
}

mode_t ModeOf(const std::string &path)
{
	struct stat status = {};
	EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
	return status.st_mode & 07777;
}

} // namespace

TEST_F(VolumeConf, IsNoneBeforeItIsSet)
{
	EXPECT_EQ(Get("/volume1"), "failed 0xC200 " + kFile);
	fs::create_directories(kDir);
	EXPECT_EQ(Get("/volume1"), "failed 0xC200 " + kFile);
}

TEST_F(VolumeConf, IsReadBackAsItWasSet)
{
	for (const unsigned value : {1U, 0U, 16U, 4294967295U}) {
		EXPECT_EQ(Set("/volume1", value), "set");
		EXPECT_EQ(Get("/volume1"), std::to_string(value));
		EXPECT_EQ(kit::ReadFile(kFile), "metadata_cache=\"" + std::to_string(value) + "\"\n");
	}
	EXPECT_EQ(Get("/volume2"), "failed 0xC200 " + kDir + "/" + kOtherUuid);
}

TEST_F(VolumeConf, MakesTheFileAndItsFolder)
{
	EXPECT_EQ(Set("/volume1", 1), "set");
	EXPECT_EQ(kit::Names(kDir), (std::set<std::string>{".lock", kUuid}));
	EXPECT_EQ(ModeOf(kDir), 0755U);
	EXPECT_EQ(ModeOf(kFile), 0644U);
}

TEST_F(VolumeConf, FollowsTheFileSystemToWhereItIsMounted)
{
	EXPECT_EQ(Set("/volume1", 1), "set");
	machine.btrfsPaths = {{"/volume1", kOtherUuid}, {"/volume7", kUuid}};
	EXPECT_EQ(Get("/volume7"), "1");
	EXPECT_EQ(Get("/volume1"), "failed 0xC200 " + kDir + "/" + kOtherUuid);
}

TEST_F(VolumeConf, KeepsWhatElseTheFileSays)
{
	kit::WriteFile(kFile, "before = a b\nmetadata_cache = 0\nafter =\n");
	EXPECT_EQ(Set("/volume1", 1), "set");
	EXPECT_EQ(kit::ReadFile(kFile), "before=\"a b\"\nmetadata_cache=\"1\"\nafter=\"\"\n");
}

TEST_F(VolumeConf, KeepsModeAndOwnerOfTheFile)
{
	kit::WriteFile(kFile, "");
	ASSERT_EQ(chmod(kFile.c_str(), 0600), 0);
	EXPECT_EQ(Set("/volume1", 1), "set");
	EXPECT_EQ(ModeOf(kFile), 0600U);
}

TEST_F(VolumeConf, IsOffWhereTheFileDoesNotNameIt)
{
	for (const char *text : {"", "# nothing\n", "other=1\n", "METADATA_CACHE=1\n"}) {
		kit::WriteFile(kFile, text);
		EXPECT_EQ(Get("/volume1"), "0") << text;
	}
}

TEST_F(VolumeConf, IsAFailureWhenASettingIsNoNumber)
{
	for (const char *value : {"", "yes", "-1", "+1", "1x", "0x1", "1 2", "4294967296", "99999999999999999999"}) {
		kit::WriteFile(kFile, std::string("metadata_cache=\"") + value + "\"\n");
		EXPECT_EQ(Get("/volume1"), "failed 0x2200 " + kFile) << value;
	}
	EXPECT_EQ(Set("/volume1", 1), "set"); // which mends it
	EXPECT_EQ(Get("/volume1"), "1");
}

TEST_F(VolumeConf, IsAFailureWhenTheFileCannotBeUnderstood)
{
	const std::string text = "metadata_cache=1\nnonsense\n";
	kit::WriteFile(kFile, text);
	EXPECT_EQ(Get("/volume1"), "failed 0x1500 " + kFile);
	EXPECT_EQ(VUNKCErrorGetLine(), 2);
	EXPECT_EQ(Set("/volume1", 1), "failed 0x1500 " + kFile);
	EXPECT_EQ(VUNKCErrorGetLine(), 2);
	EXPECT_EQ(kit::ReadFile(kFile), text);
}

TEST_F(VolumeConf, IsAFailureWhenTheFileCannotBeReadOrWritten)
{
	fs::create_directories(kFile);
	EXPECT_EQ(Get("/volume1"), "failed 0x0A00 " + kFile);
	EXPECT_EQ(Set("/volume1", 1), "failed 0x0A00 " + kFile);
	fs::remove(kFile);
	fs::create_directory(kDir + "/." + kUuid + ".new"); // what a writer needs the name of
	EXPECT_EQ(Set("/volume1", 1), "failed 0x0B00 " + kFile);
	EXPECT_FALSE(fs::exists(kFile));
}

TEST_F(VolumeConf, IsAFailureWhenTheFolderCannotBeMade)
{
	{
		const kit::PathFault fault("mkdir", kDir, ENOSPC);
		EXPECT_EQ(Set("/volume1", 1), "failed 0x0B00 " + kDir);
	}
	fs::remove_all("/usr/zevo/etc");
	EXPECT_EQ(Set("/volume1", 1), "failed 0x0B00 " + kDir);
	fs::create_directories("/usr/zevo/etc");
	kit::WriteFile(kDir, "");
	EXPECT_EQ(Set("/volume1", 1), "failed 0x0B00 " + kDir + "/.lock");
	EXPECT_EQ(Get("/volume1"), "failed 0xC200 " + kFile);
}

TEST_F(VolumeConf, WaitsForOtherWriters)
{
	fs::create_directories(kDir + "/.lock");
	int fd = -1;
	ASSERT_EQ(VUNKCFileLockTimeByFile((kDir + "/.lock/write").c_str(), 1, 0, &fd), 1);
	std::string result;
	std::thread writer([&] { result = Set("/volume1", 1); });
	// Has read nothing yet, so what is written now stays.
	kit::WriteFile(kFile, "other=1\n");
	ASSERT_EQ(VUNKCFileUnlockByFile(fd), 1);
	writer.join();
	EXPECT_EQ(result, "set");
	EXPECT_EQ(kit::ReadFile(kFile), "other=\"1\"\nmetadata_cache=\"1\"\n");
}

// Whoever could read its lock file could keep root from writing.
TEST_F(VolumeConf, HasALockThatNobodyElseReaches)
{
	EXPECT_EQ(Set("/volume1", 1), "set");
	EXPECT_EQ(fs::status(kDir + "/.lock").permissions(), fs::perms::owner_all);
	EXPECT_EQ(kit::Names(kDir + "/.lock"), std::set<std::string>{"write"});
}

TEST_F(VolumeConf, IsAFailureWhenTheLockIsNotToBeHad)
{
	const kit::Fault fault("VUNKCFileLockTimeByFile");
	EXPECT_EQ(Set("/volume1", 1), "failed 0xFA17");
	EXPECT_FALSE(fs::exists(kFile));
}

TEST_F(VolumeConf, IsWholeWhateverManyWritersDo)
{
	std::vector<std::thread> writers;
	for (unsigned value = 1; value <= 4; ++value)
		writers.emplace_back([value] {
			for (int i = 0; i < 20; ++i)
				EXPECT_EQ(Set("/volume1", value), "set");
		});
	for (int i = 0; i < 50; ++i)
		EXPECT_TRUE(
			(std::set<std::string>{"1", "2", "3", "4", "failed 0xC200 " + kFile}).count(Get("/volume1")));
	for (std::thread &writer : writers)
		writer.join();
	EXPECT_TRUE((std::set<std::string>{"1", "2", "3", "4"}).count(Get("/volume1")));
	EXPECT_EQ(kit::Names(kDir), (std::set<std::string>{".lock", kUuid}));
}

TEST_F(VolumeConf, IsAFailureWhenTheFileSystemCannotBeAsked)
{
	{
		const kit::Fault fault("ZEVOFSGetBTRFSUuid");
		EXPECT_EQ(Get("/volume1"), "failed 0xFA17"); // says nothing of settings
	}
	EXPECT_EQ(Get("/nowhere"), "failed 0x0800 /nowhere");
	EXPECT_EQ(Set("/nowhere", 1), "failed 0x0800 /nowhere");
	EXPECT_FALSE(fs::exists(kDir));
}

TEST_F(VolumeConf, RefusesArgumentsThatAreNullOrOutOfRange)
{
	ZEVOVOLUMECONF conf = {77};
	const std::vector<std::function<int()>> calls = {
		[&] { return ZEVOVolumeConfGet(nullptr, &conf); },
		[&] { return ZEVOVolumeConfGet("/volume1", nullptr); },
		[&] { return ZEVOVolumeConfSet(nullptr, &conf, ZEVO_VOLUME_CONF_METADATA_CACHE); },
		[&] { return ZEVOVolumeConfSet("/volume1", nullptr, ZEVO_VOLUME_CONF_METADATA_CACHE); },
		[&] { return ZEVOVolumeConfSet("/volume1", &conf, 0); },
		[&] { return ZEVOVolumeConfSet("/volume1", &conf, 1); },
		[&] { return ZEVOVolumeConfSet("/volume1", &conf, ZEVO_VOLUME_CONF_METADATA_CACHE | 1); },
		[&] { return ZEVOVolumeConfSet("/volume1", &conf, -1); },
	};
	for (size_t i = 0; i < calls.size(); ++i) {
		SetOldCode();
		EXPECT_EQ(calls[i](), -1) << i;
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT) << i;
	}
	EXPECT_EQ(conf.uMetadataCache, 77U);
	EXPECT_FALSE(fs::exists(kDir));
}

class VolumeConfOfOtherFileSystems : public kit::LabTest {};

TEST_F(VolumeConfOfOtherFileSystems, IsNone)
{
	const kit::TempDir dir;
	const kit::MountPoint volume("none", dir.Path(), "tmpfs");
	EXPECT_EQ(Get(dir.Path()), "failed 0xC200 " + dir.Path());
	EXPECT_EQ(Set(dir.Path(), 1), "failed 0xD900 " + dir.Path());
	EXPECT_FALSE(fs::exists(kDir));
}
