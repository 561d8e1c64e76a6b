// The device mapper of a machine: what open("/dev/mapper/control") and ioctl() on it do while one lives.

#include "kit/machine_ioctl.h"

#include "kit/faults.h"
#include "kit/real.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <optional>
#include <sstream>
#include <string_view>

#include <fcntl.h>
#include <linux/dm-ioctl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

using Tables = std::map<std::string, kit::DeviceMapper::Table>;

kit::DeviceMapper *current = nullptr;

/// /dev/null stands in for the control device; the machine's descriptors are told by it.
std::optional<int> OpenControl(const char *path, int flags)
{
	if (std::string_view(path) != "/dev/mapper/control")
		return std::nullopt;
	if (!current->exists) {
		errno = ENOENT;
		return -1;
	}
	static const auto real = kit::Real<int(const char *, int, ...)>("open");
	return real("/dev/null", flags);
}

bool IsControl(int fd)
{
	const kit::Uncounted uncounted;
	struct stat status = {};
	return fstat(fd, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

size_t Aligned(size_t size)
{
	return (size + 7) / 8 * 8;
}

/// A device is asked for by its number or by its name, and by one of them only.
Tables::const_iterator FindTable(const dm_ioctl &request)
{
	const Tables &tables = current->tables;
	if (request.uuid[0] != '\0' || (request.name[0] != '\0' && request.dev != 0))
		return tables.end();
	if (request.name[0] != '\0')
		return std::find_if(tables.begin(), tables.end(),
		                    [&](const auto &table) { return table.second.name == request.name; });
	return tables.find(std::to_string(major(request.dev)) + ":" + std::to_string(minor(request.dev)));
}

struct Target {
	dm_target_spec head = {};
	std::string parameters;
};

Target ParseTarget(const std::string &line)
{
	Target target;
	std::istringstream words(line);
	std::string type;
	words >> target.head.sector_start >> target.head.length >> type >> std::ws;
	std::getline(words, target.parameters);
	strncpy(target.head.target_type, type.c_str(), sizeof(target.head.target_type) - 1);
	return target;
}

/// As the kernel lays targets out: what does not fit is left out, and the flag says so.
void FillTable(dm_ioctl *request, const kit::DeviceMapper::Table &table)
{
	const size_t room = request->data_size;
	const size_t start = Aligned(sizeof(dm_ioctl));
	const bool wantsTable = (request->flags & DM_STATUS_TABLE_FLAG) != 0;
	char *const bytes = reinterpret_cast<char *>(request);
	size_t at = start;
	request->flags &= ~static_cast<unsigned>(DM_BUFFER_FULL_FLAG);
	request->data_start = static_cast<unsigned>(start);
	request->data_size = sizeof(dm_ioctl);
	request->target_count = static_cast<unsigned>(table.targets.size());
	for (const std::string &line : table.targets) {
		Target target = ParseTarget(line);
		const std::string text = wantsTable ? target.parameters : "";
		const size_t end = at + sizeof(dm_target_spec) + text.size() + 1;
		if (end >= room) {
			request->flags |= DM_BUFFER_FULL_FLAG;
			return;
		}
		target.head.next = static_cast<unsigned>(Aligned(end) - start);
		memcpy(bytes + at, &target.head, sizeof(target.head));
		memcpy(bytes + at + sizeof(target.head), text.c_str(), text.size() + 1);
		request->data_size = static_cast<unsigned>(end);
		at = Aligned(end);
	}
}

int TableStatus(dm_ioctl *request)
{
	++current->answers;
	if (current->before)
		current->before();
	if (current->error != 0) {
		errno = current->error;
		return -1;
	}
	if (request->version[0] != DM_VERSION_MAJOR || request->data_size < sizeof(dm_ioctl)) {
		errno = EINVAL;
		return -1;
	}
	if (current->answer) {
		current->answer(request);
		return 0;
	}
	const auto table = FindTable(*request);
	if (table == current->tables.end()) {
		errno = ENXIO;
		return -1;
	}
	FillTable(request, table->second);
	return 0;
}

} // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
	va_list values;
	va_start(values, request);
	void *const argument = va_arg(values, void *);
	va_end(values);
	static const auto real = kit::Real<int(int, unsigned long, ...)>("ioctl");
	if (kit::Strikes(kit::Calls::System, "ioctl"))
		return -1;
	if (kit::ioctlOnVolume != nullptr)
		if (const std::optional<int> result = kit::ioctlOnVolume(fd, request, argument))
			return *result;
	if (current == nullptr || _IOC_TYPE(request) != DM_IOCTL || !IsControl(fd))
		return real(fd, request, argument);
	if (request == DM_TABLE_STATUS)
		return TableStatus(static_cast<dm_ioctl *>(argument));
	errno = ENOTTY;
	return -1;
}

namespace kit {

std::optional<int> (*ioctlOnVolume)(int fd, unsigned long request, void *argument) = nullptr;

void SetDeviceMapper(DeviceMapper *deviceMapper)
{
	current = deviceMapper;
	openInMachine = deviceMapper != nullptr ? OpenControl : nullptr;
}

} // namespace kit
