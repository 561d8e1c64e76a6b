#include "metadata_walk.h"

#include "failure.h"

std::optional<std::vector<chunk_info>> WalkMetadata(GetNextMapping next, const std::string &volume,
                                                    const std::string &device)
{
	std::vector<chunk_info> found;
	chunk_info chunk{};
	for (;;) {
		const int result = next(volume.c_str(), device.c_str(), &chunk, 0);
		if (result < 0)
			return std::nullopt;
		if (result > 0)
			return found;
		// The search goes on behind the end of the last chunk: one of no length is found again.
		if (!found.empty() && chunk.offset <= found.back().offset)
			throw Failure("cannot tell where the metadata of " + volume +
			              " lies: the kernel names the chunk at " + std::to_string(chunk.offset) +
			              " twice; see its log (dmesg), and check the file system");
		found.push_back(chunk);
	}
}
