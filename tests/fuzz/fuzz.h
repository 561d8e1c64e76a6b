#ifndef TESTS_FUZZ_FUZZ_H
#define TESTS_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

// Ends the fuzzer with the condition that did not hold.
#define REQUIRE(condition)                                                              \
	do {                                                                            \
		if (!(condition)) {                                                     \
			fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
			abort();                                                        \
		}                                                                       \
	} while (false)

/// A file of the fuzzer's own, in memory where the machine has /dev/shm, with the given bytes. The same path each time.
inline const std::string &FuzzFile(const uint8_t *data, size_t size)
{
	static const std::string path = [] {
		std::string dir = "/dev/shm/zevotuned-fuzz-XXXXXX";
		if (mkdtemp(dir.data()) == nullptr) {
			dir = "/tmp/zevotuned-fuzz-XXXXXX";
			REQUIRE(mkdtemp(dir.data()) != nullptr);
		}
		static const std::string folder = dir;
		atexit([] {
			for (const char *name : {"/file", "/.file.new"})
				remove((folder + name).c_str());
			remove(folder.c_str());
		});
		return dir + "/file";
	}();
	FILE *file = fopen(path.c_str(), "we");
	REQUIRE(file != nullptr);
	REQUIRE(size == 0 || fwrite(data, size, 1, file) == 1);
	REQUIRE(fclose(file) == 0);
	return path;
}

#endif
