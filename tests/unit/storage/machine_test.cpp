// The kit's own machines.

#include "kit/machine.h"

#include "answers.h"

#include "kit/files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <linux/dm-ioctl.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

using namespace answers;

namespace fs = std::filesystem;

namespace {

class Machines : public kit::LabTest {
protected:
	kit::TempDir dir;
};

/// What a recording of these lines makes the kit throw; "" for nothing.
std::string Thrown(const std::string &file, const std::string &text)
{
	kit::WriteFile(file, text);
	try {
		const kit::Machine machine = kit::Machine::RecordedIn(file);
	} catch (const std::runtime_error &error) {
		return error.what();
	}
	return "";
}

dm_ioctl Request(dev_t device)
{
	dm_ioctl request = {};
	request.version[0] = DM_VERSION_MAJOR;
	request.data_size = sizeof(request);
	request.dev = device;
	return request;
}

} // namespace

TEST_F(Machines, AreSeenWhileTheyLive)
{
	const std::string mountInfo = kit::ReadFile("/proc/thread-self/mountinfo");
	const std::set<std::string> sys = kit::Names("/sys");
	for (int i = 0; i < 50; ++i) {
		kit::Machine machine;
		machine.Disk("sda");
		machine.Mount("/dev/sda", "/volume1", "ext4");
		EXPECT_EQ(kit::Names("/sys/block"), (std::set<std::string>{"sda"}));
		EXPECT_EQ(kit::ReadFile("/proc/thread-self/mountinfo"), machine.MountLines().at(0) + "\n");
	}
	EXPECT_EQ(kit::ReadFile("/proc/thread-self/mountinfo"), mountInfo);
	EXPECT_EQ(kit::Names("/sys"), sys);
}

TEST_F(Machines, DoNotNest)
{
	kit::Machine machine;
	machine.Disk("sda");
	EXPECT_THROW(kit::Machine(), std::logic_error);
	EXPECT_EQ(kit::Names("/sys/block"), (std::set<std::string>{"sda"}));
}

TEST_F(Machines, LinkTheirDevicesAsTheKernelDoes)
{
	kit::Machine machine;
	machine.Disk("sda");
	machine.Partition("sda", 1);
	machine.Disk("sdb");
	machine.Md("md0", "raid1", {"sda1", "sdb"});
	const std::string disk = "devices/pci0000:00/0000:00:1f.2/ata0/host0/target0:0:0/0:0:0:0/block/sda";
	for (const auto &[link, target] :
	     {std::pair<std::string, std::string>("block/sda", "../" + disk),
	      {"class/block/sda", "../../" + disk},
	      {"class/block/sda1", "../../" + disk + "/sda1"},
	      {"dev/block/8:1", "../../" + disk + "/sda1"},
	      {disk + "/device", "../../../0:0:0:0"},
	      {disk + "/subsystem", "../../../../../../../../../class/block"},
	      {disk + "/../../subsystem", "../../../../../../../bus/scsi"},
	      {"devices/virtual/block/md0/slaves/sda1", "../../../../" + disk.substr(8) + "/sda1"},
	      {"devices/virtual/block/md0/md/dev-sda1/block", "../../../../../" + disk.substr(8) + "/sda1"},
	      {disk + "/sda1/holders/md0", "../../../../../../../../../../virtual/block/md0"}})
		EXPECT_EQ(fs::read_symlink("/sys/" + link), target) << link;
	for (const auto &entry : fs::recursive_directory_iterator("/sys"))
		EXPECT_TRUE(fs::exists(entry.path())) << entry.path() << " leads nowhere";
	EXPECT_EQ(machine.Number("md0"), "9:0");
}

TEST_F(Machines, LoseWhatIsRemoved)
{
	kit::Machine machine;
	machine.Disk("sda");
	machine.Partition("sda", 1);
	machine.Disk("sdaa");
	machine.Remove("sda");
	EXPECT_EQ(kit::Names("/sys/block"), (std::set<std::string>{"sdaa"}));
	EXPECT_EQ(kit::Names("/sys/class/block"), (std::set<std::string>{"sdaa"}));
	EXPECT_EQ(kit::Names("/sys/dev/block"), (std::set<std::string>{machine.Number("sdaa")}));
}

TEST_F(Machines, MountOnWhatAPathLeadsTo)
{
	kit::Machine machine;
	const int root = machine.Mount("none", "/", "tmpfs");
	const int volume = machine.Mount("none", "/volume1", "tmpfs");
	const int over = machine.Mount("none", "/volume1", "tmpfs");
	machine.Mount("none", "/volume1/a", "tmpfs");
	machine.Mount("none", "/volume10", "tmpfs");
	machine.Mount("none", "/", "tmpfs");
	machine.Mount("none", "/b", "tmpfs");
	Strings parents;
	for (const std::string &line : machine.MountLines())
		parents.push_back(line.substr(3, 2));
	EXPECT_EQ(parents, (Strings{"1 ", std::to_string(root), std::to_string(volume), std::to_string(over),
	                            std::to_string(root), std::to_string(root), std::to_string(root)}));
}

