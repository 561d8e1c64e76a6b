#include "storage/device_mapper.h"

#include "common/descriptor.h"
#include "storage/block_device.h"
#include "storage/failure.h"
#include "storage/sysfs.h"

#include <cerrno>
#include <charconv>
#include <new>
#include <optional>

#include <fcntl.h>
#include <linux/dm-ioctl.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

namespace zevos {

namespace {

constexpr char kControl[] = "/dev/mapper/control";
constexpr size_t kFirstSize = 16 << 10;
constexpr size_t kMaxSize = 64 << 20; // some hundred thousand targets

dm_ioctl *Header(std::string &answer)
{
	return reinterpret_cast<dm_ioctl *>(answer.data());
}

/// A device's number out of "253:0".
std::optional<dev_t> ParseNumber(const std::string &text)
{
	unsigned major = 0;
	unsigned minor = 0;
	const char *const end = text.data() + text.size();
	const auto [colon, majorError] = std::from_chars(text.data(), end, major);
	if (majorError != std::errc() || colon == end || *colon != ':' ||
	    std::from_chars(colon + 1, end, minor).ec != std::errc())
		return std::nullopt;
	return makedev(major, minor);
}

/// Asks for a device's table with room for `size` bytes; nothing when the device is gone.
std::optional<std::string> AskForTable(int control, dev_t device, size_t size)
{
	std::string answer(size, '\0');
	dm_ioctl *const header = Header(answer);
	// The oldest interface that has all of this; the kernel takes any minor version up to its own.
	header->version[0] = DM_VERSION_MAJOR;
	header->data_size = static_cast<unsigned>(size);
	header->data_start = sizeof(dm_ioctl);
	header->dev = device;
	header->flags = DM_STATUS_TABLE_FLAG | DM_NOFLUSH_FLAG;
	int result;
	do
		result = ioctl(control, DM_TABLE_STATUS, header);
	while (result < 0 && errno == EINTR);
	if (result == 0)
		return answer;
	if (errno == ENXIO)
		return std::nullopt;
	if (errno == ENOMEM)
		throw std::bad_alloc();
	throw KernelFailure(VUNKC_ERR_FILE_READ, kControl);
}

std::optional<std::string> ReadTable(dev_t device)
{
	const vunkc::Descriptor control(open(kControl, O_RDWR | O_CLOEXEC));
	if (!control)
		throw KernelFailure(VUNKC_ERR_FILE_OPEN, kControl);
	for (size_t size = kFirstSize; size <= kMaxSize; size *= 4) {
		std::optional<std::string> answer = AskForTable(control.Get(), device, size);
		if (!answer || (Header(*answer)->flags & DM_BUFFER_FULL_FLAG) == 0)
			return answer;
	}
	throw KernelFailure(ZEVO_ERR_BAD_ANSWER, kControl);
}

} // namespace

std::optional<std::vector<CacheTarget>> CacheTargetsOf(const std::string &kernelName)
{
	const std::optional<std::string> number = ReadAttribute(BlockPath(kernelName, "/dev"));
	if (!number)
		return std::nullopt;
	const std::optional<dev_t> device = ParseNumber(*number);
	if (!device)
		throw KernelFailure(ZEVO_ERR_BAD_ANSWER, BlockPath(kernelName, "/dev"));
	const std::optional<std::string> answer = ReadTable(*device);
	if (!answer)
		return std::nullopt;
	std::optional<std::vector<CacheTarget>> caches = CacheTargetsInTable(*answer);
	if (!caches)
		throw KernelFailure(ZEVO_ERR_BAD_ANSWER, kControl);
	return caches;
}

} // namespace zevos
