#include "utils/apply/raid.h"

#include "section_test.h"

#include <cerrno>
#include <filesystem>
#include <limits>

namespace {

namespace fs = std::filesystem;

constexpr unsigned kRaid1 = 0x02;
constexpr unsigned kRaid5 = 0x04;

std::string Tunable(const std::string &disk, const std::string &key)
{
	return "/sys/block/" + disk + "/queue/iosched/" + key;
}

class RaidTest : public SectionTest {
protected:
	RaidTest() : SectionTest(TuneApplyRaidSection) {}

	// The scheduler of each disk has this tunable.
	static void Offer(const Lines &disks, const std::string &key)
	{
		for (const std::string &disk : disks)
			kit::WriteFile(Tunable(disk, key), "");
	}
};

TEST_F(RaidTest, TunesEveryMemberOfEveryArrayKeyAfterKey)
{
	storage.arrays = {{kRaid1, {"/dev/sda5", "/dev/sdb5"}}, {kRaid5, {"/dev/sdc1", "/dev/nvme0n1p3"}}};
	for (const char *key : {"slice_idle", "quantum"})
		Offer({"sda", "sdb", "sdc", "nvme0n1"}, key);
	EXPECT_EQ(Apply("raid_cfq_default", "slice_idle=0\nquantum = 32\n"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{Tunable("sda", "slice_idle") + ": 0", Tunable("sdb", "slice_idle") + ": 0",
	                                 Tunable("sdc", "slice_idle") + ": 0", Tunable("nvme0n1", "slice_idle") + ": 0",
	                                 Tunable("sda", "quantum") + ": 32", Tunable("sdb", "quantum") + ": 32",
	                                 Tunable("sdc", "quantum") + ": 32", Tunable("nvme0n1", "quantum") + ": 32"}));
	EXPECT_EQ(storage.calls,
	          (Lines{"RAIDInfoEnum", "DiskPartitionNumRemove /dev/sda5 64", "DiskPartitionNumRemove /dev/sdb5 64",
	                 "DiskPartitionNumRemove /dev/sdc1 64", "DiskPartitionNumRemove /dev/nvme0n1p3 64",
	                 "RAIDInfoEnum", "DiskPartitionNumRemove /dev/sda5 64", "DiskPartitionNumRemove /dev/sdb5 64",
	                 "DiskPartitionNumRemove /dev/sdc1 64", "DiskPartitionNumRemove /dev/nvme0n1p3 64"}));
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(RaidTest, ChoosesArraysByTheLevelsOfTheSection)
{
	Offer({"sda"}, "key");
	const struct {
		const char *section;
		unsigned mask;
	} rows[] = {
		{"raid_cfq_1", 0x33}, {"raid_cfq_5", 0x4C},    {"raid_cfq_default", 0x7F}, {"raid_cfq", 0},
		{"raid_cfq_", 0},     {"raid_cfq_6", 0},       {"raid_cfqX", 0},           {"raid_cfq_10", 0},
		{"raid_cfq_15", 0},   {"raid_cfq_DEFAULT", 0}, {"raid_cfq_defaults", 0},   {"raid_cfq_default_", 0},
	};
	for (const auto &row : rows) {
		for (const unsigned flag : {0x00U, 0x01U, 0x02U, 0x04U, 0x08U, 0x10U, 0x20U, 0x40U, 0x80U, 0x100U,
		                            0x80000000U, 0x21U, 0x48U, 0x11U | 0x04U}) {
			SCOPED_TRACE(testing::Message() << row.section << ", " << flag);
			kit::WriteFile(Tunable("sda", "key"), "");
			storage.arrays = {{flag, {"/dev/sda5"}}};
			EXPECT_EQ(Apply(row.section, "key=7\n"), 0);
			EXPECT_EQ(kit::ReadFile(Tunable("sda", "key")), (flag & row.mask) != 0 ? "7" : "");
		}
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(RaidTest, PassesOverArraysThatAreNone)
{
	Offer({"sda", "sdb", "sdc", "sdd", "sde"}, "key");
	storage.arrays = {
		{kRaid1, {"/dev/sda1"}, 2, false}, {kRaid1, {"/dev/sdb1"}, 0},
		{kRaid1, {"/dev/sdc1"}, 1},        {kRaid1, {}, 2},
		{kRaid1, {"/dev/sdd1"}, 2},        {kRaid1, {"/dev/sde1"}, std::numeric_limits<unsigned>::max()}};
	storage.supportsRaid = true;
	EXPECT_EQ(Apply("raid_cfq_1", "key=7\n"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{Tunable("sdd", "key") + ": 7", Tunable("sde", "key") + ": 7"}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(RaidTest, NamesDisksAsTheyStandInTheKernelsFolder)
{
	const std::string name31(31, 'n');
	const std::string name80(80, 'n');
	const struct {
		std::string member;
		std::string disk;
	} rows[] = {
		{"/dev/sda5", "sda"},
		{"/dev/sda", "sda"},
		{"/dev/nvme0n1p2", "nvme0n1"},
		{"/dev/mmcblk0p1", "mmcblk0"},
		{"/dev/cciss!c0d0p1", "cciss!c0d0"},
		{"sda5", "sda"},
		{"sda", "sda"},
		{"md127", "md127"},
		{"devil", "devil"},
		{"/device", "ce"}, // "/devi" goes
		{"/dev/" + name31, name31},
		{"/dev/" + name31 + "n", name31},
		{"/dev/" + name80, name31},
		{name80, name31},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.member);
		fs::remove_all("/sys/block");
		Offer({row.disk}, "key");
		storage.arrays = {{kRaid1, {row.member}}};
		EXPECT_EQ(Apply("raid_cfq_1", "key=7\n"), 0);
		EXPECT_EQ(kit::ReadFile(Tunable(row.disk, "key")), "7");
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(RaidTest, ReadsNothingBehindTheEndOfAName)
{
	Offer({"sda", "x", "sdb"}, "key");
	// Behind a name, the buffer holds whatever the platform has left there.
	const std::string rest = std::string("\0sda", 4);
	storage.wholeDisks = {{"1", "/dev" + rest}, {"2", "/devx" + rest}, {"3", "/dev/" + rest}, {"4", rest}};
	storage.arrays = {{kRaid1, {"1", "2", "3", "4", "/dev", "/devx", "/dev/", "", "/dev/sdb1"}}};
	EXPECT_EQ(Apply("raid_cfq_1", "key=7\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{Tunable("sdb", "key") + ": 7"});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(RaidTest, PassesOverAMemberWhoseDiskCannotBeTold)
{
	Offer({"sda", "sdb", "sdc"}, "key");
	storage.arrays = {{kRaid1, {"/dev/sda1", "/dev/sdb1", "/dev/sdc1"}}};
	const kit::Fault fault("DiskPartitionNumRemove", 2);
	EXPECT_EQ(Apply("raid_cfq_1", "key=7\n"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{Tunable("sda", "key") + ": 7", Tunable("sdc", "key") + ": 7"}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(RaidTest, PassesOverADiskWhoseSchedulerLacksTheTunableAndDoesNotMakeIt)
{
	Offer({"sda", "sdc"}, "key");
	kit::WriteFile("/sys/block/sdb/queue/scheduler", "[none]\n");
	storage.arrays = {{kRaid1, {"/dev/sda1", "/dev/sdb1", "/dev/sdc1"}}};
	EXPECT_EQ(Apply("raid_cfq_1", "none=1\nkey=7\n"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{Tunable("sda", "key") + ": 7", Tunable("sdc", "key") + ": 7"}));
	EXPECT_EQ(kit::Names("/sys/block/sdb/queue"), std::set<std::string>{"scheduler"});
	EXPECT_EQ(kit::Names("/sys/block/sda/queue/iosched"), std::set<std::string>{"key"});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(RaidTest, TakesKeysAndValuesAsTheyAre)
{
	Offer({"sda"}, "with blank");
	Offer({"sda"}, "folder/key");
	Offer({"sda"}, "%s");
	kit::WriteFile("/sys/block/sda/queue/nr_requests", "");
	storage.arrays = {{kRaid1, {"/dev/sda1"}}};
	EXPECT_EQ(Apply("raid_cfq_1", "with blank=1\nfolder/key=a b  c\n%s=%d\n../nr_requests=\"64 \"\n"), 0);
	EXPECT_EQ(writes.Lines(),
	          (Lines{Tunable("sda", "with blank") + ": 1", Tunable("sda", "folder/key") + ": a b  c",
	                 Tunable("sda", "%s") + ": %d", "/sys/block/sda/queue/nr_requests: 64 "}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(RaidTest, CutsAPathThatIsTooLong)
{
	std::string key;
	while (key.size() < 2000)
		key += std::string(100, 'k') + '/';
	key += "end";
	const std::string cut = Tunable("sda", key).substr(0, 1023);
	kit::WriteFile(cut, "");
	storage.arrays = {{kRaid1, {"/dev/sda1"}}};
	EXPECT_EQ(Apply("raid_cfq_1", key + "=7\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{cut + ": 7"});
}

TEST_F(RaidTest, NeedsAnArrayOnlyOnAModelWithRaid)
{
	EXPECT_EQ(Apply("raid_cfq_1", "first=1\nsecond=2\n"), 0);
	EXPECT_EQ(storage.calls, (Lines{"RAIDInfoEnum", "VUNKCSupportRAID", "RAIDInfoEnum", "VUNKCSupportRAID"}));
	EXPECT_EQ(journal.Lines(), Lines{});

	storage.supportsRaid = true;
	storage.calls.clear();
	EXPECT_EQ(Apply("raid_cfq_1", "first=1\nsecond=2\n"), -1);
	EXPECT_EQ(storage.calls, (Lines{"RAIDInfoEnum", "VUNKCSupportRAID"}));
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to Tune RAID_CFQ [first 1][0x0000 :0]"});
	EXPECT_EQ(VUNKCErrGet(), 0);

	// One that is not of the section's levels will do.
	journal.Clear();
	storage.calls.clear();
	storage.arrays = {{kRaid5, {"/dev/sda1"}}};
	EXPECT_EQ(Apply("raid_cfq_1", "first=1\n"), 0);
	EXPECT_EQ(storage.calls, Lines{"RAIDInfoEnum"});
	EXPECT_EQ(journal.Lines(), Lines{});
}

// The arrays are listed before anyone asks which levels the section is for.
TEST_F(RaidTest, NeedsAnArrayWhateverTheSectionIsCalled)
{
	storage.supportsRaid = true;
	EXPECT_EQ(Apply("raid_cfq_6", "first=1\n"), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to Tune RAID_CFQ [first 1][0x0000 :0]"});
}

TEST_F(RaidTest, RefusesAnEmptyValueOnceThereIsAMemberForIt)
{
	const Lines lines = {"utils.cpp Invaild Argument (0 < cbValue)=[0]\n",
	                     "utils.cpp Failed to Tune RAID_CFQ [key ][0x0D00 utils.cpp]"};
	Offer({"sda"}, "key");
	storage.arrays = {{kRaid5, {"/dev/sda1"}}, {kRaid1, {}}, {kRaid1, {"/dev/sda1"}, 1}};
	EXPECT_EQ(Apply("raid_cfq_1", "key=\n"), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(Apply("raid_cfq_5", "key=\n"), -1);
	EXPECT_EQ(journal.Lines(), lines);
	EXPECT_EQ(VUNKCErrGet(), 0xD00);

	journal.Clear();
	fs::remove(Tunable("sda", "key")); // whether the disk has the tunable does not matter
	EXPECT_EQ(Apply("raid_cfq_5", "key=\n"), -1);
	EXPECT_EQ(journal.Lines(), lines);
	EXPECT_EQ(writes.Lines(), Lines{});
}

TEST_F(RaidTest, RefusesAKeyWithoutAValue)
{
	Offer({"sda"}, "key");
	storage.arrays = {{kRaid1, {"/dev/sda1"}}};
	const kit::Fault fault("VUNKCSzHashGetValue");
	EXPECT_EQ(Apply("raid_cfq_1", "key=7\n"), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Invaild Argument (0 < cbValue)=[0]\n",
	                                  "utils.cpp Failed to Tune RAID_CFQ [key (null)][0x0D00 utils.cpp]"}));
	EXPECT_EQ(writes.Lines(), Lines{});
}

TEST_F(RaidTest, FailsWhenTheArraysCannotBeListed)
{
	Offer({"sda"}, "first");
	Offer({"sda"}, "second");
	storage.arrays = {{kRaid1, {"/dev/sda1"}}};
	const kit::Fault fault("RAIDInfoEnum", 2);
	EXPECT_EQ(Apply("raid_cfq_1", "first=1\nsecond=2\nthird=3\n"), -1);
	EXPECT_EQ(writes.Lines(), Lines{Tunable("sda", "first") + ": 1"});
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to enumerate RAID info" + kFault,
	                                  "utils.cpp Failed to Tune RAID_CFQ [second 2]" + kFault}));
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
}

// The second of three disks fails at the first of two keys: what was written stays, nothing else is touched.
TEST_F(RaidTest, StopsAtTheFirstDiskThatCannotBeWritten)
{
	storage.arrays = {{kRaid1, {"/dev/sda1", "/dev/sdb1"}}, {kRaid1, {"/dev/sdc1"}}};
	const std::string at = Tunable("sdb", "key");
	const std::string cannotOpen = "Can't open file " + at + ", errno:Permission denied";
	const std::string cannotWrite = "Failed to set parameter [" + at + " 7], errno:Invalid argument";
	for (const bool opens : {false, true}) {
		SCOPED_TRACE(opens);
		Offer({"sda", "sdb", "sdc"}, "key");
		Offer({"sda", "sdb", "sdc"}, "later");
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
		const kit::PathFault open("open", opens ? "" : at, EACCES);
		const kit::Fault write("VUNKCWrite", 2, EINVAL);
		EXPECT_EQ(Apply("raid_cfq_1", "key=7\nlater=8\n"), -1);
		const std::string code = opens ? kFault : "[0x0000 :0]";
		EXPECT_EQ(journal.Lines(),
		          (Lines{"utils.cpp TuneParameterWrite " + (opens ? cannotWrite : cannotOpen) + code,
		                 "utils.cpp Failed to Tune RAID_CFQ [key 7]" + code}));
		EXPECT_EQ(kit::ReadFile(Tunable("sda", "key")), "7");
		for (const std::string &untouched : {at, Tunable("sdc", "key"), Tunable("sda", "later")})
			EXPECT_EQ(kit::ReadFile(untouched), "");
	}
}

TEST_F(RaidTest, HasNothingToDoForASectionWithoutKeys)
{
	storage.supportsRaid = true;
	EXPECT_EQ(Apply("raid_cfq_1", ""), 0);
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(RaidTest, FailsWhenTheSectionCannotBeRead)
{
	storage.arrays = {{kRaid1, {"/dev/sda1"}}};
	ExpectToFailUnread("raid_cfq_6", "key=7\n");
}

} // namespace
