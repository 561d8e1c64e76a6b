// What the library says of the machines in tests/machines. All of it was worked out by hand from the recordings.

#include "answers.h"

#include <map>
#include <set>

using namespace answers;

namespace {

struct Volume {
	std::string line;   // "/volume1 btrfs 3 /dev/md1"
	std::string device; // of its space; "gone" where every device is, and there is no space
	std::string altDevice;
	std::string uuid;
	Strings disks;
	bool isFoundByName = true; // by the source alone, where the Btrfs itself cannot be asked
};

struct Expected {
	std::vector<Volume> volumes;
	std::map<std::string, std::string> isSsd; // by kernel name, of every whole disk
	Strings disks;                            // types 0x2F: all but external ones
	Strings externalDisks;
	Strings arrays;
};

const std::map<std::string, Expected> kExpected = {
	{"sata-plain",
         {.volumes =
                  {{"/ ext4 1 /dev/sdb1", "/dev/sdb1", "-", "-", {"/dev/sdb"}},
                   {"/media btrfs 3 /dev/sdb4", "/dev/sdb4", "-", "73a48b08-d4aa-4840-aea5-885b08653efd", {"/dev/sdb"}},
                   {"/media/archive ext4 1 /dev/sda1", "/dev/sda1", "-", "-", {"/dev/sda"}},
                   {"/volume1 btrfs 3 /dev/sda2",
                    "/dev/sda2",
                    "-",
                    "40eee5d3-99e4-4f50-9bfd-031382e286c8",
                    {"/dev/sda"}},
                   {"/volume2 ext4 1 /dev/sdb2", "/dev/sdb2", "-", "-", {"/dev/sdb"}}},
          .isSsd = {{"sda", "0"}, {"sdb", "1"}},
          .disks = {"sda /dev/sda 0x01", "sdb /dev/sdb 0x01"},
          .externalDisks = {},
          .arrays = {}}},

	{"nvme-only",
         {.volumes = {{"/ ext4 1 /dev/nvme0n1p1", "/dev/nvme0n1p1", "-", "-", {"/dev/nvme0n1"}},
                      {"/mnt/image ext4 1 /dev/loop0", "/dev/loop0", "-", "-", {"/dev/loop0"}},
                      {"/volume1 btrfs 3 /dev/nvme0n1p2",
                       "/dev/nvme0n1p2",
                       "-",
                       "0075bed8-0891-4c1b-af91-57618e93149e",
                       {"/dev/nvme0n1"}},
                      {"/volume2 ext4 1 /dev/nvme0n1p3", "/dev/nvme0n1p3", "-", "-", {"/dev/nvme0n1"}},
                      {"/volume3 btrfs 3 /dev/nvme1n1",
                       "/dev/nvme1n1",
                       "-",
                       "03fd11e7-24c4-4140-8e79-b8a32c0b9cef",
                       {"/dev/nvme1n1"}},
                      {"/volume4 ext4 1 /dev/nvme1n2", "/dev/nvme1n2", "-", "-", {"/dev/nvme1n2"}}},
          .isSsd = {{"nvme0n1", "1"}, {"nvme1n1", "1"}, {"nvme1n2", "1"}, {"loop0", "1"}},
          .disks = {"nvme0n1 /dev/nvme0n1 0x04", "nvme1n1 /dev/nvme1n1 0x04", "nvme1n2 /dev/nvme1n2 0x04"},
          .externalDisks = {},
          .arrays = {}}},

	// Of md3, sdb3 has failed and is still in its place; sdc1 was the spare. The machine itself is on a USB disk.
	{"md-raid1-partitions",
         {.volumes =
                  {{"/ ext4 1 /dev/sdd1", "/dev/sdd1", "-", "-", {"/dev/sdd"}},
                   {"/volume1 btrfs 3 /dev/md1",
                    "/dev/md1",
                    "-",
                    "90c71c9c-f563-4d86-bb2e-abb3f56e360a",
                    {"/dev/sda", "/dev/sdb"}},
                   {"/volume2 btrfs 3 /dev/md2", "/dev/md2", "-", "6901efbb-fca8-4315-81ee-74b1166f744c", {"/dev/sda"}},
                   {"/volume3 ext4 1 /dev/md0", "/dev/md0", "-", "-", {"/dev/sda", "/dev/sdb"}}},
          .isSsd = {{"sda", "0"}, {"sdb", "0"}, {"sdc", "0"}, {"sdd", "0"}},
          .disks = {"sda /dev/sda 0x01", "sdb /dev/sdb 0x01", "sdc /dev/sdc 0x01"},
          .externalDisks = {"sdd /dev/sdd 0x10"},
          .arrays = {"/dev/md0 raid1 0x02 2: /dev/sda1 /dev/sdb1", "/dev/md1 raid1 0x02 2: /dev/sda2 /dev/sdb2",
                     "/dev/md2 raid1 0x02 2: /dev/sda3",
                     "/dev/md3 raid1 0x02 3: /dev/sda5 /dev/sdb3 /dev/sdb5 /dev/sdc1"}}},

	{"md-raid5-lvm-luks",
         {.volumes = {{"/ ext4 1 /dev/sde1", "/dev/sde1", "-", "-", {"/dev/sde"}},
                      {"/volume1 btrfs 3 /dev/mapper/vault-open",
                       "/dev/dm-3",
                       "/dev/mapper/vault-open",
                       "4db5a6ea-b8ee-4578-8d96-d24f1802cdd1",
                       {"/dev/sda", "/dev/sdb", "/dev/sdd"}},
                      {"/volume2 ext4 1 /dev/mapper/vg1-plain",
                       "/dev/dm-1",
                       "/dev/mapper/vg1-plain",
                       "-",
                       {"/dev/sda", "/dev/sdb", "/dev/sdd"}},
                      {"/volume3 btrfs 3 /dev/mapper/vg2-wide",
                       "/dev/dm-2",
                       "/dev/mapper/vg2-wide",
                       "d3f0b022-b4f3-432f-acff-52b04ffc762b",
                       {"/dev/sdc", "/dev/sdd"}},
                      {"/volume4 ext4 1 /dev/mapper/luks1-open",
                       "/dev/dm-4",
                       "/dev/mapper/luks1-open",
                       "-",
                       {"/dev/sda"}}},
          .isSsd = {{"sda", "0"}, {"sdb", "0"}, {"sdc", "1"}, {"sdd", "0"}, {"sde", "0"}},
          .disks = {"sda /dev/sda 0x01", "sdb /dev/sdb 0x01", "sdc /dev/sdc 0x01", "sdd /dev/sdd 0x01"},
          .externalDisks = {"sde /dev/sde 0x10"},
          .arrays = {"/dev/md1 raid5 0x04 3: /dev/sda1 /dev/sdb1 /dev/sdd1"}}},

	{"btrfs-raid1",
         {.volumes = {{"/ btrfs 3 /dev/nvme0n1p1",
                       "/dev/nvme0n1p1",
                       "-",
                       "29352ce9-b373-42c5-a9c8-c3245f003b90",
                       {"/dev/nvme0n1"}},
                      {"/media/card ext4 1 /dev/mmcblk0p1", "/dev/mmcblk0p1", "-", "-", {"/dev/mmcblk0"}},
                      {"/media/usb btrfs 3 /dev/sdc1",
                       "/dev/sdc1",
                       "-",
                       "f37db6d6-115d-425f-b090-d89a43b2aa05",
                       {"/dev/sdc"}},
                      {"/volume1 btrfs 3 /dev/sdb",
                       "/dev/sdb",
                       "-",
                       "e38d9354-4ffe-4fee-a921-324fb24cd8b7",
                       {"/dev/sda", "/dev/sdb"}},
                      {"/volume2 ext4 1 /dev/vda", "/dev/vda", "-", "-", {"/dev/vda"}}},
          .isSsd = {{"nvme0n1", "1"}, {"mmcblk0", "1"}, {"sda", "0"}, {"sdb", "1"}, {"sdc", "0"}, {"vda", "0"}},
          .disks = {"nvme0n1 /dev/nvme0n1 0x04", "sda /dev/sda 0x01", "sdb /dev/sdb 0x01", "vda /dev/vda 0x08"},
          .externalDisks = {"mmcblk0 /dev/mmcblk0 0x10", "sdc /dev/sdc 0x10"},
          .arrays = {}}},

	{"btrfs-missing",
         {.volumes = {{"/ ext4 1 /dev/nvme0n1p1", "/dev/nvme0n1p1", "-", "-", {"/dev/nvme0n1"}},
                      {"/volume1 btrfs 3 /dev/sda",
                       "/dev/sda",
                       "-",
                       "372082c4-ceb0-49aa-811d-793d1a9daeae",
                       {"/dev/sda", "/dev/sdc"}}},
          .isSsd = {{"nvme0n1", "1"}, {"sda", "1"}, {"sdc", "0"}},
          .disks = {"nvme0n1 /dev/nvme0n1 0x04", "sda /dev/sda 0x01", "sdc /dev/sdc 0x01"},
          .externalDisks = {},
          .arrays = {}}},

	// sda and sdd were pulled while they were mounted. sda has come back as sdf, which its Btrfs takes no notice of. Of
	// /volume2 the half that the mount table names is gone.
	{"btrfs-pulled",
         {.volumes = {{"/ ext4 1 /dev/nvme0n1p1", "/dev/nvme0n1p1", "-", "-", {"/dev/nvme0n1"}},
                      {"/volume1 btrfs 3 /dev/sde",
                       "/dev/sde",
                       "-",
                       "af9ad533-94fe-4ef6-9bd0-b24ad3aca94f",
                       {"/dev/sdb", "/dev/sde"}},
                      {.line = "/volume2 btrfs 3 /dev/sdd1",
                       .device = "/dev/sdc1",
                       .altDevice = "-",
                       .uuid = "76a92cfe-db89-4162-9e1e-6e2d4a58ff2b",
                       .disks = {"/dev/sdc"},
                       .isFoundByName = false},
                      {"/volume3 btrfs 3 /dev/sdd2", "gone", "-", "1bdb0110-a28b-40e3-a7e8-340e264cb849", {}},
                      {"/volume4 ext4 1 /dev/sdd3", "gone", "-", "-", {}}},
          .isSsd = {{"nvme0n1", "1"}, {"sdb", "0"}, {"sdc", "1"}, {"sde", "1"}, {"sdf", "0"}},
          .disks = {"nvme0n1 /dev/nvme0n1 0x04", "sdb /dev/sdb 0x01", "sdc /dev/sdc 0x01", "sde /dev/sde 0x01",
                    "sdf /dev/sdf 0x01"},
          .externalDisks = {},
          .arrays = {}}},

	// sdc has every cache, and nothing else that is mounted.
	{"dm-cache",
         {.volumes =
                  {{"/ ext4 1 /dev/nvme0n1p1", "/dev/nvme0n1p1", "-", "-", {"/dev/nvme0n1"}},
                   {"/volume1 btrfs 3 /dev/mapper/vg0-data",
                    "/dev/dm-0",
                    "/dev/mapper/vg0-data",
                    "b650200b-b30e-4254-adae-4338f845f627",
                    {"/dev/sda"}},
                   {"/volume2 ext4 1 /dev/mapper/vg0-media", "/dev/dm-4", "/dev/mapper/vg0-media", "-", {"/dev/sda"}},
                   {"/volume3 btrfs 3 /dev/mapper/vg0-logs",
                    "/dev/dm-9",
                    "/dev/mapper/vg0-logs",
                    "c65e06c0-992e-4ac1-8626-1266dd282061",
                    {"/dev/sda"}},
                   {"/volume4 btrfs 3 /dev/mapper/vg0-thin",
                    "/dev/dm-16",
                    "/dev/mapper/vg0-thin",
                    "51d9fca2-ddff-49cd-8867-c754239c22d5",
                    {"/dev/sdb"}},
                   {"/volume5 ext4 1 /dev/mapper/vg0-mirror",
                    "/dev/dm-21",
                    "/dev/mapper/vg0-mirror",
                    "-",
                    {"/dev/sda", "/dev/sdb"}}},
          .isSsd = {{"nvme0n1", "1"}, {"sda", "0"}, {"sdb", "0"}, {"sdc", "1"}},
          .disks = {"nvme0n1 /dev/nvme0n1 0x04", "sda /dev/sda 0x01", "sdb /dev/sdb 0x01", "sdc /dev/sdc 0x01"},
          .externalDisks = {},
          .arrays = {}}},

	// sdc has every cache, and of back the device that is cached as well.
	{"dm-cache-by-hand",
         {.volumes = {{"/ ext4 1 /dev/nvme0n1p1", "/dev/nvme0n1p1", "-", "-", {"/dev/nvme0n1"}},
                      {"/volume1 btrfs 3 /dev/mapper/plain",
                       "/dev/dm-0",
                       "/dev/mapper/plain",
                       "99f458e1-5d45-40e9-84d6-0a26c91e063a",
                       {"/dev/sda"}},
                      {"/volume2 btrfs 3 /dev/mapper/through",
                       "/dev/dm-1",
                       "/dev/mapper/through",
                       "63d1f381-e6d7-4827-ab8a-f1a15abd7aeb",
                       {"/dev/sdb"}},
                      {"/volume3 btrfs 3 /dev/mapper/back",
                       "/dev/dm-2",
                       "/dev/mapper/back",
                       "264fe252-2cb9-43ed-91f4-1c8b36ee979f",
                       {"/dev/sdc"}},
                      {"/volume4 btrfs 3 /dev/mapper/pass-by",
                       "/dev/dm-3",
                       "/dev/mapper/pass-by",
                       "c0fc19e0-fdb1-47d5-a2d9-603337ee6dd9",
                       {"/dev/sda"}}},
          .isSsd = {{"nvme0n1", "1"}, {"sda", "0"}, {"sdb", "0"}, {"sdc", "1"}},
          .disks = {"nvme0n1 /dev/nvme0n1 0x04", "sda /dev/sda 0x01", "sdb /dev/sdb 0x01", "sdc /dev/sdc 0x01"},
          .externalDisks = {},
          .arrays = {}}},

	// bcache0 is sda1 with the cache on sdb2, bcache1 is sdc without a cache, bcache2 lies in the cache.
	{"bcache",
         {.volumes = {{"/ ext4 1 /dev/sdb1", "/dev/sdb1", "-", "-", {"/dev/sdb"}},
                      {"/volume1 btrfs 3 /dev/bcache0",
                       "/dev/bcache0",
                       "-",
                       "1b31e494-8015-48fe-ab99-2a7eb8abc540",
                       {"/dev/sda"}},
                      {"/volume2 btrfs 3 /dev/bcache1",
                       "/dev/bcache1",
                       "-",
                       "280a1adc-918e-4dc9-9025-1b1f73b628df",
                       {"/dev/sdc"}},
                      {"/volume3 ext4 1 /dev/bcache2", "/dev/bcache2", "-", "-", {"/dev/sdb"}}},
          .isSsd = {{"sda", "0"}, {"sdb", "1"}, {"sdc", "0"}},
          .disks = {"sda /dev/sda 0x01", "sdb /dev/sdb 0x01", "sdc /dev/sdc 0x01"},
          .externalDisks = {},
          .arrays = {}}},

	{"bays-24",
         {.volumes = {{"/ ext4 1 /dev/mmcblk0p1", "/dev/mmcblk0p1", "-", "-", {"/dev/mmcblk0"}},
                      {"/volume1 btrfs 3 /dev/md1",
                       "/dev/md1",
                       "-",
                       "3cd8dff6-e6c7-4528-9c61-af874520eda1",
                       {"/dev/sdm", "/dev/sdn"}},
                      {"/volume2 btrfs 3 /dev/md2",
                       "/dev/md2",
                       "-",
                       "123bebd6-bc6d-4d78-9da3-a5e44faf4e64",
                       {"/dev/sdo", "/dev/sdp", "/dev/sdq", "/dev/sdr", "/dev/sds", "/dev/sdt", "/dev/sdu", "/dev/sdv",
                        "/dev/sdw", "/dev/sdx"}},
                      {"/volume3 btrfs 3 /dev/md3",
                       "/dev/md3",
                       "-",
                       "60d837b5-f151-4f99-b7b6-4a3e73fd5d81",
                       {"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd", "/dev/sde", "/dev/sdf", "/dev/sdg", "/dev/sdh",
                        "/dev/sdi", "/dev/sdj", "/dev/sdk", "/dev/sdl"}}},
          .isSsd = {{"mmcblk0", "1"}, {"sda", "0"}, {"sdb", "0"}, {"sdc", "0"}, {"sdd", "0"},
                    {"sde", "0"},     {"sdf", "0"}, {"sdg", "0"}, {"sdh", "0"}, {"sdi", "0"},
                    {"sdj", "0"},     {"sdk", "0"}, {"sdl", "0"}, {"sdm", "1"}, {"sdn", "1"},
                    {"sdo", "1"},     {"sdp", "1"}, {"sdq", "1"}, {"sdr", "1"}, {"sds", "1"},
                    {"sdt", "1"},     {"sdu", "1"}, {"sdv", "1"}, {"sdw", "1"}, {"sdx", "1"}},
          .disks = {"mmcblk0 /dev/mmcblk0 0x20", "sda /dev/sda 0x02", "sdb /dev/sdb 0x02", "sdc /dev/sdc 0x02",
                    "sdd /dev/sdd 0x02",         "sde /dev/sde 0x02", "sdf /dev/sdf 0x02", "sdg /dev/sdg 0x02",
                    "sdh /dev/sdh 0x02",         "sdi /dev/sdi 0x02", "sdj /dev/sdj 0x02", "sdk /dev/sdk 0x02",
                    "sdl /dev/sdl 0x02",         "sdm /dev/sdm 0x02", "sdn /dev/sdn 0x02", "sdo /dev/sdo 0x02",
                    "sdp /dev/sdp 0x02",         "sdq /dev/sdq 0x02", "sdr /dev/sdr 0x02", "sds /dev/sds 0x02",
                    "sdt /dev/sdt 0x02",         "sdu /dev/sdu 0x02", "sdv /dev/sdv 0x02", "sdw /dev/sdw 0x02",
                    "sdx /dev/sdx 0x02"},
          .externalDisks = {},
          .arrays = {"/dev/md1 raid1 0x02 2: /dev/sdm /dev/sdn",
                     "/dev/md2 raid5 0x04 9: /dev/sdo /dev/sdp /dev/sdq /dev/sdr /dev/sds /dev/sdt /dev/sdu /dev/sdv "
                     "/dev/sdw /dev/sdx",
                     "/dev/md3 raid6 0x08 12: /dev/sda /dev/sdb /dev/sdc /dev/sdd /dev/sde /dev/sdf /dev/sdg /dev/sdh "
                     "/dev/sdi /dev/sdj /dev/sdk /dev/sdl"}}},

	// md77 is a device without an array. The machine itself is on a USB disk.
	{"inactive-array",
         {.volumes = {{"/ ext4 1 /dev/sdd1", "/dev/sdd1", "-", "-", {"/dev/sdd"}},
                      {"/volume1 btrfs 3 /dev/md0",
                       "/dev/md0",
                       "-",
                       "c922f845-1939-4a7b-9fa5-4f0e99b27667",
                       {"/dev/sda", "/dev/sdb"}},
                      {"/volume2 ext4 1 /dev/md1", "/dev/md1", "-", "-", {"/dev/sda", "/dev/sdc"}},
                      {"/volume3 btrfs 3 /dev/md2",
                       "/dev/md2",
                       "-",
                       "01dccbdf-ccca-4dff-858a-36125cfc0134",
                       {"/dev/sda", "/dev/sdb", "/dev/sdc"}}},
          .isSsd = {{"sda", "0"}, {"sdb", "0"}, {"sdc", "1"}, {"sdd", "0"}},
          .disks = {"sda /dev/sda 0x01", "sdb /dev/sdb 0x01", "sdc /dev/sdc 0x01"},
          .externalDisks = {"sdd /dev/sdd 0x10"},
          .arrays = {"/dev/md0 raid0 0x01 2: /dev/sda2 /dev/sdb2", "/dev/md1 linear 0x20 2: /dev/sda3 /dev/sdc2",
                     "/dev/md127 - 0x00 0: /dev/sdb1", "/dev/md2 raid10 0x10 3: /dev/sda5 /dev/sdb5 /dev/sdc3",
                     "/dev/md3 raid1 0x02 2: /dev/sda6 /dev/sdb6"}}},
};

class RecordedMachines : public kit::LabTest, public testing::WithParamInterface<std::string> {
protected:
	RecordedMachines() : machine(kit::Machine::Recorded(GetParam())), expected(kExpected.at(GetParam())) {}

