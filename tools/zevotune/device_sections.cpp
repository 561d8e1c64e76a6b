#include "device_sections.h"

#include <zevostorage/disk.h>
#include <zevostorage/raid.h>

#include <algorithm>

namespace {

using Sections = std::vector<std::string>;

constexpr struct {
	const char *name;
	unsigned levels;
} kRaidSections[] = {
	{"raid_cfq_1", RAID_LEVELS_WITHOUT_PARITY},
	{"raid_cfq_5", RAID_LEVELS_WITH_PARITY},
	{"raid_cfq_default", RAID_LEVELS_WITHOUT_PARITY | RAID_LEVELS_WITH_PARITY},
};

bool HasDisk(const std::vector<VolumeDisk> &disks, std::optional<bool> ssd)
{
	return std::any_of(disks.begin(), disks.end(), [ssd](const VolumeDisk &disk) { return disk.ssd == ssd; });
}

} // namespace

bool IsOfDiskSection(unsigned type)
{
	constexpr unsigned kTypes =
		DISK_TYPE_SATA | DISK_TYPE_SAS | DISK_TYPE_NVME | DISK_TYPE_VIRTUAL | DISK_TYPE_EMMC;
	return (type & kTypes) != 0;
}

std::optional<bool> SsdOnly(const Volume &volume)
{
	if (!volume.disks)
		return std::nullopt;
	if (HasDisk(*volume.disks, false))
		return false; // whatever the unknown ones are
	if (HasDisk(*volume.disks, std::nullopt))
		return std::nullopt;
	return true;
}

Sections SectionsOf(const Volume &volume)
{
	return volume.btrfs && SsdOnly(volume) == true ? Sections{"volume"} : Sections{};
}

Sections SectionsOf(const Array &array)
{
	Sections sections;
	if (array.diskCount > 1)
		for (const auto &section : kRaidSections)
			if ((array.levelFlag & section.levels) != 0)
				sections.emplace_back(section.name);
	return sections;
}

Sections SectionsOf(const Disk &disk)
{
	const bool concerned = IsOfDiskSection(disk.type) && disk.ssd == true && !disk.queue.schedulers.empty();
	return concerned ? Sections{"disk"} : Sections{};
}
