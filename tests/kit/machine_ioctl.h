#ifndef TESTS_KIT_MACHINE_IOCTL_H
#define TESTS_KIT_MACHINE_IOCTL_H

#include "kit/machine.h"

#include <optional>

namespace kit {

/// Answers ioctl() on /dev/mapper/control from now on; null: the kernel does.
void SetDeviceMapper(DeviceMapper *deviceMapper);

/// What ioctl() asks first, unless it is null. It answers with 0, with -1 and errno, or with nothing for a request that is not
/// its own.
extern std::optional<int> (*ioctlOnVolume)(int fd, unsigned long request, void *argument);

} // namespace kit

#endif
