#include "answers.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/real.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <optional>

#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

using namespace answers;

namespace {

/// The type that every file system has, for kinds that cannot be made here.
std::optional<long> magic;

class EveryFileSystemIs {
public:
	explicit EveryFileSystemIs(long type) { magic = type; }
	~EveryFileSystemIs() { magic.reset(); }
};

std::string TypeOf(const std::string &path)
{
	SetOldCode();
	const int type = ZEVOGetFSType(path.c_str(), 0);
	if (type < 0)
		return Failed();
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	return std::to_string(type);
}

std::string UuidOf(const std::string &path, size_t size = ZEVO_UUID_SIZE)
{
	const std::string before(64, '~');
	std::string uuid = before;
	SetOldCode();
	if (ZEVOFSGetBTRFSUuid(path.c_str(), uuid.data(), size) != 0) {
		EXPECT_EQ(uuid, before) << "changed by a call that failed";
		return Failed();
	}
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	EXPECT_EQ(uuid.substr(ZEVO_UUID_SIZE), before.substr(ZEVO_UUID_SIZE));
	return uuid.c_str();
}

bool Runs(const std::string &command)
{
	return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/// A file system in a file, mounted by a loop device, which the mount gives back.
class Image {
public:
	Image(const kit::TempDir &dir, const std::string &maker, int megabytes)
	{
		const std::string file = dir.Path("image");
		std::ofstream(file).close();
		if (truncate(file.c_str(), static_cast<off_t>(megabytes) << 20) != 0 || !Runs(maker + " " + file))
			return;
		mkdir(dir.Path("mounted").c_str(), 0755);
		isMounted = Runs("mount -o loop " + file + " " + dir.Path("mounted"));
		path = dir.Path("mounted");
	}
	~Image()
	{
		if (isMounted)
			umount2(path.c_str(), 0);
	}
	Image(const Image &) = delete;
	Image &operator=(const Image &) = delete;

	bool isMounted = false;
	std::string path;
};

class FileSystems : public kit::LabTest {
protected:
	kit::TempDir dir; // on a tmpfs
};

} // namespace

extern "C" {

int statfs(const char *path, struct statfs *status) noexcept
{
	static const auto real = kit::Real<int(const char *, struct statfs *)>("statfs");
	const int result = real(path, status);
	if (result == 0 && magic.has_value())
		status->f_type = *magic;
	return result;
}

int fstatfs(int fd, struct statfs *status) noexcept
{
	static const auto real = kit::Real<int(int, struct statfs *)>("fstatfs");
	const int result = real(fd, status);
	if (result == 0 && magic.has_value())
		status->f_type = *magic;
	return result;
}

} // extern "C"

TEST_F(FileSystems, WithoutACodeOfTheirOwnAreOther)
{
	kit::WriteFile(dir.Path("file"), "x");
	EXPECT_EQ(TypeOf(dir.Path()), "0");
	EXPECT_EQ(TypeOf(dir.Path("file")), "0");
	EXPECT_EQ(TypeOf("/proc/self"), "0");
}

TEST_F(FileSystems, HaveTypeCodes)
{
	for (const auto &[type, code] : {std::pair<long, const char *>(EXT4_SUPER_MAGIC, "1"),
	                                 {0x58465342 /* XFS */, "2"},
	                                 {BTRFS_SUPER_MAGIC, "3"},
	                                 {MSDOS_SUPER_MAGIC, "0"},
	                                 {OVERLAYFS_SUPER_MAGIC, "0"}}) {
		const EveryFileSystemIs fake(type);
		EXPECT_EQ(TypeOf(dir.Path()), code) << type;
	}
}

TEST_F(FileSystems, AreFoundFromAnythingOnThem)
{
	ASSERT_EQ(mkfifo(dir.Path("fifo").c_str(), 0600), 0);
	ASSERT_EQ(symlink("/proc/self", dir.Path("link").c_str()), 0);
	EXPECT_EQ(TypeOf(dir.Path("fifo")), "0");
	EXPECT_EQ(TypeOf(dir.Path("link")), "0");
}

TEST_F(FileSystems, OfNoPathHaveNoType)
{
	kit::WriteFile(dir.Path("file"), "x");
	ASSERT_EQ(symlink("nowhere", dir.Path("dangling").c_str()), 0);
	ASSERT_EQ(symlink("loop", dir.Path("loop").c_str()), 0);
	for (const char *name : {"missing", "file/below", "dangling"}) {
		EXPECT_EQ(TypeOf(dir.Path(name)), "failed 0x0800 " + dir.Path(name));
		EXPECT_EQ(UuidOf(dir.Path(name)), "failed 0x0800 " + dir.Path(name));
	}
	EXPECT_EQ(TypeOf(""), "failed 0x0800");
	EXPECT_EQ(TypeOf(dir.Path("loop")), "failed 0x0900 " + dir.Path("loop"));
	EXPECT_EQ(UuidOf(dir.Path("loop")), "failed 0x0900 " + dir.Path("loop"));
}

TEST_F(FileSystems, RefuseArgumentsOutOfRange)
{
	const std::string path = dir.Path();
	char uuid[ZEVO_UUID_SIZE] = "before";
	const std::vector<std::function<int()>> calls = {
		[&] { return ZEVOGetFSType(nullptr, 0); },
		[&] { return ZEVOGetFSType(path.c_str(), 1); },
		[&] { return ZEVOGetFSType(path.c_str(), -1); },
		[&] { return ZEVOFSGetBTRFSUuid(nullptr, uuid, sizeof(uuid)); },
		[&] { return ZEVOFSGetBTRFSUuid(path.c_str(), nullptr, sizeof(uuid)); },
		[&] { return ZEVOFSGetBTRFSUuid(path.c_str(), uuid, sizeof(uuid) - 1); },
		[&] { return ZEVOFSGetBTRFSUuid(path.c_str(), uuid, 0); },
	};
	for (size_t i = 0; i < calls.size(); ++i) {
		SetOldCode();
		EXPECT_EQ(calls[i](), -1) << i;
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT) << i;
	}
	EXPECT_STREQ(uuid, "before");
}

