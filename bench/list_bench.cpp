// Listing 10, 100 and 1,000 profiles, against reading the same files.

#include "bench.h"

#include <vunkcore/list.h>
#include <zevotuned/zevotuned.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string kDir = "/usr/local/share/zevotuned/profiles";

std::vector<std::string> paths;

std::string Text(int i)
{
	return "# A profile as they are: a comment, a section that names it, and one that sets something.\n"
	       "[main]\nname = bench_" +
	       std::to_string(i) + "\nindex = " + std::to_string(i) +
	       "\nui = true\nprofile_title_i18n = bench:title\nprofile_desc_i18n = bench:description\n"
	       "vm_memory_max = 8589934592\n\n[sysctl]\nvm.dirty_ratio = 20\nvm.dirty_background_ratio = 10\n"
	       "vm.swappiness = 10\n";
}

/// As many profiles in the folder as the measurement is for.
template <int Count>
void Have(const benchmark::State &)
{
	bench::RemoveLocalProfiles();
	paths.clear();
	for (int i = 0; i < Count; ++i) {
		paths.push_back(kDir + "/" + std::to_string(i));
		bench::WriteFile(paths.back(), Text(i));
	}
}

template <int Count>
void List()
{
	VUNKSZLIST *names = VUNKCSzListAlloc(1024);
	BENCH_REQUIRE(TuneProfileList(&names) == 0 && names->nItem >= Count);
	VUNKCSzListFree(names);
}

template <int Count>
void Read()
{
	char buffer[4096];
	for (const std::string &path : paths) {
		struct stat status;
		BENCH_REQUIRE(stat(path.c_str(), &status) == 0);
		const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
		BENCH_REQUIRE(fd >= 0 && read(fd, buffer, sizeof(buffer)) > 0);
		close(fd);
	}
}

[[maybe_unused]] const bool registered = [] {
	bench::Pair("list 10 profiles", 2.0, List<10>, Read<10>, Have<10>);
	bench::Pair("list 100 profiles", 2.0, List<100>, Read<100>, Have<100>);
	bench::Pair("list 1000 profiles", 2.0, List<1000>, Read<1000>, Have<1000>);
	return true;
}();

} // namespace
