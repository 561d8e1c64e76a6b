// A pair file of any bytes, read, written and read again.

#include "fuzz.h"

#include <vunkcore/vunkcore.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string &path = FuzzFile(data, size);
	VUNKSZHASH *first = VUNKCSzHashAlloc(64);
	VUNKSZHASH *second = VUNKCSzHashAlloc(64);
	VUNKSZLIST *keys = VUNKCSzListAlloc(64);
	VUNKSZLIST *again = VUNKCSzListAlloc(64);
	if (VUNKCFileGetPair(path.c_str(), &first) < 0) {
		REQUIRE(VUNKCErrGet() == VUNKC_ERR_SYNTAX && VUNKCErrorGetFile() == path && VUNKCErrorGetLine() > 0);
		REQUIRE(VUNKCSzHashEnumKey(first, &keys) == 0);
	} else {
		REQUIRE(VUNKCFileSetPair(path.c_str(), first, 0) == 0);
		REQUIRE(VUNKCFileGetPair(path.c_str(), &second) >= 0);
		REQUIRE(VUNKCSzHashEnumKey(first, &keys) == VUNKCSzHashEnumKey(second, &again));
		for (int i = 0; i < keys->nItem; ++i) {
			const std::string key = VUNKCSzListGet(keys, i);
			REQUIRE(key == VUNKCSzListGet(again, i));
			REQUIRE(VUNKCSzHashGetValue(first, key.c_str()) ==
			        std::string(VUNKCSzHashGetValue(second, key.c_str())));
		}
	}
	VUNKCSzListFree(again);
	VUNKCSzListFree(keys);
	VUNKCSzHashFree(second);
	VUNKCSzHashFree(first);
	return 0;
}
