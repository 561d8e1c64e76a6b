#include "answers.h"

#include "kit/faults.h"
#include "kit/files.h"

#include <cerrno>
#include <cstring>

#include <linux/dm-ioctl.h>

using namespace answers;

namespace {

const std::string kControl = "/dev/mapper/control";

/// A cached device over three disks; the answers of /dev/mapper/control decide which of them count.
class DeviceMapper : public StorageTest {
protected:
	DeviceMapper()
	{
		for (const char *disk : {"sda", "sdb", "sdc"})
			machine.Disk(disk);
		machine.Dm("dm-0", "cached", "", {"sda", "sdb", "sdc"}, {"0 2048 cache 8:0 8:16 8:32 128 0 smq 0"});
		machine.Mount("/dev/mapper/cached", "/volume1", "ext4");
	}

	void SetTargets(const Strings &targets) { machine.deviceMapper.tables.at("253:0").targets = targets; }
};

struct Target {
	std::string type;
	std::string parameters;
	unsigned next = 0; // 0: right behind
};

/// Writes an answer as the kernel does, with whatever `targets` say of themselves. Returns the bytes of targets.
unsigned Fill(dm_ioctl *request, const std::vector<Target> &targets)
{
	request->data_start = sizeof(dm_ioctl);
	request->target_count = static_cast<unsigned>(targets.size());
	char *const bytes = reinterpret_cast<char *>(request) + sizeof(dm_ioctl);
	unsigned at = 0;
	for (const Target &target : targets) {
		dm_target_spec head = {};
		const size_t size = sizeof(head) + target.parameters.size() + 1;
		const unsigned end = at + static_cast<unsigned>((size + 7) / 8 * 8);
		head.next = target.next != 0 ? target.next : end;
		memcpy(head.target_type, target.type.data(), std::min(target.type.size(), sizeof(head.target_type)));
		memcpy(bytes + at, &head, sizeof(head));
		memcpy(bytes + at + sizeof(head), target.parameters.c_str(), target.parameters.size() + 1);
		at = end;
	}
	request->data_size = static_cast<unsigned>(sizeof(dm_ioctl)) + at;
	return at;
}

} // namespace

TEST_F(DeviceMapper, IsAskedOnceForADeviceOfSeveralDevices)
{
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdc"}));
	EXPECT_EQ(machine.deviceMapper.answers, 1);
}

TEST_F(DeviceMapper, IsNotAskedForADeviceOfOneDevice)
{
	machine.deviceMapper.exists = false;
	machine.Dm("dm-1", "linear", "", {"sdb"}, {"0 2048 linear 8:16 0"});
	machine.Mount("/dev/mapper/linear", "/volume2", "ext4");
	EXPECT_EQ(DisksUnder("/volume2"), (Strings{"/dev/sdb"}));
	EXPECT_EQ(machine.deviceMapper.answers, 0);
}

TEST_F(DeviceMapper, IsNotAskedForArrays)
{
	machine.deviceMapper.exists = false;
	machine.Md("md0", "raid1", {"sda", "sdb"});
	machine.Mount("/dev/md0", "/volume2", "ext4");
	EXPECT_EQ(DisksUnder("/volume2"), (Strings{"/dev/sda", "/dev/sdb"}));
}

TEST_F(DeviceMapper, IsNotAskedWhenSpacesAreListed)
{
	machine.deviceMapper.exists = false;
	EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/dm-0 /dev/mapper/cached -"}));
}

TEST_F(DeviceMapper, TellsCachesOfEveryTarget)
{
	machine.Disk("sdd");
	machine.Dm("dm-1", "two", "", {"sda", "sdb", "sdc", "sdd"},
	           {"0 2048 linear 8:0 0", "2048 2048 writecache s 8:16 8:32 4096 0", "4096 2048 linear 8:48 0"});
	machine.Mount("/dev/mapper/two", "/volume2", "ext4");
	EXPECT_EQ(DisksUnder("/volume2"), (Strings{"/dev/sda", "/dev/sdb", "/dev/sdd"}));
}

