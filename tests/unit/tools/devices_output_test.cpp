#include "device_sections.h"
#include "devices_output.h"
#include "output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zevostorage/disk.h>
#include <zevostorage/raid.h>

#include <json/writer.h>

#include <sstream>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string Text(const Json::Value &value)
{
	Json::StreamWriterBuilder writer;
	writer["indentation"] = "";
	return Json::writeString(writer, value);
}

std::string Tree(const Machine &machine)
{
	return DevicesTree(machine, Branches::kUnicode);
}

Volume MadeVolume(std::vector<VolumeDisk> disks)
{
	Volume volume;
	volume.path = "/volume1";
	volume.fileSystem = "btrfs";
	volume.btrfs = true;
	volume.device = "/dev/dm-0";
	volume.disks = std::move(disks);
	return volume;
}

Array MadeArray(const std::string &level, unsigned flag, unsigned disks, std::vector<ArrayMember> members = {})
{
	Array array;
	array.device = "/dev/md0";
	array.level = level;
	array.levelFlag = flag;
	array.diskCount = disks;
	array.members = std::move(members);
	return array;
}

Disk MadeDisk(unsigned type, std::optional<bool> ssd)
{
	Disk disk;
	disk.device = "/dev/sda";
	disk.kernelName = "sda";
	disk.type = type;
	disk.ssd = ssd;
	disk.queue.scheduler = "bfq";
	disk.queue.schedulers = {"none", "bfq"};
	disk.queue.tunables = {"slice_idle"};
	return disk;
}

const VolumeDisk kSsd{"/dev/sda", true, ""};
const VolumeDisk kRotating{"/dev/sdb", false, ""};
const VolumeDisk kUnknown{"/dev/sdc", std::nullopt, "it is gone"};

TEST(SsdOnly, IsDecidedByOneRotatingDisk)
{
	EXPECT_EQ(SsdOnly(MadeVolume({kSsd})), true);
	EXPECT_EQ(SsdOnly(MadeVolume({kSsd, kRotating})), false);
	EXPECT_EQ(SsdOnly(MadeVolume({kUnknown, kRotating})), false);
}

TEST(SsdOnly, IsUnknownWhereADiskOrAllOfThemAre)
{
	EXPECT_EQ(SsdOnly(MadeVolume({kSsd, kUnknown})), std::nullopt);
	Volume volume;
	EXPECT_EQ(SsdOnly(volume), std::nullopt);
}

TEST(SsdOnly, HoldsForAVolumeWithoutDisks)
{
	EXPECT_EQ(SsdOnly(MadeVolume({})), true);
}

TEST(SectionsOfAVolume, AreForBtrfsOnSsdsOnly)
{
	EXPECT_THAT(SectionsOf(MadeVolume({kSsd})), ElementsAre("volume"));
	EXPECT_THAT(SectionsOf(MadeVolume({kSsd, kRotating})), IsEmpty());
	EXPECT_THAT(SectionsOf(MadeVolume({kSsd, kUnknown})), IsEmpty());
	Volume other = MadeVolume({kSsd});
	other.btrfs = false;
	EXPECT_THAT(SectionsOf(other), IsEmpty());
}

TEST(SectionsOfAnArray, GoByParity)
{
	for (const unsigned level : {RAID_LEVEL_0, RAID_LEVEL_1, RAID_LEVEL_10, RAID_LEVEL_LINEAR})
		EXPECT_THAT(SectionsOf(MadeArray("", level, 2)), ElementsAre("raid_cfq_1", "raid_cfq_default"));
	for (const unsigned level : {RAID_LEVEL_4, RAID_LEVEL_5, RAID_LEVEL_6})
		EXPECT_THAT(SectionsOf(MadeArray("", level, 2)), ElementsAre("raid_cfq_5", "raid_cfq_default"));
	EXPECT_THAT(SectionsOf(MadeArray("multipath", 0, 2)), IsEmpty());
}

TEST(SectionsOfAnArray, AreNoneForFewerThanTwoDisks)
{
	EXPECT_THAT(SectionsOf(MadeArray("raid1", RAID_LEVEL_1, 1)), IsEmpty());
	EXPECT_THAT(SectionsOf(MadeArray("raid1", RAID_LEVEL_1, 0)), IsEmpty());
}

