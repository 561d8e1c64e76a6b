#include "storage/block_device.h"
#include "storage/failure.h"

#include <zevostorage/disk.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace {

bool IsDigit(char c)
{
	return c >= '0' && c <= '9';
}

bool IsLetters(std::string_view text)
{
	return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

/// The length of the disk's name in a name that the kernel does not know. Partitions of a disk whose name ends in a digit are
/// numbered behind a "p", others right behind the name. A name such as "md127" could be either; of those, only the
/// kinds of disks that are named by letters have partitions so.
size_t DiskLength(std::string_view name)
{
	size_t number = name.size();
	while (number > 0 && IsDigit(name[number - 1]))
		--number;
	if (number < 2 || number == name.size())
		return name.size();
	if (name[number - 1] == 'p' && IsDigit(name[number - 2]))
		return number - 1;
	for (const std::string_view kind : {"sd", "hd", "vd", "xvd", "dasd"}) {
		if (name.starts_with(kind) && IsLetters(name.substr(kind.size(), number - kind.size())))
			return number;
	}
	return name.size();
}

std::string DiskByName(const std::string &kernelName)
{
	return kernelName.substr(0, DiskLength(kernelName));
}

std::string DiskOf(const std::string &kernelName)
{
	if (zevos::Exists(kernelName))
		return zevos::DiskOfPartition(kernelName).value_or(kernelName);
	return DiskByName(kernelName);
}

} // namespace

int DiskPartitionNumRemove(const char *szDev, char *szOut, size_t cbOut)
{
	if (szDev == nullptr || szOut == nullptr || cbOut == 0)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		const std::string_view device(szDev);
		const bool hasDir = device.starts_with(zevos::kDevDir);
		const bool hasSlash = device.find('/', hasDir ? zevos::kDevDir.size() : 0) != std::string_view::npos;
		std::string disk = DiskOf(zevos::KernelName(device));
		if (hasSlash)
			std::replace(disk.begin(), disk.end(), '!', '/');
		snprintf(szOut, cbOut, "%s%s", hasDir ? zevos::kDevDir.data() : "", disk.c_str());
		return 0;
	});
}
