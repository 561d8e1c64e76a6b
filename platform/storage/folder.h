#ifndef PLATFORM_STORAGE_FOLDER_H
#define PLATFORM_STORAGE_FOLDER_H

#include "common/descriptor.h"
#include "storage/failure.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zevos {

/// Makes a folder below one that is there, so that it is still there after a power cut. One that is there already is
/// left as it is. Throws KernelFailure.
inline void MakeFolder(const std::string &path, mode_t mode = 0755)
{
	if (mkdir(path.c_str(), mode) != 0) {
		if (errno != EEXIST)
			throw KernelFailure(VUNKC_ERR_FILE_WRITE, path);
		return;
	}
	const vunkc::Descriptor above(
		open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	if (above)
		fsync(above.Get());
}

} // namespace zevos

#endif
