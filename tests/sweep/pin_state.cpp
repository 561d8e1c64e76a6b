#include "sweep/pin_state.h"

#include <vunkcore/hash.h>
#include <vunkcore/list.h>
#include <vunkcore/section_file.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

void Insert(Blocks &blocks, uint64_t first, uint64_t count)
{
	for (uint64_t block = first; block < first + count; ++block)
		blocks.insert(block);
}

/// A value of a section, empty when it is not there.
std::string Value(const std::string &mapping, const std::string &section, const std::string &key)
{
	VUNKSZHASH *pairs = VUNKCSzHashAlloc(1024);
	std::string text;
	if (VUNKCFileGetSection(mapping.c_str(), section.c_str(), &pairs) >= 0)
		if (const char *const value = VUNKCSzHashGetValue(pairs, key.c_str()))
			text = value;
	VUNKCSzHashFree(pairs);
	return text;
}

} // namespace

Blocks PinnedBlocks(const kit::PinTool &tool)
{
	Blocks blocks;
	std::istringstream ranges(tool.Pinned());
	uint64_t first;
	uint64_t count;
	for (char plus; ranges >> first >> plus >> count;)
		Insert(blocks, first, count);
	return blocks;
}

Blocks RecordedBlocks(const std::string &mapping)
{
	Blocks blocks;
	VUNKSZLIST *sections = VUNKCSzListAlloc(1024);
	if (VUNKCFileEnumSection(mapping.c_str(), &sections) >= 0)
		for (int i = 0; i < sections->nItem; ++i) {
			const std::string section = VUNKCSzListGet(sections, i);
			const std::string size = Value(mapping, section, "size");
			for (const char *const key : {"stripe_offset_0", "stripe_offset_1"})
				if (const std::string offset = Value(mapping, section, key); !offset.empty())
					Insert(blocks, std::stoull(offset) / kit::PinVolume::kBlock,
					       std::stoull(size) / kit::PinVolume::kBlock);
		}
	VUNKCSzListFree(sections);
	return blocks;
}

Blocks Without(const Blocks &blocks, const Blocks &others)
{
	Blocks rest;
	std::set_difference(blocks.begin(), blocks.end(), others.begin(), others.end(),
	                    std::inserter(rest, rest.end()));
	return rest;
}

std::string StatusOf(const std::string &mapping, const std::string &section)
{
	return Value(mapping, section, "status");
}

bool IsUnlocked(const std::string &path)
{
	const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return errno == ENOENT;
	const bool isUnlocked = flock(fd, LOCK_EX | LOCK_NB) == 0;
	close(fd);
	return isUnlocked;
}

long CallsOf(const kit::FakeStorage &storage, const std::string &function)
{
	return std::count_if(storage.calls.begin(), storage.calls.end(), [&](const std::string &call) {
		return call == function || call.starts_with(function + ' ');
	});
}