TEST_F(DeviceMapper, TellsNoCachesOfOtherTargets)
{
	for (const char *target :
	     {"0 2048 linear 8:0 0", "0 2048 striped 3 128 8:0 0 8:16 0 8:32 0", "0 2048 thin-pool 8:0 8:16 128 0 0",
	      "0 2048 raid raid1 3 0 region_size 1024 3 8:0 8:16 - 8:32 - -", "0 2048 snapshot 8:0 8:16 P 8",
	      "0 2048 error", "0 2048 cachet 8:0 8:16 8:32"}) {
		SetTargets({target});
		EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sda", "/dev/sdb", "/dev/sdc"})) << target;
	}
	SetTargets({}); // no table is loaded
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sda", "/dev/sdb", "/dev/sdc"}));
}

TEST_F(DeviceMapper, IsAskedAgainWithMoreRoomForALargeTable)
{
	Strings targets;
	for (int i = 0; i < 5000; ++i)
		targets.push_back(std::to_string(i * 8) + " 8 linear 8:32 " + std::to_string(i * 8));
	targets.push_back("40000 2048 writecache s 8:16 8:0 4096 0"); // is found at the end of it
	SetTargets(targets);
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdb", "/dev/sdc"}));
	EXPECT_GT(machine.deviceMapper.answers, 1);
	EXPECT_LT(machine.deviceMapper.answers, 10);
}

TEST_F(DeviceMapper, ThatHasNeverRoomEnoughIsNotAskedForever)
{
	machine.deviceMapper.answer = [](dm_ioctl *request) { request->flags |= DM_BUFFER_FULL_FLAG; };
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"failed 0x2200 " + kControl}));
	EXPECT_LT(machine.deviceMapper.answers, 30);
}

TEST_F(DeviceMapper, ThatIsNotThereIsAFailure)
{
	machine.deviceMapper.exists = false;
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"failed 0x0900 " + kControl}));
}

TEST_F(DeviceMapper, ThatMayNotBeOpenedIsAFailure)
{
	const kit::PathFault fault("open", kControl, EACCES);
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"failed 0x0900 " + kControl}));
}

TEST_F(DeviceMapper, ThatDoesNotAnswerIsAFailure)
{
	for (const int error : {EIO, EINVAL, EACCES, ENOTTY}) {
		machine.deviceMapper.error = error;
		EXPECT_EQ(DisksUnder("/volume1"), (Strings{"failed 0x0A00 " + kControl})) << error;
	}
}

TEST_F(DeviceMapper, WithoutMemoryIsALackOfMemory)
{
	machine.deviceMapper.error = ENOMEM;
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"failed 0x0200"}));
}

TEST_F(DeviceMapper, IsAskedAgainWhenASignalInterrupts)
{
	machine.deviceMapper.error = EINTR;
	machine.deviceMapper.before = [&] {
		if (machine.deviceMapper.answers == 3)
			machine.deviceMapper.error = 0;
	};
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdc"}));
	EXPECT_EQ(machine.deviceMapper.answers, 3);
}

TEST_F(DeviceMapper, AnswersAreUnderstoodAsTheKernelGivesThem)
{
	machine.deviceMapper.answer = [](dm_ioctl *request) {
		Fill(request, {{"linear", "8:32 0"}, {"cache", "8:0 8:16 8:32 128"}});
	};
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdc"}));
}

TEST_F(DeviceMapper, AnswersWithATypeNameOfFullLengthAreUnderstood)
{
	machine.deviceMapper.answer = [](dm_ioctl *request) {
		Fill(request, {{std::string(DM_MAX_TYPE_NAME, 'x'), "8:0"}, {"writecache", "p 8:16 8:0 4096"}});
	};
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdb", "/dev/sdc"}));
}

TEST_F(DeviceMapper, AnswersThatLackADeviceAreNotUnderstood)
{
	for (const char *target : {"0 2048 cache 8:0", "0 2048 cache", "0 2048 writecache s 8:0", "0 2048 writecache s",
	                           "0 2048 writecache"}) {
		SetTargets({target});
		EXPECT_EQ(DisksUnder("/volume1"), (Strings{"failed 0x2200 " + kControl})) << target;
	}
}

TEST_F(DeviceMapper, AnswersMayHaveBlanksOfAnyKind)
{
	for (const Target &target : std::vector<Target>{{"cache", "  8:0\t8:16  8:32 "},
	                                                {"cache", "8:0\v8:16\f8:32\r128\n"},
	                                                {"writecache", " \t p 8:32\r\n8:16 4096"}}) {
		machine.deviceMapper.answer = [&](dm_ioctl *request) { Fill(request, {target}); };
		EXPECT_EQ(DisksUnder("/volume1"),
		          target.type == "cache" ? (Strings{"/dev/sdc"}) : (Strings{"/dev/sda", "/dev/sdc"}))
			<< target.parameters;
	}
}

