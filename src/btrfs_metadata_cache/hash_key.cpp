#include "btrfs_metadata_cache/hash_key.h"

#include "support/log.h"

bool SetHashKey(Hash &pairs, const char *szKey, const char *szValue)
{
	if (VUNKCSzHashSetValue(pairs.out(), szKey, szValue) == 0)
		return true;
	LOG_ERROR("Failed to set hash key [%s] value [%s]", szKey, szValue);
	return false;
}