	static std::string PathOf(const Volume &volume) { return volume.line.substr(0, volume.line.find(' ')); }

	/// Lets each Btrfs say its UUID, as it does to root.
	void LetBtrfsBeAsked()
	{
		for (const Volume &volume : expected.volumes)
			if (volume.uuid != "-")
				machine.btrfsPaths[PathOf(volume)] = volume.uuid;
	}

	kit::Machine machine;
	const Expected &expected;
};

Strings Names()
{
	Strings names;
	for (const auto &[name, expected] : kExpected)
		names.push_back(name);
	return names;
}

std::string TestName(const testing::TestParamInfo<std::string> &info)
{
	std::string name = info.param;
	std::replace(name.begin(), name.end(), '-', '_');
	return name;
}

} // namespace

TEST(Recordings, AreExpectedSomething)
{
	const Strings names = Names();
	EXPECT_EQ(kit::Machine::Recordings(), std::set<std::string>(names.begin(), names.end()));
}

TEST_P(RecordedMachines, HaveTheseVolumes)
{
	Strings lines;
	Strings ofBtrfs;
	Strings ofExt;
	for (const Volume &volume : expected.volumes) {
		lines.push_back(volume.line);
		(volume.line.find(" btrfs ") != std::string::npos ? ofBtrfs : ofExt).push_back(volume.line);
	}
	EXPECT_EQ(VolumeLines(), lines);
	EXPECT_EQ(VolumeLines(ZEVO_FS_BTRFS), ofBtrfs);
	EXPECT_EQ(VolumeLines(ZEVO_FS_EXT), ofExt);
	EXPECT_EQ(VolumeLines(ZEVO_FS_XFS), Strings());
}

