#include "machines.h"

#include "bench.h"
#include "kit/machine.h"
#include "kit/machine_ioctl.h"

#include <memory>

// No machine here has a device mapper, so nothing need stand before the C library's functions, whose cost is measured.
void kit::SetDeviceMapper(kit::DeviceMapper *) {}

namespace bench {

namespace {

std::unique_ptr<kit::Machine> machine;
int shape = 0; // number of volumes; -1 for the bays

/// Whether the machine is to be made anew; then there is an empty one.
bool Renew(int wanted)
{
	if (shape == wanted)
		return false;
	machine.reset();
	machine = std::make_unique<kit::Machine>();
	shape = wanted;
	return true;
}

std::string Bay(int bay)
{
	return std::string("sd") + static_cast<char>('a' + bay);
}

std::string Queue(int bay)
{
	return "/sys/block/" + Bay(bay) + "/queue/";
}

} // namespace

void HaveBays()
{
	if (!Renew(-1))
		return;
	// Writing changes no more of a file than its beginning, so the scheduler that is written stands there.
	std::vector<std::string> members[3];
	for (int bay = 0; bay < 24; ++bay) {
		machine->Disk(Bay(bay), {.rotating = bay % 2 != 0,
		                         .schedulers = "mq-deadline [none] kyber bfq",
		                         .tunables = {{"fifo_batch", "16"}, {"read_expire", "500"}}});
		machine->Partition(Bay(bay), 1);
		members[bay / 8].push_back(Bay(bay) + "1");
	}
	machine->Md("md0", "raid1", members[0]);
	machine->Md("md1", "raid5", members[1]);
	machine->Md("md2", "raid6", members[2]);
	const std::string dir = "/usr/zevo/share/zevotuned/profiles/";
	WriteFile(dir + "bench_disk", "[main]\nname=bench_disk\n[disk]\nssd_scheduler=mq-deadline\n");
	WriteFile(dir + "bench_raid", "[main]\nname=bench_raid\n[raid_cfq_default]\nfifo_batch=32\nread_expire=250\n");
}

const std::vector<std::string> &SchedulerFiles()
{
	static const std::vector<std::string> files = [] {
		std::vector<std::string> paths;
		for (int bay = 0; bay < 24; bay += 2)
			paths.push_back(Queue(bay) + "scheduler");
		return paths;
	}();
	return files;
}

const std::vector<std::string> &TunableFiles()
{
	static const std::vector<std::string> files = [] {
		std::vector<std::string> paths;
		for (const char *name : {"iosched/fifo_batch", "iosched/read_expire"})
			for (int bay = 0; bay < 24; ++bay)
				paths.push_back(Queue(bay) + name);
		return paths;
	}();
	return files;
}

void HaveVolumes(int volumes)
{
	if (!Renew(volumes))
		return;
	machine->Mount("tmpfs", "/", "tmpfs");
	for (int i = 0; i < volumes; i += 2) {
		const std::string disk = "nvme" + std::to_string(i) + "n1";
		machine->Disk(disk, {.bus = kit::Bus::Nvme});
		for (int partition = 1; partition <= 2; ++partition) {
			machine->Partition(disk, partition);
			const std::string device = disk + "p" + std::to_string(partition);
			const std::string path = "/volume" + std::to_string(i + partition);
			char uuid[40];
			snprintf(uuid, sizeof(uuid), "00000000-0000-4000-8000-%012d", i);
			if (partition == 1)
				machine->Btrfs(uuid, {device});
			const std::string type = partition == 1 ? "btrfs" : "ext4";
			machine->Mount("/dev/" + device, path, type);
			machine->Mount("/dev/" + device, "/srv" + path, type, {.root = "/sub"});
		}
	}
}

} // namespace bench