TEST(SectionsOfADisk, AreForSsdsThatOfferSchedulersAndAreNotExternal)
{
	for (const unsigned type : {DISK_TYPE_SATA, DISK_TYPE_SAS, DISK_TYPE_NVME, DISK_TYPE_VIRTUAL, DISK_TYPE_EMMC})
		EXPECT_THAT(SectionsOf(MadeDisk(type, true)), ElementsAre("disk")) << type;
	EXPECT_THAT(SectionsOf(MadeDisk(DISK_TYPE_EXTERNAL, true)), IsEmpty());
	EXPECT_THAT(SectionsOf(MadeDisk(DISK_TYPE_SATA, false)), IsEmpty());
	EXPECT_THAT(SectionsOf(MadeDisk(DISK_TYPE_SATA, std::nullopt)), IsEmpty());
	Disk silent = MadeDisk(DISK_TYPE_SATA, true);
	silent.queue.schedulers.clear();
	EXPECT_THAT(SectionsOf(silent), IsEmpty());
}

TEST(DevicesTree, SaysThatThereIsNothing)
{
	EXPECT_EQ(Tree({}), "volumes: none\nRAID arrays: none\ndisks: none\n");
}

TEST(DevicesTree, ShowsVolumes)
{
	Volume named = MadeVolume({kSsd});
	named.alternativeDevice = "/dev/mapper/vg1-volume1";
	Volume unknown = MadeVolume({kSsd, kUnknown});
	unknown.path = "/volume2";
	Volume silent = MadeVolume({});
	silent.path = "/volume3";
	silent.disks.reset();
	silent.error = "run it as root";
	Volume mixed = MadeVolume({kSsd, kRotating});
	mixed.path = "/volume4";
	Volume other = MadeVolume({kSsd});
	other.path = "/";
	other.fileSystem = "ext4";
	other.btrfs = false;
	EXPECT_EQ(Tree({{named, unknown, silent, mixed, other}, {}, {}}),
	          "volumes\n"
	          "├─ /volume1  btrfs on /dev/mapper/vg1-volume1, SSDs only\n"
	          "│  ├─ /dev/sda  SSD\n"
	          "│  └─ [volume] changes it\n"
	          "├─ /volume2  btrfs on /dev/dm-0\n"
	          "│  ├─ /dev/sda  SSD\n"
	          "│  ├─ /dev/sdc  SSD or not is unknown: it is gone\n"
	          "│  └─ whether [volume] changes it is unknown\n"
	          "├─ /volume3  btrfs on /dev/dm-0\n"
	          "│  ├─ disks are unknown: run it as root\n"
	          "│  └─ whether [volume] changes it is unknown\n"
	          "├─ /volume4  btrfs on /dev/dm-0\n"
	          "│  ├─ /dev/sda  SSD\n"
	          "│  ├─ /dev/sdb  rotating\n"
	          "│  └─ [volume] leaves it alone: not on SSDs only\n"
	          "└─ /  ext4 on /dev/dm-0, SSDs only\n"
	          "   ├─ /dev/sda  SSD\n"
	          "   └─ [volume] leaves it alone: not Btrfs\n"
	          "RAID arrays: none\n"
	          "disks: none\n");
}

