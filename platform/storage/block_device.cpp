#include "storage/block_device.h"

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

bool IsOnlyForCaching(const std::string &number, const std::vector<CacheTarget> &targets)
{
	return std::any_of(targets.begin(), targets.end(), [&](const CacheTarget &target) {
		return number == target.cache || number == target.metadata;
	});
}

/// What a device is directly made of; nothing for one that is gone.
std::optional<Layer> ReadLayer(const std::string &kernelName)
{
	Layer layer = {.device = kernelName};
	if (const std::optional<std::string> disk = DiskOfPartition(kernelName)) {
		layer.components = {*disk};
		return layer;
	}
	if (std::optional<std::string> backing = BackingDevice(kernelName)) {
		layer.components = {*backing};
		layer.backing = std::move(*backing);
		return layer;
	}
	layer.components = Slaves(kernelName);
	if (layer.components.empty() && !Exists(kernelName))
		return std::nullopt;
	if (layer.components.size() < 2 || !ReadAttribute(BlockPath(kernelName, "/dm/name")))
		return layer;
	std::optional<std::vector<CacheTarget>> targets = CacheTargetsOf(kernelName);
	if (!targets)
		return std::nullopt;
	layer.caches = std::move(*targets);
	std::erase_if(layer.components, [&](const std::string &slave) {
		const std::optional<std::string> number = ReadAttribute(BlockPath(slave, "/dev"));
		return number && IsOnlyForCaching(*number, layer.caches);
	});
	return layer;
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

void Descend(const Names &kernelNames, const std::function<bool(const Layer &)> &visit)
{
	std::unordered_set<std::string> seen;
	Names open(kernelNames.rbegin(), kernelNames.rend()); // a stack: what a device is made of comes in its place
	while (!open.empty()) {
		const std::string device = std::move(open.back());
		open.pop_back();
		if (!seen.insert(device).second)
			continue;
		const std::optional<Layer> layer = ReadLayer(device);
		if (!layer)
			continue;
		if (!visit(*layer))
			return;
		open.insert(open.end(), layer->components.rbegin(), layer->components.rend());
	}
}

Names DisksBelow(const Names &kernelNames)
{
	Names disks;
	Descend(kernelNames, [&](const Layer &layer) {
		if (layer.components.empty())
			disks.push_back(layer.device);
		return true;
	});
	return disks;
}

} // namespace zevos
