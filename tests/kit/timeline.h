#ifndef TESTS_KIT_TIMELINE_H
#define TESTS_KIT_TIMELINE_H

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kit {

/// While the object lives, what the kit's stand-ins are asked to do is written down in one order: calls of the storage library, runs of
/// the pin tool, what device_reads.h writes down, changes of section files, removed files, writes to the kernel. Objects do not nest.
///
///   --set-bitmap --mount-path /volume1 --start-sector 128 --num-sectors 8
///   ZEVOVolumeConfGet /volume1
///   VUNKCFileAddSection 1048576               (also VUNKCIFileModifySection, VUNKCFileRemoveSection)
///   /sys/fs/btrfs/1/metadata_cache_enable: 1  (VUNKCWrite)
///   unlink /run/x.pid
///   /sbin/sysctl -we vm.swappiness=10         (VUNKCExec, while Programs lives)
class Timeline {
public:
	Timeline()
	{
		if (current != nullptr)
			throw std::logic_error("one at a time");
		current = this;
	}
	~Timeline() { current = nullptr; }
	Timeline(const Timeline &) = delete;
	Timeline &operator=(const Timeline &) = delete;

	static bool IsWatching() { return current != nullptr; }
	static void Note(const std::string &line)
	{
		if (current == nullptr)
			return;
		current->lines.push_back(line);
		if (current->before)
			current->before(line);
	}

	/// What a stand-in calls when a write to the kernel, or a program, has been made.
	static void Done(const std::string &line)
	{
		if (current != nullptr && current->after)
			current->after(line);
	}

	std::vector<std::string> lines;
	/// Runs before each of them is done.
	std::function<void(const std::string &line)> before;
	/// Runs after each write to the kernel and each program.
	std::function<void(const std::string &line)> after;

private:
	inline static Timeline *current = nullptr;
};

} // namespace kit

#endif