TEST(DevicesTree, ShowsArrays)
{
	const ArrayMember partition{"/dev/sda3", "/dev/sda", ""};
	const ArrayMember whole{"/dev/sdb", "/dev/sdb", ""};
	const ArrayMember unknown{"/dev/sdc3", "", "it is gone"};
	Array degraded = MadeArray("raid10", RAID_LEVEL_10, 4,
	                           {{"/dev/sda3", "/dev/sda", "", true}, {"/dev/sdb", "/dev/sdb", "", true}, unknown});
	degraded.members[2].failed = true;
	degraded.lacking = 3;
	degraded.broken = true;
	EXPECT_EQ(Tree({{},
	                {MadeArray("raid5", RAID_LEVEL_5, 3, {partition, whole, unknown}), degraded,
	                 MadeArray("raid1", RAID_LEVEL_1, 1, {whole}), MadeArray("", 0, 0, {whole}),
	                 MadeArray("multipath", 0, 2, {partition, whole})},
	                {}}),
	          "volumes: none\n"
	          "RAID arrays\n"
	          "├─ /dev/md0  raid5, 3 disks\n"
	          "│  ├─ /dev/sda3 on /dev/sda\n"
	          "│  ├─ /dev/sdb\n"
	          "│  ├─ /dev/sdc3 on an unknown disk: it is gone\n"
	          "│  └─ [raid_cfq_5] and [raid_cfq_default] change its disks' tunables\n"
	          "├─ /dev/md0  raid10, 4 disks, of which only 1 in use, broken\n"
	          "│  ├─ /dev/sda3, failed, on /dev/sda\n"
	          "│  ├─ /dev/sdb, failed\n"
	          "│  ├─ /dev/sdc3, failed, on an unknown disk: it is gone\n"
	          "│  └─ [raid_cfq_1] and [raid_cfq_default] change its disks' tunables\n"
	          "├─ /dev/md0  raid1, 1 disk\n"
	          "│  ├─ /dev/sdb\n"
	          "│  └─ [raid_cfq_...] leave it alone: one disk only\n"
	          "├─ /dev/md0  level unknown, not active\n"
	          "│  ├─ /dev/sdb\n"
	          "│  └─ [raid_cfq_...] leave it alone: not active\n"
	          "└─ /dev/md0  multipath, 2 disks\n"
	          "   ├─ /dev/sda3 on /dev/sda\n"
	          "   ├─ /dev/sdb\n"
	          "   └─ [raid_cfq_...] leave it alone: not a level of theirs\n"
	          "disks: none\n");
}

TEST(DevicesTree, ShowsDisks)
{
	Disk failing = MadeDisk(DISK_TYPE_NVME, std::nullopt);
	failing.ssdError = "it is gone";
	failing.queue = {};
	failing.queue.schedulerError = "no such file";
	failing.queue.tunablesError = "no permission";
	Disk silent = MadeDisk(DISK_TYPE_EMMC, true);
	silent.queue = {};
	silent.queue.schedulerError = "no such file";
	Disk idle = MadeDisk(DISK_TYPE_VIRTUAL, true);
	idle.queue.scheduler.clear();
	idle.queue.schedulerError = "it names none";
	EXPECT_EQ(Tree({{},
	                {},
	                {MadeDisk(DISK_TYPE_SATA, true), MadeDisk(DISK_TYPE_SAS, false),
	                 MadeDisk(DISK_TYPE_EXTERNAL, true), failing, silent, idle}}),
	          "volumes: none\n"
	          "RAID arrays: none\n"
	          "disks\n"
	          "├─ /dev/sda  SATA SSD  none [bfq]\n"
	          "│  ├─ tunables: slice_idle\n"
	          "│  └─ [disk] sets its scheduler to one of these\n"
	          "├─ /dev/sda  SAS rotating disk  none [bfq]\n"
	          "│  ├─ tunables: slice_idle\n"
	          "│  └─ [disk] leaves it alone: no SSD\n"
	          "├─ /dev/sda  external SSD  none [bfq]\n"
	          "│  ├─ tunables: slice_idle\n"
	          "│  └─ [disk] leaves it alone: external\n"
	          "├─ /dev/sda  NVMe\n"
	          "│  ├─ SSD or not is unknown: it is gone\n"
	          "│  ├─ scheduler is unknown: no such file\n"
	          "│  ├─ tunables are unknown: no permission\n"
	          "│  └─ [disk] leaves it alone: not known as an SSD\n"
	          "├─ /dev/sda  eMMC SSD\n"
	          "│  ├─ scheduler is unknown: no such file\n"
	          "│  ├─ no tunables\n"
	          "│  └─ whether [disk] changes it is unknown\n"
	          "└─ /dev/sda  virtual SSD  none bfq\n"
	          "   ├─ scheduler is unknown: it names none\n"
	          "   ├─ tunables: slice_idle\n"
	          "   └─ [disk] sets its scheduler to one of these\n");
}

