#ifndef TESTS_KIT_KERNEL_REACTIONS_H
#define TESTS_KIT_KERNEL_REACTIONS_H

// The lab's /proc/sys and a machine's /sys are plain files: what is written to one of them changes no other. Here they react
// as the kernel's do.

#include "kit/faults.h"
#include "kit/timeline.h"

#include <map>
#include <string>
#include <vector>

namespace kit {

/// While the object lives,
///  - an attribute that is written holds that value and nothing else, but for a tunable that is shown in milliseconds and in
///    microseconds;
///  - a scheduler that is written is the active one, and its disk has this scheduler's tunables, with their defaults;
///  - of vm.dirty_ratio and vm.dirty_bytes, and of the two for the background, the one that is not written becomes 0.
/// Programs are run. Objects do not nest, nor with Timeline or Programs.
class KernelReactions {
public:
	KernelReactions();

	/// The writes so far: "/sbin/sysctl -we vm.swappiness=10", "/sys/block/sda/queue/scheduler: none".
	const std::vector<std::string> &Lines() const { return timeline.lines; }
	void Clear() { timeline.lines.clear(); }

	/// A scheduler's tunables with their defaults, as Linux 6.1 has them.
	static const std::map<std::string, std::string> &Tunables(const std::string &scheduler);

private:
	void Before(const std::string &line);
	void After(const std::string &line);

	Programs programs{true};
	Timeline timeline;
	std::string schedulers; // that the disk offers whose scheduler is being written
};

} // namespace kit

#endif
