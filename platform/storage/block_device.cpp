#include "storage/block_device.h"

#include "storage/device_mapper.h"
#include "storage/failure.h"
#include "storage/sysfs.h"

#include <algorithm>
#include <unordered_set>

namespace zevos {

namespace {

Names Slaves(const std::string &kernelName)
{
	return ReadNames(BlockPath(kernelName, "/slaves")).value_or(Names());
}

/// A bcache device in front of a backing device links to what that one's folder holds of bcache. One that lies in
/// the cache alone has such a folder of its own, and is made of the cache.
std::optional<std::string> BackingDevice(const std::string &bcacheDevice)
{
	const std::optional<std::string> link = ReadLink(BlockPath(bcacheDevice, "/bcache"));
	if (!link)
		return std::nullopt;
	return LastComponent(link->substr(0, link->rfind('/')));
}

/// The devices that a device is directly made of: none for a disk, nothing for one that is gone.
std::optional<Names> Components(const std::string &kernelName)
{
	if (const std::optional<std::string> disk = DiskOfPartition(kernelName))
		return Names{*disk};
	if (const std::optional<std::string> backing = BackingDevice(kernelName))
		return Names{*backing};
	Names slaves = Slaves(kernelName);
	if (slaves.empty() && !Exists(kernelName))
		return std::nullopt;
	if (slaves.size() < 2 || !ReadAttribute(BlockPath(kernelName, "/dm/name")))
		return slaves;
	const std::optional<Names> caches = CacheDevicesOf(kernelName);
	if (!caches)
		return std::nullopt;
	std::erase_if(slaves, [&](const std::string &slave) {
		const std::optional<std::string> number = ReadAttribute(BlockPath(slave, "/dev"));
		return number && std::find(caches->begin(), caches->end(), *number) != caches->end();
	});
	return slaves;
}

} // namespace

std::string BlockPath(const std::string &kernelName, std::string_view inside)
{
	return ("/sys/class/block/" + kernelName).append(inside);
}

std::string DeviceName(const std::string &kernelName)
{
	std::string name = kernelName;
	std::replace(name.begin(), name.end(), '!', '/');
	return name.insert(0, kDevDir);
}

std::string KernelName(std::string_view deviceName)
{
	if (deviceName.starts_with(kDevDir))
		deviceName.remove_prefix(kDevDir.size());
	std::string name(deviceName);
	std::replace(name.begin(), name.end(), '/', '!');
	return name;
}

Names BlockDevices()
{
	const std::string dir = "/sys/block";
	const std::optional<Names> names = ReadNames(dir);
	if (!names) // not even an empty folder: this is no sysfs
		throw KernelFailure(VUNKC_ERR_FILE_OPEN, dir);
	return *names;
}

bool Exists(const std::string &kernelName)
{
	return !kernelName.empty() && !kernelName.starts_with('.') && ReadLink(BlockPath(kernelName)).has_value();
}

std::optional<std::string> DiskOfPartition(const std::string &kernelName)
{
	if (!ReadAttribute(BlockPath(kernelName, "/partition")))
		return std::nullopt;
	// "../../devices/.../block/sda/sda5"
	const std::optional<std::string> link = ReadLink(BlockPath(kernelName));
	if (!link)
		return std::nullopt;
	return LastComponent(link->substr(0, link->rfind('/')));
}

Names DisksBelow(const Names &kernelNames)
{
	Names disks;
	std::unordered_set<std::string> seen;
	Names open(kernelNames.rbegin(), kernelNames.rend()); // a stack: what a device is made of comes in its place
	while (!open.empty()) {
		const std::string device = std::move(open.back());
		open.pop_back();
		if (!seen.insert(device).second)
			continue;
		const std::optional<Names> components = Components(device);
		if (!components)
			continue;
		if (components->empty())
			disks.push_back(device);
		open.insert(open.end(), components->rbegin(), components->rend());
	}
	return disks;
}

} // namespace zevos
