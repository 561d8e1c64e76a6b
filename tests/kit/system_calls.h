#ifndef TESTS_KIT_SYSTEM_CALLS_H
#define TESTS_KIT_SYSTEM_CALLS_H

#include <string>
#include <vector>

namespace kit {

struct BtrfsFolder {
	std::string path;
	std::string uuid;
};

/// Folders that are Btrfs file systems to statfs(), fstatfs() and ioctl().
extern std::vector<BtrfsFolder> btrfsFolders;

} // namespace kit

#endif
