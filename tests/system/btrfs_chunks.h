#ifndef TESTS_SYSTEM_BTRFS_CHUNKS_H
#define TESTS_SYSTEM_BTRFS_CHUNKS_H

// What the file system's own tools say of where a volume's metadata lies.

#include "kit/loop_device.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

/// Metadata and system chunks as they are on the device, "12582912 8388608 12582912 20971520": where one begins, its size, and its
/// stripes.
inline std::vector<std::string> ChunksOnDevice(const std::string &volume, const std::string &device)
{
	kit::RunProgram({"sync", "-f", volume});
	kit::RunProgram({"blockdev", "--flushbufs", device});
	std::istringstream lines(kit::RunProgram({"btrfs", "inspect-internal", "dump-tree", "-t", "chunk", device}));
	static const std::regex kItem(R"(.*\(FIRST_CHUNK_TREE CHUNK_ITEM (\d+)\).*)");
	static const std::regex kLength(R"(\s+length (\d+) .* type (\S+))");
	static const std::regex kStripe(R"(\s+stripe \d+ devid \d+ offset (\d+))");
	std::vector<std::string> found;
	std::string offset;
	bool isMetadata = false;
	std::smatch match;
	for (std::string line; std::getline(lines, line);) {
		if (std::regex_match(line, match, kItem)) {
			offset = match[1];
		} else if (std::regex_match(line, match, kLength)) {
			const std::string type = match[2];
			isMetadata =
				type.find("METADATA") != std::string::npos || type.find("SYSTEM") != std::string::npos;
			if (isMetadata)
				found.push_back(offset + ' ' + match[1].str());
		} else if (isMetadata && std::regex_match(line, match, kStripe)) {
			found.back() += ' ' + match[1].str();
		}
	}
	return found;
}

/// Copies of the superblock, "1 4096 65536".
inline std::vector<std::string> SuperblocksOnDevice(const std::string &device)
{
	std::istringstream lines(kit::RunProgram({"btrfs", "inspect-internal", "dump-super", "-a", device}));
	std::vector<std::string> found;
	static const std::regex kHead(R"(superblock: bytenr=(\d+), .*)");
	std::smatch match;
	for (std::string line; std::getline(lines, line);)
		if (std::regex_match(line, match, kHead))
			found.push_back(std::to_string(found.size() + 1) + " 4096 " + match[1].str());
	return found;
}

/// The file system removes chunks that hold nothing, whenever it likes: what is found before and after one that goes is no fault of
/// ours. Repeats the look until the chunks are the same before and after it.
inline void WhileChunksStay(const std::string &volume, const std::string &device,
                            const std::function<void(const std::vector<std::string> &)> &look)
{
	for (int i = 0; i < 20; ++i) {
		const std::vector<std::string> chunks = ChunksOnDevice(volume, device);
		testing::TestPartResultArray failures;
		{
			const testing::ScopedFakeTestPartResultReporter reporter(
				testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
			look(chunks);
		}
		if (ChunksOnDevice(volume, device) != chunks)
			continue;
		for (int each = 0; each < failures.size(); ++each)
			ADD_FAILURE() << failures.GetTestPartResult(each).message();
		return;
	}
	FAIL() << "the chunks never stay";
}

#endif