TEST_P(RecordedMachines, HaveTheseSpaces)
{
	Strings lines;
	Strings foundByName;
	for (const Volume &volume : expected.volumes) {
		if (volume.device == "gone")
			continue;
		lines.push_back(PathOf(volume) + " " + volume.device + " " + volume.altDevice + " " + volume.uuid);
		if (volume.isFoundByName)
			foundByName.push_back(lines.back());
	}
	EXPECT_EQ(SpaceLines(), foundByName);
	LetBtrfsBeAsked();
	EXPECT_EQ(SpaceLines(), lines);
}

TEST_P(RecordedMachines, HaveTheirSpacesOnTheseDisks)
{
	LetBtrfsBeAsked();
	for (const Volume &volume : expected.volumes)
		EXPECT_EQ(DisksUnder(PathOf(volume)), volume.device != "gone" ? volume.disks : Strings{"no such space"})
			<< volume.line;
}

TEST_P(RecordedMachines, HaveTheseDisks)
{
	EXPECT_EQ(DiskLines(0x2F), expected.disks);
	EXPECT_EQ(DiskLines(DISK_TYPE_EXTERNAL), expected.externalDisks);
}

TEST_P(RecordedMachines, HaveTheseSsds)
{
	for (const auto &[disk, isSsd] : expected.isSsd) {
		EXPECT_EQ(IsSsd(disk), isSsd) << disk;
		EXPECT_EQ(IsSsd("/dev/" + disk), isSsd) << disk;
	}
}

TEST_P(RecordedMachines, HaveTheseArrays)
{
	EXPECT_EQ(ArrayLines(), expected.arrays);
}

// By what the kernel links to: a partition's folder is in that of its disk.
TEST_P(RecordedMachines, HavePartitionsOfTheseDisks)
{
	for (const auto &entry : std::filesystem::directory_iterator("/sys/class/block")) {
		const std::string name = entry.path().filename();
		const std::filesystem::path folder = std::filesystem::read_symlink(entry.path());
		const std::string above = folder.parent_path().filename();
		const bool isPartition = std::filesystem::exists(entry.path() / "partition");
		EXPECT_EQ(WithoutPartition("/dev/" + name), "/dev/" + (isPartition ? above : name));
	}
}

INSTANTIATE_TEST_SUITE_P(Each, RecordedMachines, testing::ValuesIn(Names()), TestName);