TEST_F(FileSystems, OtherThanBtrfsHaveNoUuid)
{
	kit::WriteFile(dir.Path("file"), "x");
	EXPECT_EQ(UuidOf(dir.Path()), "failed 0xD900 " + dir.Path());
	EXPECT_EQ(UuidOf(dir.Path("file")), "failed 0xD900 " + dir.Path("file"));
}

// Opening one would wait for a writer.
TEST_F(FileSystems, AreNotWaitedForAtAPipe)
{
	ASSERT_EQ(mkfifo(dir.Path("fifo").c_str(), 0600), 0);
	EXPECT_EQ(UuidOf(dir.Path("fifo")), "failed 0xD900 " + dir.Path("fifo"));
}

TEST_F(FileSystems, ThatCannotBeOpenedHaveNoUuid)
{
	const kit::PathFault fault("open", dir.Path(), EACCES);
	EXPECT_EQ(UuidOf(dir.Path()), "failed 0x0900 " + dir.Path());
}

TEST_F(FileSystems, ThatDoNotAnswerHaveNoUuid)
{
	const EveryFileSystemIs fake(BTRFS_SUPER_MAGIC);
	EXPECT_EQ(UuidOf(dir.Path()), "failed 0x0A00 " + dir.Path());
}

TEST_F(FileSystems, OfTheKindBtrfsHaveTheUuidThatTheyAreNamedBy)
{
	constexpr char kMadeWith[] = "0B7D9A3E-5F12-4C8A-9D3B-6A1E2F3C4D5E";
	constexpr char kUuid[] = "0b7d9a3e-5f12-4c8a-9d3b-6a1e2f3c4d5e";
	if (!Runs("mkfs.btrfs --version"))
		GTEST_SKIP() << "there is no mkfs.btrfs";
	const Image image(dir, std::string("mkfs.btrfs -U ") + kMadeWith, 128);
	if (!image.isMounted)
		GTEST_SKIP() << "a Btrfs cannot be mounted from a file here";
	EXPECT_EQ(TypeOf(image.path), "3");
	EXPECT_EQ(UuidOf(image.path), kUuid);

	kit::WriteFile(image.path + "/folder/file", "x");
	ASSERT_EQ(symlink((image.path + "/folder").c_str(), dir.Path("link").c_str()), 0);
	EXPECT_EQ(UuidOf(image.path + "/folder"), kUuid);
	EXPECT_EQ(UuidOf(image.path + "/folder/file"), kUuid);
	EXPECT_EQ(UuidOf(dir.Path("link"), 64), kUuid);
	EXPECT_EQ(TypeOf(dir.Path("link")), "3");

	// The other calls of the library, about a file system that is there.
	const SpaceList list;
	const ZEVOSPACEINFO *const space = list.Find(image.path);
	ASSERT_NE(space, nullptr);
	EXPECT_STREQ(space->szUuid, kUuid);
	EXPECT_EQ(DisksOf(space), (Strings{space->szDevice}));
}

TEST_F(FileSystems, OfTheKindExtAreMountedVolumes)
{
	if (!Runs("mkfs.ext4 -V"))
		GTEST_SKIP() << "there is no mkfs.ext4";
	const Image image(dir, "mkfs.ext4 -q -F", 16);
	if (!image.isMounted)
		GTEST_SKIP() << "an ext4 cannot be mounted from a file here";
	EXPECT_EQ(TypeOf(image.path), "1");
	EXPECT_EQ(UuidOf(image.path), "failed 0xD900 " + image.path);

	const SpaceList list;
	const ZEVOSPACEINFO *const space = list.Find(image.path);
	ASSERT_NE(space, nullptr);
	EXPECT_STREQ(space->szUuid, "");
	EXPECT_EQ(DisksOf(space), (Strings{space->szDevice}));
	EXPECT_THAT(VolumeLines(ZEVO_FS_EXT), testing::Contains(image.path + " ext4 1 " + space->szDevice));
}
