// Any bytes as the kernel's answer to a search in the chunk tree.

#include "fuzz.h"

#include "btrfs_metadata_cache/chunk_tree.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::span<const uint8_t> answer(data, size);
	while (true) {
		const std::span<const uint8_t> before = answer;
		const auto chunk = TakeChunk(answer);
		if (!chunk) {
			REQUIRE(answer.data() == before.data() && answer.size() == before.size());
			return 0;
		}
		// A header, a chunk and all of its stripes were there.
		REQUIRE(chunk->stripe_count > 0);
		REQUIRE(before.size() - answer.size() >= 32 + 48 + chunk->stripe_count * size_t{32});
		REQUIRE(answer.data() + answer.size() == data + size);
		REQUIRE(chunk->logical + chunk->length >= chunk->logical);
		for (unsigned i = 0; i < 2 && i < chunk->stripe_count; ++i)
			REQUIRE(chunk->stripe[i].offset + chunk->length >= chunk->stripe[i].offset);
	}
}
