#ifndef BTRFS_METADATA_CACHE_DISABLE_PASS_H
#define BTRFS_METADATA_CACHE_DISABLE_PASS_H

#include "btrfs_metadata_cache/context.h"

// Unpins all that is recorded of a volume and removes its mapping file. 0, also when it was ended early because the
// volume's own switch has been turned on since the pass last looked at it, which sets fRestart; -1 after "Failed to
// remove btrfs metadata pin file".
int BtrfsMetadataCacheDisablePass(MetadataCacheContext &ctx, const char *szVolPath);

#endif
