#include "common/pairs.h"
#include "storage/failure.h"
#include "storage/folder.h"

#include <zevostorage/flash_cache.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include <unistd.h>

namespace {

constexpr size_t kMaxName = 200;

bool HasReference(const ZEVOSPACEBUILD *build)
{
	return build != nullptr && *build->szReference != '\0' &&
	       strnlen(build->szReference, sizeof(build->szReference)) < sizeof(build->szReference);
}

std::string FileOf(const ZEVOSPACEBUILD &build)
{
	std::string name = std::string(build.szReference).substr(0, kMaxName);
	std::replace(name.begin(), name.end(), '/', '!');
	if (name.front() == '.') // names of folders, and of files that are being written
		name.front() = '!';
	return ZEVO_SPACE_BUILD_DIR "/" + name;
}

void MakeFolders()
{
	const std::string dir = ZEVO_SPACE_BUILD_DIR;
	zevos::MakeFolder(dir.substr(0, dir.rfind('/')));
	zevos::MakeFolder(dir);
}

} // namespace

int ZEVOSpaceBuildFileSet(const ZEVOSPACEBUILD *pBuild)
{
	if (!HasReference(pBuild))
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		vunkc::Pairs pairs;
		const auto set = [&](const char *key, int number) {
			return pairs.Set(key, std::to_string(number).c_str());
		};
		MakeFolders();
		const bool isWritten = set("pid", pBuild->iPid) && set("kind", pBuild->iKind) &&
		                       set("stage", pBuild->iStage) && set("reason", pBuild->iReason) &&
		                       pairs.Write(FileOf(*pBuild).c_str());
		return isWritten ? 0 : -1;
	});
}

int ZEVOSpaceBuildFileRemove(const ZEVOSPACEBUILD *pBuild)
{
	if (!HasReference(pBuild))
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		const std::string file = FileOf(*pBuild);
		if (unlink(file.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR)
			return vunkc::FailAt(-1, VUNKC_ERR_FILE_WRITE, file.c_str(), 0);
		return 0;
	});
}
