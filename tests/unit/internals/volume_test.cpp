#include "utils/apply/volume.h"

#include "section_test.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>

#include <fcntl.h>

namespace {

namespace fs = std::filesystem;

// Where the kernel takes a file system's number of threads.
std::string Attribute(const std::string &uuid)
{
	return "/sys/fs/btrfs/" + uuid + "/zevo_writeback_thread_max";
}

// The line of a volume that fails, and the one of the section.
Lines After(const std::string &first, const std::string &volume, const std::string &code)
{
	return {"utils.cpp " + first,
	        "utils.cpp Fail to TuneApplyProfileVolumeWriteBackThreadBySpaceInfo [" + volume + "]",
	        "utils.cpp Failed to TuneApplyProfileVolumeWriteBackThread" + code};
}

class VolumeTest : public SectionTest {
protected:
	VolumeTest() : SectionTest(TuneApplyVolumeSection)
	{
		storage.isSSD = {{"/dev/sda", 1}, {"/dev/sdb", 1}, {"/dev/sdc", 1}, {"/dev/hda", 0}};
	}

	// Mounts a Btrfs file system on some disks, under /NAME and with UUID uuid-NAME.
	void Add(const std::string &name, const Lines &disks)
	{
		storage.volumes.push_back({"/" + name, "uuid-" + name, disks});
		kit::WriteFile(Attribute("uuid-" + name), "");
	}

	// Volumes a, b and c, each on an SSD of its own.
	void AddThree()
	{
		Add("a", {"/dev/sda"});
		Add("b", {"/dev/sdb"});
		Add("c", {"/dev/sdc"});
	}

	// What has been written to a volume.
	static std::string Written(const std::string &name) { return kit::ReadFile(Attribute("uuid-" + name)); }

	// Applies section "volume" of a file of this text.
	int Apply(const std::string &text) { return SectionTest::Apply("volume", text); }
};

TEST_F(VolumeTest, WritesTheLimitToEveryVolumeOnSSDsAlone)
{
	Add("a", {"/dev/sda", "/dev/sdb"});
	Add("b", {"/dev/sdc"});
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{Attribute("uuid-a") + ": 3", Attribute("uuid-b") + ": 3"}));
	EXPECT_EQ(storage.calls, (Lines{"ZEVOMountVolInfoEnum 0 0", "ZEVOSpaceInfoEnum 1", "ZEVOSpaceInfoSearch /a",
	                                "ZEVOSpaceDiskEnum /a", "ZEVODiskIsSSD /dev/sda", "ZEVODiskIsSSD /dev/sdb",
	                                "ZEVOFSGetBTRFSUuid /a 40", "ZEVOSpaceInfoSearch /b", "ZEVOSpaceDiskEnum /b",
	                                "ZEVODiskIsSSD /dev/sdc", "ZEVOFSGetBTRFSUuid /b 40"}));
	EXPECT_EQ(Written("a"), "3");
	EXPECT_EQ(Written("b"), "3");
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0);
}

// Flags that open() was called with, for the attribute of volume "a".
int flagsOfOpen;

TEST_F(VolumeTest, OpensTheAttributeForWritingOnlyAndNotForOtherPrograms)
{
	Add("a", {"/dev/sda"});
	flagsOfOpen = 0;
	kit::openInMachine = [](const char *opened, int flags) -> std::optional<int> {
		if (opened == Attribute("uuid-a"))
			flagsOfOpen = flags;
		return std::nullopt;
	};
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
	kit::openInMachine = nullptr;
	EXPECT_EQ(flagsOfOpen, O_WRONLY | O_CLOEXEC);
}

