// Prints where the metadata of a volume lies, one line a chunk, for measurements of whole processes: zevotuned_chunks
// VOLUME DEVICE.

#include "btrfs_metadata_cache/chunk_discovery.h"

#include <cstdio>

int main(int argc, char **argv)
{
	if (argc != 3) {
		fprintf(stderr, "usage: zevotuned_chunks VOLUME DEVICE\n");
		return 2;
	}
	chunk_info chunk = {};
	int result;
	while ((result = BtrfsMetadataCacheChunkNext(argv[1], argv[2], &chunk, 0)) == 0) {
		printf("%llu %llu", chunk.offset, chunk.size);
		for (unsigned i = 0; i < chunk.stripe_count; ++i)
			printf(" %llu", chunk.stripe_offset[i]);
		putchar('\n');
	}
	return result == 1 ? 0 : 1;
}