TEST(DevicesTree, IsDrawnInAsciiWhereAsked)
{
	Volume first = MadeVolume({kSsd});
	EXPECT_EQ(DevicesTree({{first, first}, {}, {}}, Branches::kAscii),
	          "volumes\n"
	          "|- /volume1  btrfs on /dev/dm-0, SSDs only\n"
	          "|  |- /dev/sda  SSD\n"
	          "|  `- [volume] changes it\n"
	          "`- /volume1  btrfs on /dev/dm-0, SSDs only\n"
	          "   |- /dev/sda  SSD\n"
	          "   `- [volume] changes it\n"
	          "RAID arrays: none\n"
	          "disks: none\n");
}

TEST(DevicesTree, LeavesNoControlCharacterInIt)
{
	const std::string evil = "a\033\n";
	Volume volume = MadeVolume({{evil, true, ""}, {evil, std::nullopt, evil}});
	volume.path = volume.fileSystem = volume.device = evil;
	Volume named = volume;
	named.alternativeDevice = evil;
	Volume silent = volume;
	silent.disks.reset();
	silent.error = evil;
	Array array = MadeArray(evil, 0, 2, {{evil, evil, ""}, {evil, "b", ""}, {evil, "", evil}});
	array.device = evil;
	Disk disk = MadeDisk(DISK_TYPE_SATA, std::nullopt);
	disk.device = disk.ssdError = evil;
	disk.queue = {evil, {evil, evil}, evil, {evil}, ""};
	Disk failing = disk;
	failing.queue.tunablesError = evil;
	std::istringstream lines(Tree({{volume, named, silent}, {array}, {disk, failing}}));
	int count = 0;
	for (std::string line; std::getline(lines, line); ++count)
		EXPECT_EQ(Printable(line), line);
	EXPECT_EQ(count, 1 + 4 + 4 + 3 + 1 + 5 + 1 + 5 + 5);
}

TEST(Tree, BreaksLongLinesBetweenWordsAndKeepsTheBranchesWhole)
{
	const std::string words = "0123456789 0123456789 0123456789 0123456789 0123456789 0123456789 012345678";
	const std::vector<Node> nodes{
		{words, {{words + "9"}}}, // 80 columns and, further in, 84
		{words + "9  x", {{"y"}}},
		{words + " 0123456789 " + words},
	};
	EXPECT_EQ(Tree("t", nodes, Branches::kUnicode),
	          "t\n"
	          "├─ 0123456789 0123456789 0123456789 0123456789 0123456789 0123456789 012345678\n"
	          "│  └─ 0123456789 0123456789 0123456789 0123456789 0123456789 0123456789\n"
	          "│       0123456789\n"
	          "├─ 0123456789 0123456789 0123456789 0123456789 0123456789 0123456789 0123456789\n"
	          "│  │ x\n"
	          "│  └─ y\n"
	          "└─ 0123456789 0123456789 0123456789 0123456789 0123456789 0123456789 012345678\n"
	          "     0123456789 0123456789 0123456789 0123456789 0123456789 0123456789\n"
	          "     0123456789 012345678\n");
}

TEST(Tree, FillsEightyColumnsWhateverTheBytesOfACharacter)
{
	std::string wide;
	for (int i = 0; i < 77; ++i)
		wide += "ß";
	EXPECT_EQ(Tree("t", {{wide}}, Branches::kUnicode), "t\n└─ " + wide + "\n");
	EXPECT_EQ(Tree("t", {{"x " + wide}}, Branches::kUnicode), "t\n└─ x\n     " + wide + "\n");
}

TEST(Tree, LetsAWordThatIsTooLongStickOut)
{
	const std::string word(100, 'w');
	EXPECT_EQ(Tree("t", {{"a " + word + " b"}}, Branches::kAscii), "t\n`- a\n     " + word + "\n     b\n");
}

TEST(DevicesJson, OfNothingHasEmptyArrays)
{
	EXPECT_EQ(Text(DevicesJson({})), R"({"arrays":[],"disks":[],"volumes":[]})");
}