TEST_F(VolumeTest, TakesAutoForOneThreadForEightProcessors)
{
	Add("a", {"/dev/sda"});
	const struct {
		int processors;
		const char *text;
	} rows[] = {{1, "1"},  {4, "1"},  {7, "1"},  {8, "1"},  {9, "2"},  {12, "2"},
	            {16, "2"}, {17, "3"}, {24, "3"}, {25, "4"}, {64, "8"}, {1023, "128"}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.processors);
		kit::WriteFile(Attribute("uuid-a"), "");
		storage.processors = row.processors;
		EXPECT_EQ(Apply("zevo_writeback_thread_max=auto\n"), 0);
		EXPECT_EQ(Written("a"), row.text);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeTest, CutsANumberDownToTheProcessorsAndLeavesSmallerOnesToTheKernel)
{
	Add("a", {"/dev/sda"});
	const struct {
		const char *value;
		const char *text;
	} rows[] = {
		{"32", "4"},
		{"5", "4"},
		{"4", "4"},
		{"3", "3"},
		{"0", "0"},
		{"-1", "-1"},
		{"-32", "-32"},
		{"abc", "0"},
		{"", "0"},
		{"Auto", "0"},
		{"auto ", "0"},
		{" 2", "2"},
		{"2 threads", "2"},
		{"0x3", "0"},
		{"2147483647", "4"},
		// What does not fit into an int keeps its low half.
		{"2147483648", "-2147483648"},
		{"4294967297", "1"},
		{"99999999999999999999", "-1"},
		{"-99999999999999999999", "0"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.value);
		kit::WriteFile(Attribute("uuid-a"), "");
		EXPECT_EQ(TuneApplyProfileVolumeWriteBackThread(row.value, kernel), 0);
		EXPECT_EQ(Written("a"), row.text);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeTest, LeavesAVolumeWithARotatingDiskAlone)
{
	Add("a", {"/dev/hda"});
	Add("b", {"/dev/sda", "/dev/hda", "/dev/sdb"});
	Add("c", {"/dev/sdc", "/dev/hda"});
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{});
	EXPECT_EQ(storage.calls, (Lines{"ZEVOMountVolInfoEnum 0 0", "ZEVOSpaceInfoEnum 1", "ZEVOSpaceInfoSearch /a",
	                                "ZEVOSpaceDiskEnum /a", "ZEVODiskIsSSD /dev/hda", "ZEVOSpaceInfoSearch /b",
	                                "ZEVOSpaceDiskEnum /b", "ZEVODiskIsSSD /dev/sda", "ZEVODiskIsSSD /dev/hda",
	                                "ZEVOSpaceInfoSearch /c", "ZEVOSpaceDiskEnum /c", "ZEVODiskIsSSD /dev/sdc",
	                                "ZEVODiskIsSSD /dev/hda"}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeTest, TakesAnyAnswerButYesAndFailureForARotatingDisk)
{
	AddThree();
	for (const int answer : {0, 2, -2, 100}) {
		SCOPED_TRACE(answer);
		storage.isSSD["/dev/sdb"] = answer;
		kit::WriteFile(Attribute("uuid-a"), "");
		kit::WriteFile(Attribute("uuid-c"), "");
		EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
		EXPECT_EQ(Written("a"), "3");
		EXPECT_EQ(Written("b"), "");
		EXPECT_EQ(Written("c"), "3");
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeTest, TakesASpaceWithoutADiskForOneOnSSDs)
{
	Add("a", {});
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{Attribute("uuid-a") + ": 3"});
}

TEST_F(VolumeTest, IgnoresOtherFileSystems)
{
	for (const int type : {0, 1, 2, 4, -1}) {
		Add("other" + std::to_string(type), {"/dev/sda"});
		storage.volumes.back().type = type;
	}
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
	EXPECT_EQ(storage.calls, (Lines{"ZEVOMountVolInfoEnum 0 0", "ZEVOSpaceInfoEnum 1"}));
	EXPECT_EQ(writes.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeTest, IsDoneWhenNothingIsMounted)
{
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
	EXPECT_EQ(storage.calls, (Lines{"ZEVOMountVolInfoEnum 0 0", "ZEVOSpaceInfoEnum 1"}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeTest, PassesOverAVolumeWhoseSpaceCannotBeFound)
{
	AddThree();
	storage.volumes[1].hasSpace = false;
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{Attribute("uuid-a") + ": 3", Attribute("uuid-c") + ": 3"}));
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Fail to find volume: [/b]"});
}

TEST_F(VolumeTest, PassesOverAVolumeWhoseSpaceCannotBeLookedFor)
{
	AddThree();
	const kit::Fault fault("ZEVOSpaceInfoSearch");
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{Attribute("uuid-b") + ": 3", Attribute("uuid-c") + ": 3"}));
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Fail to find volume: [/a]"});
}

// Whether the volumes could be listed is what the error stack says afterwards, not the list.
TEST_F(VolumeTest, GoesByTheErrorStackAfterListingTheVolumes)
{
	const struct {
		const char *what;
		std::optional<int> code;
		int before;
		bool any;
		std::string tail; // of the line; empty for none
	} rows[] = {
		{"an old code, cleared", 0, 0x1234, true, ""},
		{"an old code, left", std::nullopt, 0x1234, true, "[0x1234 before:7]"},
		{"an old code, left, with nothing mounted", std::nullopt, 0x1234, false, "[0x1234 before:7]"},
		{"no code before, none left", std::nullopt, 0, true, ""},
		{"a code in spite of a list", 0x4321, 0, true, "[0x4321 volumes:0]"},
		{"a code and no list", 0x4321, 0x1234, false, "[0x4321 volumes:0]"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		storage.volumes.clear();
		if (row.any)
			Add("a", {"/dev/sda"});
		kit::WriteFile(Attribute("uuid-a"), "");
		storage.codeOfVolumes = row.code;
		storage.calls.clear();
		journal.Clear();
		VUNKCErrSetEx(row.before, row.before != 0 ? "before" : "", row.before != 0 ? 7 : 0);
		if (row.tail.empty()) {
			EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
			EXPECT_EQ(Written("a"), "3");
			EXPECT_EQ(journal.Lines(), Lines{});
		} else {
			EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), -1);
			EXPECT_EQ(Written("a"), "");
			EXPECT_EQ(journal.Lines(),
			          (Lines{"utils.cpp Failed to enum volume info" + row.tail,
			                 "utils.cpp Failed to TuneApplyProfileVolumeWriteBackThread" + row.tail}));
			EXPECT_EQ(storage.calls, Lines{"ZEVOMountVolInfoEnum 0 0"});
		}
	}
}

