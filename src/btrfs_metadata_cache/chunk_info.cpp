#include <zevotuned/chunk_info.h>

bool ChunkInfoSort(const chunk_info &a, const chunk_info &b)
{
	return a.offset < b.offset;
}

bool ChunkIsEqual(const chunk_info &a, const chunk_info &b)
{
	return a.offset == b.offset && a.size == b.size && a.stripe_count == b.stripe_count &&
	       (a.stripe_count < 1 || a.stripe_offset[0] == b.stripe_offset[0]) &&
	       (a.stripe_count != 2 || a.stripe_offset[1] == b.stripe_offset[1]);
}
