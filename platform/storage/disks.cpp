#include "storage/block_device.h"
#include "storage/failure.h"
#include "storage/records.h"
#include "storage/sysfs.h"

#include <zevostorage/disk.h>

#include <string_view>

namespace {

struct DiskRecord : DISKINFO {
	DiskRecord(std::string &&name, unsigned type)
		: DISKINFO(), kernelName(std::move(name)), device(zevos::DeviceName(kernelName))
	{
		szKernelName = kernelName.c_str();
		szDevice = device.c_str();
		uType = type;
	}
	const std::string kernelName;
	const std::string device;
};

using DiskList = zevos::RecordList<DISKINFO, DiskRecord>;

/// SCSI's numbers for what is a disk: direct access, simplified direct access, host-managed zones. Not: 5, a CD.
bool IsScsiDisk(const std::string &type)
{
	return type == "0" || type == "14" || type == "20";
}

/// By the way to the disk: "../../devices/pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0/block/sda".
unsigned ScsiTransport(const std::string &way)
{
	if (way.find("/usb") != std::string::npos)
		return DISK_TYPE_EXTERNAL;
	return way.find("/ata") != std::string::npos ? DISK_TYPE_SATA : DISK_TYPE_SAS;
}

/// The type of a disk; 0 for what is none.
unsigned TypeOf(const std::string &kernelName)
{
	const std::optional<std::string> subsystem = zevos::ReadLink(zevos::BlockPath(kernelName, "/device/subsystem"));
	if (!subsystem) // made of memory, of files or of other devices
		return 0;
	const std::string bus = zevos::LastComponent(*subsystem);
	const auto type = zevos::ReadAttribute(zevos::BlockPath(kernelName, "/device/type"));
	if (bus == "scsi") {
		const auto way = zevos::ReadLink(zevos::BlockPath(kernelName));
		return type && way && IsScsiDisk(*type) ? ScsiTransport(*way) : 0;
	}
	if (bus == "nvme" || bus == "nvme-subsystem")
		return DISK_TYPE_NVME;
	if (bus == "virtio" || bus == "xen")
		return DISK_TYPE_VIRTUAL;
	if (bus == "mmc")
		return type == "MMC" ? DISK_TYPE_EMMC : DISK_TYPE_EXTERNAL;
	return 0;
}

/// Not there for file systems: a path of an NVMe disk that has several, or a drive without a medium.
bool IsUsable(const std::string &kernelName)
{
	const std::optional<std::string> size = zevos::ReadAttribute(zevos::BlockPath(kernelName, "/size"));
	return size && *size != "0" && zevos::ReadAttribute(zevos::BlockPath(kernelName, "/hidden")) != "1";
}

} // namespace

int DiskInfoEnum(const DISKFILTER *pFilter, DISKINFO **ppList)
{
	if (pFilter == nullptr || ppList == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		DiskList list;
		for (std::string &name : zevos::BlockDevices()) {
			const unsigned type = TypeOf(name);
			if ((type & pFilter->uTypeMask) != 0 && IsUsable(name))
				list.Append(std::make_unique<DiskRecord>(std::move(name), type));
		}
		const int count = list.Count();
		*ppList = list.Release();
		return count;
	});
}

void DiskInfoEnumFree(DISKINFO *pList)
{
	DiskList::Free(pList);
}

int ZEVODiskIsSSD(const char *szDisk)
{
	if (szDisk == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		const std::string device = zevos::KernelName(szDisk);
		const std::string path =
			zevos::BlockPath(zevos::DiskOfPartition(device).value_or(device), "/queue/rotational");
		const std::optional<std::string> rotational = zevos::ReadAttribute(path);
		if (!rotational)
			return vunkc::FailAt(-1, ZEVO_ERR_NO_DEVICE, szDisk, 0);
		if (*rotational != "0" && *rotational != "1")
			return vunkc::FailAt(-1, ZEVO_ERR_BAD_ANSWER, path.c_str(), 0);
		return *rotational == "0" ? 1 : 0;
	});
}
