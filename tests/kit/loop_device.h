#ifndef TESTS_KIT_LOOP_DEVICE_H
#define TESTS_KIT_LOOP_DEVICE_H

#include "kit/files.h"

#include <string>
#include <vector>

namespace kit {

/// Whether this machine has loop devices. Tests that need them skip where it has none.
bool HasLoopDevices();

/// A real block device on a sparse file. The kernel takes it away when the object and every mount of it are gone, also when
/// the process is killed.
class LoopDevice {
public:
	explicit LoopDevice(long long bytes);
	~LoopDevice();
	LoopDevice(const LoopDevice &) = delete;
	LoopDevice &operator=(const LoopDevice &) = delete;

	std::string Name() const; // "loop3"
	std::string Path() const; // "/dev/loop3"

	/// The folder of its queue in the kernel's own /sys, where writing changes the device.
	std::string Queue() const;

private:
	TempDir folder;
	int number;
	int fd;
	std::string scheduler; // that was active before
};

/// Runs a program and waits for it. Returns what it printed; throws, with that, when it does not end with status 0.
std::string RunProgram(const std::vector<std::string> &words);

} // namespace kit

#endif
