#include <vunkcore/model.h>

#include "common/error_kept.h"

#include <vunkcore/hash.h>
#include <vunkcore/pair_file.h>

#include <string_view>

namespace {

struct Pairs {
	Pairs() : hash(VUNKCSzHashAlloc(1024)) {}
	~Pairs() { VUNKCSzHashFree(hash); }
	Pairs(const Pairs &) = delete;
	Pairs &operator=(const Pairs &) = delete;

	VUNKSZHASH *hash;
};

bool Declares(const char *key)
{
	Pairs model;
	if (model.hash == nullptr || VUNKCFileGetPair(VUNKC_MODEL_FILE, &model.hash) < 0)
		return false;
	const char *value = VUNKCSzHashGetValue(model.hash, key);
	return value != nullptr && std::string_view(value) == "yes";
}

} // namespace

int VUNKCSupportRAID(void)
{
	const vunkc::ErrorKept kept;
	return Declares("support_raid");
}