TEST_F(VolumeTest, FailsWhenVolumesOrSpacesCannotBeListed)
{
	AddThree();
	for (const auto &[function, line] : {std::pair("ZEVOMountVolInfoEnum", "utils.cpp Failed to enum volume info"),
	                                     std::pair("ZEVOSpaceInfoEnum", "utils.cpp Failed to enum volume.")}) {
		SCOPED_TRACE(function);
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
		const kit::Fault fault(function);
		EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), -1);
		EXPECT_EQ(journal.Lines(),
		          (Lines{line + kFault, "utils.cpp Failed to TuneApplyProfileVolumeWriteBackThread" + kFault}));
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
	EXPECT_EQ(writes.Lines(), Lines{});
}

// The second of three volumes fails: the first keeps what it got, the third is not looked at.
TEST_F(VolumeTest, StopsAtTheFirstVolumeThatFails)
{
	AddThree();
	const struct {
		const char *function;
		int nth;
		std::string line;
	} rows[] = {
		{"VUNKCSzListAlloc", 3,
	         "Failed to VUNKCSzListAlloc()." + kFault}, // after the section's and the first volume's
		{"ZEVOSpaceDiskEnum", 2, "Failed to ZEVOSpaceDiskEnum." + kFault},
		{"ZEVODiskIsSSD", 2, "Failed to check disk [/dev/sdb] rotational." + kFault},
		{"ZEVOFSGetBTRFSUuid", 2, "Failed to get Btrfs UUID with [/b]." + kFault},
		{"VUNKCWrite", 2, "Failed to set writeback thread max errno Input/output error." + kFault},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		kit::WriteFile(Attribute("uuid-a"), "");
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
		const kit::Fault fault(row.function, row.nth);
		EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), -1);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), After(row.line, "/b", kFault));
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(Written("a"), "3");
		EXPECT_EQ(Written("b"), "");
		EXPECT_EQ(Written("c"), "");
	}
}

TEST_F(VolumeTest, StopsAtTheFirstDiskThatCannotBeTold)
{
	Add("a", {"/dev/sda", "/dev/gone", "/dev/hda"});
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), -1);
	EXPECT_EQ(storage.calls, (Lines{"ZEVOMountVolInfoEnum 0 0", "ZEVOSpaceInfoEnum 1", "ZEVOSpaceInfoSearch /a",
	                                "ZEVOSpaceDiskEnum /a", "ZEVODiskIsSSD /dev/sda", "ZEVODiskIsSSD /dev/gone"}));
	EXPECT_EQ(journal.Lines(), After("Failed to check disk [/dev/gone] rotational." + kFault, "/a", kFault));
}

