#include "storage/sysfs.h"

#include "common/descriptor.h"
#include "storage/failure.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace zevos {

namespace {

constexpr size_t kLineSize = 4096; // no attribute and no link of sysfs is longer

struct CloseDirectory {
	void operator()(DIR *dir) const { closedir(dir); }
};

/// Whether an error says that a device, or its attribute, is not there.
bool IsGone(int error)
{
	return error == ENOENT || error == ENOTDIR || error == ENODEV || error == ENXIO || error == ENAMETOOLONG;
}

/// The result for a failure with errno, unless it is to be thrown.
std::nullopt_t Missing(int code, const std::string &path)
{
	if (errno == ENOMEM)
		throw std::bad_alloc();
	if (!IsGone(errno))
		throw KernelFailure(code, path);
	return std::nullopt;
}

} // namespace

std::optional<std::string> ReadAttribute(const std::string &path)
{
	const vunkc::Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	if (!fd)
		return Missing(VUNKC_ERR_FILE_OPEN, path);
	char text[kLineSize];
	ssize_t length;
	do
		length = read(fd.Get(), text, sizeof(text));
	while (length < 0 && errno == EINTR);
	// What a device-mapper device and an md array answer while they are taken away.
	if (length < 0 && (errno == EINVAL || errno == EBUSY))
		return std::nullopt;
	if (length < 0)
		return Missing(VUNKC_ERR_FILE_READ, path);
	return std::string(text, std::find(text, text + length, '\n'));
}

std::optional<std::string> ReadLink(const std::string &path)
{
	char target[kLineSize];
	const ssize_t length = readlink(path.c_str(), target, sizeof(target));
	if (length < 0 && errno == EINVAL) // not a link
		return std::nullopt;
	if (length < 0)
		return Missing(VUNKC_ERR_FILE_READ, path);
	return std::string(target, static_cast<size_t>(length));
}

std::optional<Names> ReadNames(const std::string &path)
{
	const std::unique_ptr<DIR, CloseDirectory> dir(opendir(path.c_str()));
	if (dir == nullptr)
		return Missing(VUNKC_ERR_FILE_OPEN, path);
	Names names;
	for (;;) {
		errno = 0; // readdir() tells its end from a failure by nothing else
		const dirent *const entry = readdir(dir.get());
		if (entry == nullptr)
			break;
		if (entry->d_name[0] != '.')
			names.emplace_back(entry->d_name);
	}
	if (errno != 0)
		return Missing(VUNKC_ERR_FILE_READ, path);
	std::sort(names.begin(), names.end());
	return names;
}

std::string LastComponent(const std::string &path)
{
	return path.substr(path.rfind('/') + 1);
}

} // namespace zevos
