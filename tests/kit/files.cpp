#include "kit/files.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <dirent.h>
#include <unistd.h>

namespace kit {

TempDir::TempDir()
{
	std::string name = std::filesystem::temp_directory_path() / "zevotuned-test-XXXXXX";
	if (mkdtemp(name.data()) == nullptr)
		throw std::runtime_error("no temporary folder: " + name);
	path = name;
}

TempDir::~TempDir()
{
	std::error_code ignored;
	std::filesystem::remove_all(path, ignored);
}

std::string TempDir::Path(std::string_view name) const
{
	return name.empty() ? path.string() : (path / name).string();
}

void WriteFile(const std::string &path, std::string_view text)
{
	std::filesystem::create_directories(std::filesystem::path(path).parent_path());
	std::ofstream file(path, std::ios::binary | std::ios::trunc);
	file << text;
	file.close();
	if (!file)
		throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string &path)
{
	std::ifstream file(path, std::ios::binary);
	if (!file)
		throw std::runtime_error("cannot read " + path);
	return {std::istreambuf_iterator<char>(file), {}};
}

std::set<std::string> Names(const std::string &dir)
{
	std::set<std::string> names;
	for (const auto &entry : std::filesystem::directory_iterator(dir))
		names.insert(entry.path().filename());
	return names;
}

std::set<int> OpenDescriptors()
{
	std::set<int> descriptors;
	DIR *dir = opendir("/proc/self/fd");
	if (dir == nullptr)
		throw std::runtime_error("cannot read /proc/self/fd");
	while (const dirent *entry = readdir(dir))
		if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(dir))
			descriptors.insert(std::atoi(entry->d_name));
	closedir(dir);
	return descriptors;
}

} // namespace kit
