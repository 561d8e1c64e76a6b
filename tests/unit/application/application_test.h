#ifndef TESTS_UNIT_APPLICATION_APPLICATION_TEST_H
#define TESTS_UNIT_APPLICATION_APPLICATION_TEST_H

// What tests of planning, verifying and undoing have in common: the shipped profiles, on machines whose kernel reacts.

#include "kit/files.h"
#include "kit/kernel_reactions.h"
#include "kit/lab.h"
#include "kit/machine.h"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;
using Files = std::map<std::string, std::string>;

/// The files of the kernel's that profiles may change, with what they hold.
inline Files KernelFiles()
{
	namespace fs = std::filesystem;
	Files files;
	for (const fs::directory_entry &entry : fs::directory_iterator("/proc/sys/vm"))
		files[entry.path()] = kit::ReadFile(entry.path());
	if (fs::exists("/sys/block"))
		for (const fs::directory_entry &disk : fs::directory_iterator("/sys/block"))
			for (const fs::path &folder : {disk.path() / "queue", disk.path() / "queue/iosched"})
				if (fs::exists(folder))
					for (const fs::directory_entry &file : fs::directory_iterator(folder))
						if (file.is_regular_file())
							files[file.path()] = kit::ReadFile(file.path());
	if (fs::exists("/sys/fs/btrfs"))
		for (const fs::directory_entry &folder : fs::directory_iterator("/sys/fs/btrfs"))
			if (const fs::path limit = folder.path() / "zevo_writeback_thread_max"; fs::exists(limit))
				files[limit] = kit::ReadFile(limit);
	return files;
}

inline void InstallShipped(const std::string &set)
{
	namespace fs = std::filesystem;
	fs::create_directories("/usr/zevo/share");
	fs::copy(std::string(SHIPPED_PROFILES) + "/" + set, "/usr/zevo/share/zevotuned", fs::copy_options::recursive);
}

/// Two SSDs in a mirror and alone, with a Btrfs on each, rotating disks in a RAID5, and a plain one.
struct StorageBox {
	StorageBox()
	{
		const std::string schedulers = "none [bfq] mq-deadline deadline kyber";
		const auto &bfq = kit::KernelReactions::Tunables("bfq");
		for (const char *name : {"sda", "sdb", "sdc"})
			machine.Disk(name, {.schedulers = schedulers, .tunables = bfq});
		for (const char *name : {"sdd", "sde", "sdf", "sdg"})
			machine.Disk(name, {.rotating = true, .schedulers = schedulers, .tunables = bfq});
		machine.Md("md0", "raid1", {"sda", "sdb"});
		machine.Md("md1", "raid5", {"sdd", "sde", "sdf"});
		machine.Btrfs(kOnSsds, {"md0"}, {.files = {{"zevo_writeback_thread_max", "32\n"}}});
		machine.Btrfs(kOnDisks, {"md1"}, {.files = {{"zevo_writeback_thread_max", "32\n"}}});
		machine.Mount("/dev/md0", "/run/volume1", "btrfs");
		machine.Mount("/dev/md1", "/run/volume2", "btrfs");
		machine.btrfsPaths = {{"/run/volume1", kOnSsds}, {"/run/volume2", kOnDisks}};
	}

	static constexpr const char *kOnSsds = "11111111-2222-3333-4444-555555555555";
	static constexpr const char *kOnDisks = "66666666-7777-8888-9999-aaaaaaaaaaaa";
	kit::Machine machine;
};

#endif
