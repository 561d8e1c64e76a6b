#include "storage/devices.h"

#include "common/error_kept.h"
#include "storage/block_device.h"
#include "storage/sysfs.h"

#include <zevostorage/file_system.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace zevos {

namespace {

constexpr char kMapperDir[] = "/dev/mapper/";
constexpr char kBtrfsDir[] = "/sys/fs/btrfs/";

std::optional<std::string> ByNumber(dev_t device)
{
	const std::string number = std::to_string(major(device)) + ':' + std::to_string(minor(device));
	const std::optional<std::string> link = ReadLink("/sys/dev/block/" + number);
	if (!link)
		return std::nullopt;
	return LastComponent(*link);
}

bool StandsForItself(char c)
{
	return static_cast<unsigned char>(c) >= 0x80 || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
	       (c >= 'a' && c <= 'z') || std::string_view("#+-.:=@_").find(c) != std::string_view::npos;
}

/// The node's name of a device-mapper device, in which udev and libdevmapper write other characters in hexadecimal.
std::string NodeName(const std::string &mapperName)
{
	std::string node;
	for (const char c : mapperName) {
		char escape[] = "\\x00";
		snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(c));
		node.append(StandsForItself(c) ? std::string(1, c) : escape);
	}
	return node;
}

} // namespace

std::optional<VolumeDevices> DeviceFinder::DevicesOf(const Volume &volume)
{
	if (IsBtrfs(volume))
		return DevicesOfBtrfs(volume);
	std::optional<std::string> device = ByNumber(volume.device);
	if (!device)
		return std::nullopt;
	return VolumeDevices{"", std::move(*device)};
}

std::optional<VolumeDevices> DeviceFinder::DevicesOfBtrfs(const Volume &volume)
{
	std::optional<std::string> uuid = UuidOf(volume);
	if (!uuid)
		return std::nullopt;
	const Names devices = BtrfsDevices(*uuid);
	if (devices.empty())
		return std::nullopt;
	const std::optional<std::string> mounted = ByName(volume.source);
	const bool isOne = mounted && std::find(devices.begin(), devices.end(), *mounted) != devices.end();
	return VolumeDevices{std::move(*uuid), isOne ? *mounted : devices.front()};
}

/// The file system itself is asked: its source is a name under which the kernel once found one of its devices, and may have
/// become that of another device. Only where its path cannot be opened, without root or in another root, does the name count; what needs the answer to write
/// cannot open the path there either.
std::optional<std::string> DeviceFinder::UuidOf(const Volume &volume)
{
	const vunkc::ErrorKept kept;
	char uuid[ZEVO_UUID_SIZE];
	errno = 0;
	if (ZEVOFSGetBTRFSUuid(volume.path.c_str(), uuid, sizeof(uuid)) == 0)
		return uuid;
	if (VUNKCErrGet() != VUNKC_ERR_FILE_MISSING && errno != EACCES)
		return std::nullopt;
	const std::optional<std::string> device = ByName(volume.source);
	if (!device)
		return std::nullopt;
	if (!btrfsDevices) {
		btrfsDevices.emplace();
		for (const std::string &fileSystem : ReadNames(kBtrfsDir).value_or(Names()))
			for (const std::string &member : BtrfsDevices(fileSystem))
				btrfsDevices->emplace(member, fileSystem);
	}
	const auto found = btrfsDevices->find(*device);
	if (found == btrfsDevices->end())
		return std::nullopt;
	return found->second;
}

std::optional<std::string> DeviceFinder::ByName(const std::string &source)
{
	if (source.starts_with(kMapperDir)) {
		if (!mappedDevices) {
			mappedDevices.emplace();
			for (const std::string &device : BlockDevices())
				if (std::optional<std::string> path = MapperPath(device))
					mappedDevices->emplace(std::move(*path), device);
		}
		const auto found = mappedDevices->find(source);
		if (found != mappedDevices->end())
			return found->second;
	}
	std::string kernelName = KernelName(source);
	if (source.starts_with(kDevDir) && Exists(kernelName))
		return kernelName;
	// A link of udev's, or a node that somebody made under a name of his own.
	struct stat status;
	if (stat(source.c_str(), &status) == 0 && S_ISBLK(status.st_mode))
		return ByNumber(status.st_rdev);
	return std::nullopt;
}

std::optional<std::string> MapperPath(const std::string &kernelName)
{
	const std::optional<std::string> name = ReadAttribute(BlockPath(kernelName, "/dm/name"));
	if (!name)
		return std::nullopt;
	return kMapperDir + NodeName(*name);
}

Names DevicesOfSpace(const ZEVOSPACEINFO &space)
{
	if (*space.szUuid != '\0')
		return BtrfsDevices(space.szUuid);
	return {KernelName(space.szDevice)};
}

Names BtrfsDevices(const std::string &uuid)
{
	Names devices = ReadNames(kBtrfsDir + uuid + "/devices").value_or(Names());
	std::erase_if(devices, [](const std::string &device) { return !Exists(device); });
	return devices;
}

} // namespace zevos