TEST_F(VolumeTest, FailsWithoutTheAttributeAndDoesNotMakeIt)
{
	AddThree();
	fs::remove(Attribute("uuid-b"));
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), -1);
	EXPECT_EQ(journal.Lines(),
	          After("Can't open file " + Attribute("uuid-b") + "[0x0000 :0]", "/b", "[0x0000 :0]"));
	EXPECT_FALSE(fs::exists(Attribute("uuid-b")));
	EXPECT_EQ(Written("a"), "3");
	EXPECT_EQ(Written("c"), "");
}

TEST_F(VolumeTest, FailsWhenTheAttributeCannotBeOpened)
{
	AddThree();
	for (const int error : {EACCES, EROFS, EMFILE}) {
		SCOPED_TRACE(error);
		journal.Clear();
		const kit::PathFault fault("open", Attribute("uuid-a"), error);
		EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), -1);
		EXPECT_EQ(fault.Calls(), 1);
		EXPECT_EQ(journal.Lines(),
		          After("Can't open file " + Attribute("uuid-a") + "[0x0000 :0]", "/a", "[0x0000 :0]"));
	}
	EXPECT_EQ(writes.Lines(), Lines{});
}

TEST_F(VolumeTest, FailsWhenTheKernelRefusesTheNumber)
{
	Add("a", {"/dev/sda"});
	fs::remove(Attribute("uuid-a"));
	fs::create_symlink("/dev/full", Attribute("uuid-a"));
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_WRITE);
	const Lines lines = journal.Lines();
	ASSERT_EQ(lines.size(), 3U);
	EXPECT_EQ(lines[0], "utils.cpp Failed to set writeback thread max errno No space left on device.[0x0B00 "
	                    "directory.cpp]");
	EXPECT_EQ(writes.Lines(), Lines{"/dev/full: 3"});
}

TEST_F(VolumeTest, NamesTheFileSystemByItsWholeUuidUpToThirtyNineCharacters)
{
	const std::string longest(39, 'u');
	for (const std::string &uuid : {longest, longest + "v"}) {
		storage.volumes = {{"/a", uuid, {"/dev/sda"}}};
		kit::WriteFile(Attribute(longest), "");
		EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), 0);
		EXPECT_EQ(kit::ReadFile(Attribute(longest)), "3");
	}
}

TEST_F(VolumeTest, HasNothingToDoForOtherKeys)
{
	AddThree();
	for (const char *section : {"", "a=1\nZevo_writeback_thread_max=3\nzevo_writeback_thread=3\n"
	                                "zevo_writeback_thread_max2=3\nzevo_writeback_thread_max/=3\n"}) {
		SCOPED_TRACE(section);
		EXPECT_EQ(Apply(section), 0);
	}
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeTest, FindsItsKeyAmongOthers)
{
	Add("a", {"/dev/sda"});
	EXPECT_EQ(Apply("first=1\nzevo_writeback_thread_max=2\nlast=3\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{Attribute("uuid-a") + ": 2"});
}

TEST_F(VolumeTest, FailsWhenTheSectionCannotBeRead)
{
	AddThree();
	ExpectToFailUnread("volume", "zevo_writeback_thread_max=3\n");
}

TEST_F(VolumeTest, FailsForAKeyWithoutAValue)
{
	AddThree();
	const kit::Fault fault("VUNKCSzHashGetValue");
	EXPECT_EQ(Apply("zevo_writeback_thread_max=3\n"), -1);
	EXPECT_EQ(journal.Lines(),
	          (Lines{"utils.cpp Invaild Argument (__null != szValue)=[0]\n",
	                 "utils.cpp Failed to TuneApplyProfileVolumeWriteBackThread[0x0D00 utils.cpp]"}));
	EXPECT_EQ(storage.calls, Lines{});
}

TEST_F(VolumeTest, RefusesNull)
{
	const struct {
		const char *condition;
		std::function<int()> call;
	} rows[] = {
		{"__null != szValue", [this] { return TuneApplyProfileVolumeWriteBackThread(nullptr, kernel); }},
		{"__null != pSpace",
	         [this] { return TuneApplyProfileVolumeWriteBackThreadBySpaceInfo(nullptr, 1, kernel); }},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.condition);
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
		EXPECT_EQ(row.call(), -1);
		EXPECT_EQ(journal.Lines(),
		          Lines{"utils.cpp Invaild Argument (" + std::string(row.condition) + ")=[0]\n"});
		EXPECT_EQ(VUNKCErrGet(), 0xD00);
	}
	EXPECT_EQ(storage.calls, Lines{});
}

} // namespace