TEST_F(DeviceMapper, AnswersThatContradictThemselvesAreNotUnderstood)
{
	using Answer = std::function<void(dm_ioctl *)>;
	const std::vector<Target> two = {{"linear", "8:0 0"}, {"linear", "8:16 0"}};
	const std::map<std::string, Answer> answers = {
		{"more data than room",
	         [&](dm_ioctl *request) {
			 const unsigned room = request->data_size;
			 Fill(request, two);
			 request->data_size = room + 1;
		 }},
		{"data of which there could not be so much",
	         [&](dm_ioctl *request) {
			 Fill(request, two);
			 request->data_size = 0xFFFFFFFF;
		 }},
		{"data that starts behind the room",
	         [&](dm_ioctl *request) {
			 const unsigned room = request->data_size;
			 Fill(request, two);
			 request->data_start = room + 1;
		 }},
		{"data that starts nowhere",
	         [&](dm_ioctl *request) {
			 Fill(request, two);
			 request->data_start = 0xFFFFFFF8;
		 }},
		{"data that ends before it starts",
	         [&](dm_ioctl *request) {
			 Fill(request, two);
			 request->data_size = 0;
		 }},
		{"data that starts at its end",
	         [&](dm_ioctl *request) {
			 Fill(request, two);
			 request->data_start = request->data_size;
		 }},
		{"more targets than data",
	         [&](dm_ioctl *request) {
			 Fill(request, two);
			 request->target_count = 3;
		 }},
		{"a target that is cut off",
	         [&](dm_ioctl *request) {
			 Fill(request, two);
			 request->data_size = sizeof(dm_ioctl) + sizeof(dm_target_spec) - 1;
		 }},
		{"parameters that are cut off",
	         [&](dm_ioctl *request) {
			 Fill(request, {{"cache", "8:0 8:16 8:32"}});
			 request->data_size = sizeof(dm_ioctl) + sizeof(dm_target_spec) + 4;
		 }},
		{"a next target behind the data",
	         [&](dm_ioctl *request) {
			 Fill(request, {{"linear", "8:0 0", 1 << 20}, {"linear", "8:16 0"}});
		 }},
		{"a next target nowhere",
	         [&](dm_ioctl *request) {
			 Fill(request, {{"linear", "8:0 0", 0xFFFFFFF8}, {"linear", "8:16 0"}});
		 }},
		{"a next target within this one",
	         [&](dm_ioctl *request) {
			 Fill(request, {{"linear", "8:0 0", 8}, {"linear", "8:16 0"}});
		 }},
	};
	for (const auto &[what, answer] : answers) {
		machine.deviceMapper.answer = answer;
		EXPECT_EQ(DisksUnder("/volume1"), (Strings{"failed 0x2200 " + kControl})) << what;
	}
}

// As many rounds as there are targets would take hours.
TEST_F(DeviceMapper, AnswersWhoseTargetsGoInACircleAreNotUnderstood)
{
	for (const unsigned count : {2U, 1000U}) {
		machine.deviceMapper.answer = [&](dm_ioctl *request) {
			const unsigned size = Fill(request, {{"linear", "8:0 0"}, {"linear", "8:16 0"}});
			char *const bytes = reinterpret_cast<char *>(request) + sizeof(dm_ioctl);
			for (const unsigned at : {0U, size / 2}) {
				dm_target_spec head;
				memcpy(&head, bytes + at, sizeof(head));
				head.next = 0;
				memcpy(bytes + at, &head, sizeof(head));
			}
			request->target_count = count;
		};
		EXPECT_EQ(DisksUnder("/volume1"), (Strings{"failed 0x2200 " + kControl})) << count;
	}
}

TEST_F(DeviceMapper, NumbersThatAreNoneAreNotUnderstood)
{
	for (const char *nonsense : {"\n", "253\n", "x:y\n", "253:\n"}) {
		kit::WriteFile("/sys/block/dm-0/dev", nonsense);
		EXPECT_EQ(DisksUnder("/volume1"), (Strings{"failed 0x2200 /sys/class/block/dm-0/dev"})) << nonsense;
	}
}
