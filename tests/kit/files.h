#ifndef TESTS_KIT_FILES_H
#define TESTS_KIT_FILES_H

#include <filesystem>
#include <set>
#include <string>
#include <string_view>

namespace kit {

/// A folder of the test's own, removed with everything in it.
class TempDir {
public:
	TempDir();
	~TempDir();
	TempDir(const TempDir &) = delete;
	TempDir &operator=(const TempDir &) = delete;

	std::string Path(std::string_view name = {}) const;

private:
	std::filesystem::path path;
};

/// Writes a file and the folders above it; throws when that fails.
void WriteFile(const std::string &path, std::string_view text);

/// The whole text of a file; throws when it cannot be read.
std::string ReadFile(const std::string &path);

/// The names in a folder, dot files included.
std::set<std::string> Names(const std::string &dir);

/// The numbers of this process's open descriptors.
std::set<int> OpenDescriptors();

} // namespace kit

#endif
