// What the mapping file costs for one more chunk, which is three changes of it: the chunk's section is added, the most bytes
// used are written, the chunk is marked as done. Against the floor of one change that is on disk when it returns, and of
// three.

#include "bench.h"

#include "btrfs_metadata_cache/chunk_records.h"
#include "btrfs_metadata_cache/mapping.h"

#include <vunkcore/hash.h>
#include <vunkcore/section_file.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr unsigned long long kChunkBytes = 256ULL << 20;

/// On the disk that the program lies on: the lab's own folders are in memory, where syncing costs nothing.
const std::string &Folder()
{
	static const std::string folder = fs::read_symlink("/proc/self/exe").parent_path() / "mapping_bench.files";
	return folder;
}

std::string Mapping()
{
	return Folder() + "/mapping";
}

/// The file's chunks have the numbers from 1 up; the next one is added.
unsigned long long next;
std::string text;

template <unsigned long long Sections>
void WithSections(const benchmark::State &)
{
	std::string sections = "[config]\nstatus=\"1\"\nmax_used_size=\"0\"\n";
	for (next = 1; next <= Sections; ++next) {
		const std::string offset = std::to_string(next * kChunkBytes);
		sections += "[" + offset +
		            "]\nstatus=\"1\"\nsize=\"268435456\"\nstripe_count=\"2\"\nstripe_offset_0=\"" + offset +
		            "\"\nstripe_offset_1=\"" + offset + "\"\n";
	}
	bench::WriteFile(Mapping(), sections);
	text = sections;
	sync();
}

void Set(VUNKSZHASH *&hash, const char *szKey, unsigned long long ullValue)
{
	BENCH_REQUIRE(VUNKCSzHashSetValue(&hash, szKey, std::to_string(ullValue).c_str()) == 0);
}

/// As the engine does it, without pinning and reading.
void RecordChunk()
{
	const std::string path = Mapping();
	const unsigned long long offset = next++ * kChunkBytes;
	const chunk_info chunk = {offset, kChunkBytes, 2, {offset, offset}, 0};
	VUNKSZHASH *section = VUNKCSzHashAlloc(1024);
	Set(section, "status", 0);
	Set(section, "size", chunk.size);
	Set(section, "stripe_count", chunk.stripe_count);
	Set(section, "stripe_offset_0", chunk.stripe_offset[0]);
	Set(section, "stripe_offset_1", chunk.stripe_offset[1]);
	BENCH_REQUIRE(VUNKCFileAddSection(path.c_str(), std::to_string(offset).c_str(), section) == 1);
	VUNKCSzHashFree(section);
	const std::string used = std::to_string(offset * 2);
	BENCH_REQUIRE(BtrfsMetadataCacheSetValueByKey(path.c_str(), "max_used_size", used.c_str()) == 0);
	BENCH_REQUIRE(PinBtrfsMetadataSectionUpdateChunkDone(path.c_str(), &chunk) == 0);
}

void Replace()
{
	const std::string path = Mapping();
	const std::string temp = path + ".new";
	const int file = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
	BENCH_REQUIRE(file >= 0);
	BENCH_REQUIRE(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
	BENCH_REQUIRE(fsync(file) == 0);
	BENCH_REQUIRE(rename(temp.c_str(), path.c_str()) == 0);
	const int folder = open(Folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	BENCH_REQUIRE(fsync(folder) == 0);
	close(folder);
	close(file);
}

void ReplaceThrice()
{
	for (int i = 0; i < 3; ++i)
		Replace();
}

[[maybe_unused]] const bool registered = [] {
	bench::Pair("one more chunk of 100", 3.0, RecordChunk, Replace, WithSections<100>);
	bench::Pair("one more chunk of 4000", 3.0, RecordChunk, Replace, WithSections<4000>);
	bench::Pair("one more chunk of 100, to three changes", bench::kNoGoal, RecordChunk, ReplaceThrice,
	            WithSections<100>);
	bench::Pair("one more chunk of 4000, to three changes", bench::kNoGoal, RecordChunk, ReplaceThrice,
	            WithSections<4000>);
	return true;
}();

} // namespace