TEST_F(Machines, OfARecordingHaveWhatItSays)
{
	kit::WriteFile(dir.Path("a.machine"), "# a comment\n\n"
	                                      "mount 30 1 8:0 / /volume\\0401 rw - ext4 /dev/sda rw\n"
	                                      "dir block/empty\n"
	                                      "link class/block/sda ../../devices/block/sda\n"
	                                      "file devices/block/sda/dev 8:0\n"
	                                      "file devices/block/sda/model Two\\nlines, a \\\\ and blanks  \n"
	                                      "file devices/block/sda/label \n"
	                                      "table 253:0 a-b 0 8 linear 8:0 0\n"
	                                      "table 253:0 a-b 8 8 linear 8:0 16\n");
	kit::Machine machine = kit::Machine::RecordedIn(dir.Path("a.machine"));
	EXPECT_EQ(kit::ReadFile("/proc/thread-self/mountinfo"), "30 1 8:0 / /volume\\0401 rw - ext4 /dev/sda rw\n");
	EXPECT_TRUE(fs::is_empty("/sys/block/empty"));
	EXPECT_EQ(kit::ReadFile("/sys/class/block/sda/dev"), "8:0\n");
	EXPECT_EQ(kit::ReadFile("/sys/class/block/sda/model"), "Two\nlines, a \\ and blanks  \n");
	EXPECT_EQ(kit::ReadFile("/sys/class/block/sda/label"), "\n");
	EXPECT_EQ(machine.deviceMapper.tables.at("253:0").targets, (Strings{"0 8 linear 8:0 0", "8 8 linear 8:0 16"}));
	EXPECT_EQ(machine.deviceMapper.tables.at("253:0").name, "a-b");
	machine.Remove("sda");
	EXPECT_FALSE(fs::exists("/sys/devices/block/sda"));
}

TEST_F(Machines, OfARecordingThatIsNotUnderstoodNameTheLine)
{
	const std::string file = dir.Path("a.machine");
	EXPECT_EQ(Thrown(file, "dir block\nfolder block\n").find(file + ":2: "), 0U);
	EXPECT_EQ(Thrown(file, "file\n").find(file + ":1: "), 0U);
	EXPECT_EQ(Thrown(file, "# x\n\nlink block/sda\n").find(file + ":3: "), 0U);
	EXPECT_EQ(Thrown(file, "file a b\\tc\n").find(file + ":1: "), 0U);
	EXPECT_EQ(Thrown(file, "dir a\nfile a/b c\nlink a/b c\n").find(file + ":3: "), 0U);
	EXPECT_EQ(Thrown(file, "dir block more\n").find(file + ":1: "), 0U);
	EXPECT_EQ(Thrown(file, "dir block\n"), "");
	EXPECT_THROW(kit::Machine::Recorded("no such machine"), std::runtime_error);
	EXPECT_FALSE(fs::is_empty("/sys")) << "a machine stayed";
}

TEST_F(Machines, AnswerForTheDeviceMapperAsTheKernelDoes)
{
	kit::Machine machine;
	machine.Disk("sda");
	machine.Dm("dm-0", "vg1-volume1", "", {"sda"}, {"0 8 linear 8:0 0", "8 16 linear 8:0 64"});
	const int control = open("/dev/mapper/control", O_RDWR | O_CLOEXEC);
	ASSERT_GE(control, 0);

	// By number, without room.
	dm_ioctl request = Request(makedev(253, 0));
	ASSERT_EQ(ioctl(control, DM_TABLE_STATUS, &request), 0);
	EXPECT_NE(request.flags & DM_BUFFER_FULL_FLAG, 0U);
	EXPECT_EQ(request.data_size, sizeof(dm_ioctl));

	// By name, with room.
	std::string answer(4096, '\0');
	auto *const large = reinterpret_cast<dm_ioctl *>(answer.data());
	*large = Request(0);
	large->data_size = 4096;
	large->flags = DM_STATUS_TABLE_FLAG;
	strcpy(large->name, "vg1-volume1");
	ASSERT_EQ(ioctl(control, DM_TABLE_STATUS, large), 0);
	EXPECT_EQ(large->flags & DM_BUFFER_FULL_FLAG, 0U);
	ASSERT_EQ(large->target_count, 2U);
	const char *const targets = answer.data() + large->data_start;
	const auto *const first = reinterpret_cast<const dm_target_spec *>(targets);
	const auto *const second = reinterpret_cast<const dm_target_spec *>(targets + first->next);
	EXPECT_STREQ(second->target_type, "linear");
	EXPECT_EQ(second->sector_start, 8U);
	EXPECT_EQ(second->length, 16U);
	EXPECT_STREQ(reinterpret_cast<const char *>(second + 1), "8:0 64");

	// Of what is not there, and what is not asked for in this way.
	request = Request(makedev(253, 1));
	EXPECT_EQ(ioctl(control, DM_TABLE_STATUS, &request), -1);
	EXPECT_EQ(errno, ENXIO);
	request = Request(makedev(253, 0));
	request.version[0] = 3;
	EXPECT_EQ(ioctl(control, DM_TABLE_STATUS, &request), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(ioctl(control, DM_DEV_REMOVE, &request), -1);
	EXPECT_EQ(errno, ENOTTY);
	close(control);
}

// Every function of the library may be called from any thread.
TEST_F(Machines, AnswerSeveralThreadsAtOnce)
{
	const kit::Machine machine = kit::Machine::Recorded("dm-cache");
	const auto everything = [] {
		Strings lines = VolumeLines();
		for (const Strings &more : {SpaceLines(), DisksUnder("/volume1"), DiskLines(0x2F), ArrayLines(),
		                            Strings{IsSsd("sda"), WithoutPartition("/dev/nvme0n1p1")}})
			lines.insert(lines.end(), more.begin(), more.end());
		return lines;
	};
	const Strings expected = everything();
	std::vector<Strings> found(4);
	std::vector<std::thread> threads;
	for (Strings &lines : found)
		threads.emplace_back([&] {
			const kit::MountPoint mounts = machine.ForThisThread();
			for (int i = 0; i < 20; ++i)
				lines = everything();
		});
	for (std::thread &thread : threads)
		thread.join();
	for (const Strings &lines : found)
		EXPECT_EQ(lines, expected);
}
