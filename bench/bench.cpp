#include "bench.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace bench {

void WriteFile(const std::string &path, std::string_view text)
{
	std::filesystem::create_directories(std::filesystem::path(path).parent_path());
	std::ofstream(path) << text;
}

void RemoveLocalProfiles()
{
	std::filesystem::remove_all("/usr/local/share/zevotuned/profiles");
}

void Require(bool condition, const char *what)
{
	if (condition)
		return;
	fprintf(stderr, "bench: %s does not hold\n", what);
	exit(1);
}

} // namespace bench
