// Reading, changing and removing the sections of a file of any bytes: what is not touched stays as it is.

#include "fuzz.h"

#include <vunkcore/vunkcore.h>

#include <map>
#include <memory>
#include <set>
#include <vector>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Hash = std::unique_ptr<VUNKSZHASH, decltype(&VUNKCSzHashFree)>;

bool Names(const std::string &path, std::vector<std::string> &names)
{
	VUNKSZLIST *list = VUNKCSzListAlloc(64);
	const int count = VUNKCFileEnumSection(path.c_str(), &list);
	REQUIRE(count == -1 || count == list->nItem);
	for (int i = 0; i < list->nItem; ++i)
		names.emplace_back(VUNKCSzListGet(list, i));
	VUNKCSzListFree(list);
	return count >= 0;
}

Hash Section(const std::string &path, const std::string &name, int expected)
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(64);
	const int count = VUNKCFileGetSection(path.c_str(), name.c_str(), &hash);
	REQUIRE(expected < 0 ? count == -1 : count >= 0);
	return Hash(hash, &VUNKCSzHashFree);
}

Pairs Content(const VUNKSZHASH *hash)
{
	VUNKSZLIST *keys = VUNKCSzListAlloc(64);
	REQUIRE(VUNKCSzHashEnumKey(hash, &keys) >= 0);
	Pairs pairs;
	for (int i = 0; i < keys->nItem; ++i)
		pairs.emplace_back(VUNKCSzListGet(keys, i), VUNKCSzHashGetValue(hash, VUNKCSzListGet(keys, i)));
	VUNKCSzListFree(keys);
	return pairs;
}

std::map<std::string, Pairs> All(const std::string &path)
{
	std::vector<std::string> names;
	REQUIRE(Names(path, names));
	std::map<std::string, Pairs> all;
	for (const std::string &name : names)
		all[name] = Content(Section(path, name, 0).get());
	return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string &path = FuzzFile(data, size);
	std::vector<std::string> names;
	if (!Names(path, names)) {
		REQUIRE(VUNKCErrGet() == VUNKC_ERR_SYNTAX && VUNKCErrorGetFile() == path && VUNKCErrorGetLine() > 0);
		Section(path, "main", -1);
		return 0;
	}
	if (names.empty())
		return 0;
	std::map<std::string, Pairs> before = All(path);
	const std::string chosen = names[size % names.size()];

	// Written back as it was read, nothing changes for any reader.
	const Hash section = Section(path, chosen, 0);
	REQUIRE(VUNKCIFileModifySection(path.c_str(), chosen.c_str(), nullptr, section.get(), 1, 0) == 1);
	REQUIRE(All(path) == before);

	REQUIRE(VUNKCFileAddSection(path.c_str(), chosen.c_str(), section.get()) == 0);
	REQUIRE(VUNKCFileRemoveSection(path.c_str(), chosen.c_str()) == 1);
	Section(path, chosen, -1);
	REQUIRE(VUNKCErrGet() == VUNKC_ERR_SECTION_MISSING);
	REQUIRE(VUNKCFileAddSection(path.c_str(), chosen.c_str(), section.get()) == 1);
	REQUIRE(All(path) == before);
	return 0;
}