TEST(DevicesJson, ShowsVolumes)
{
	Volume full = MadeVolume({kSsd});
	full.uuid = "0f";
	full.alternativeDevice = "/dev/mapper/x";
	Volume empty = MadeVolume({});
	empty.fileSystem = "xfs";
	empty.btrfs = false;
	empty.disks.reset();
	empty.error = "e";
	Volume unknown = MadeVolume({kUnknown});
	EXPECT_EQ(Text(DevicesJson({{full, empty, unknown}, {}, {}})["volumes"]),
	          R"([{"alternative_device":"/dev/mapper/x","device":"/dev/dm-0",)"
	          R"("disks":[{"device":"/dev/sda","error":null,"ssd":true}],"error":null,"file_system":"btrfs",)"
	          R"("path":"/volume1","sections":["volume"],"ssd_only":true,"uuid":"0f"},)"
	          R"({"alternative_device":null,"device":"/dev/dm-0","disks":null,"error":"e","file_system":"xfs",)"
	          R"("path":"/volume1","sections":[],"ssd_only":null,"uuid":null},)"
	          R"({"alternative_device":null,"device":"/dev/dm-0",)"
	          R"("disks":[{"device":"/dev/sdc","error":"it is gone","ssd":null}],"error":null,)"
	          R"("file_system":"btrfs","path":"/volume1","sections":[],"ssd_only":null,"uuid":null}])");
}

TEST(DevicesJson, ShowsArrays)
{
	Array active =
		MadeArray("raid6", RAID_LEVEL_6, 4, {{"/dev/sda3", "/dev/sda", "", true}, {"/dev/sdb3", "", "e"}});
	active.lacking = 3;
	active.broken = true;
	EXPECT_EQ(Text(DevicesJson({{}, {active, MadeArray("", 0, 0)}, {}})["arrays"]),
	          R"([{"active":true,"broken":true,"device":"/dev/md0","disks":4,"lacking":3,"level":"raid6",)"
	          R"("members":[{"device":"/dev/sda3","disk":"/dev/sda","error":null,"failed":true},)"
	          R"({"device":"/dev/sdb3","disk":null,"error":"e","failed":false}],)"
	          R"("sections":["raid_cfq_5","raid_cfq_default"]},)"
	          R"({"active":false,"broken":false,"device":"/dev/md0","disks":0,"lacking":0,"level":null,)"
	          R"("members":[],"sections":[]}])");
}

TEST(DevicesJson, ShowsDisks)
{
	Disk failing = MadeDisk(DISK_TYPE_NVME, std::nullopt);
	failing.ssdError = "a";
	failing.queue = {"", {}, "b", {}, "c"};
	EXPECT_EQ(
		Text(DevicesJson({{}, {}, {MadeDisk(DISK_TYPE_SATA, true), failing}})["disks"]),
		R"([{"device":"/dev/sda","error":null,"kernel_name":"sda","scheduler":"bfq",)"
		R"("schedulers":["none","bfq"],"sections":["disk"],"ssd":true,"tunables":["slice_idle"],"type":"sata"},)"
		R"({"device":"/dev/sda","error":"a; b; c","kernel_name":"sda","scheduler":null,"schedulers":[],)"
		R"("sections":[],"ssd":null,"tunables":[],"type":"nvme"}])");
}

TEST(DevicesJson, NamesEveryTypeOfDisks)
{
	const auto type = [](unsigned bit) {
		return DevicesJson({{}, {}, {MadeDisk(bit, true)}})["disks"][0]["type"].asString();
	};
	EXPECT_EQ(type(DISK_TYPE_SATA), "sata");
	EXPECT_EQ(type(DISK_TYPE_SAS), "sas");
	EXPECT_EQ(type(DISK_TYPE_NVME), "nvme");
	EXPECT_EQ(type(DISK_TYPE_VIRTUAL), "virtual");
	EXPECT_EQ(type(DISK_TYPE_EXTERNAL), "external");
	EXPECT_EQ(type(DISK_TYPE_EMMC), "emmc");
	EXPECT_EQ(type(0x40), "other");
}

} // namespace
