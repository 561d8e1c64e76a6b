#ifndef PLATFORM_STORAGE_MOUNT_TABLE_H
#define PLATFORM_STORAGE_MOUNT_TABLE_H

#include <string>
#include <vector>

#include <sys/types.h>

namespace zevos {

/// One line of the process' mount table, unescaped.
struct Mount {
	int id = 0;
	int parent = 0; // id of the mount that it stands on
	dev_t device = 0;
	std::string root; // which folder of the file system is mounted
	std::string path; // where
	std::string fsName;
	std::string source;
};

/// The mounts that their paths lead to: not those that another mount hides. Throws KernelFailure.
std::vector<Mount> ReadReachableMounts();

} // namespace zevos

#endif
