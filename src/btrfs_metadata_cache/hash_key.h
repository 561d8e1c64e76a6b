#ifndef BTRFS_METADATA_CACHE_HASH_KEY_H
#define BTRFS_METADATA_CACHE_HASH_KEY_H

#include "support/handles.h"

// Sets a key of a hash; a failure leaves a line.
bool SetHashKey(Hash &pairs, const char *szKey, const char *szValue);

#endif
