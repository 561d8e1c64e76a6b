#include "btrfs_metadata_cache/recorded_chunks.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>
#include <vunkcore/section_file.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;
using Offsets = std::vector<unsigned long long>;

const std::string kConfig = "[config]\nstatus=\"2\"\nmax_used_size=\"0\"\n";

Offsets OffsetsOf(const std::vector<chunk_info> &chunks)
{
	Offsets offsets;
	for (const chunk_info &chunk : chunks)
		offsets.push_back(chunk.offset);
	return offsets;
}

std::string Record(const std::string &name, const std::string &size = "4096", const std::string &status = "1")
{
	return "[" + name + "]\nstatus=\"" + status + "\"\nsize=\"" + size +
	       "\"\nstripe_count=\"2\"\nstripe_offset_0=\"65536\"\nstripe_offset_1=\"131072\"\n";
}

class RecordedChunksTest : public kit::LabTest {
protected:
	RecordedChunksTest() { VUNKCErrSetEx(0, "", 0); }

	bool Load(const std::string &text)
	{
		kit::WriteFile(path, text);
		List sections;
		EXPECT_GE(VUNKCFileEnumSection(path.c_str(), sections.out()), 0);
		chunks = {};
		return LoadRecordedChunks(context, path.c_str(), sections, chunks);
	}

	kit::TempDir dir;
	const std::string path = dir.Path("mapping");
	MetadataCacheContext context = {};
	RecordedChunks chunks;
	kit::Journal journal;
};

TEST_F(RecordedChunksTest, AreNoneOfAFileWithout)
{
	EXPECT_TRUE(Load(kConfig));
	EXPECT_TRUE(Load(""));
	EXPECT_EQ(OffsetsOf(chunks.superblocks), Offsets{});
	EXPECT_EQ(OffsetsOf(chunks.metadata), Offsets{});
	EXPECT_EQ(context.totalMetadataCacheSize, 0u);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(RecordedChunksTest, AreSuperblocksUnderTheNames1To3)
{
	EXPECT_TRUE(Load(Record("4") + Record("2") + kConfig + Record("0") + Record("3") + Record("1")));
	EXPECT_EQ(OffsetsOf(chunks.superblocks), (Offsets{1, 2, 3}));
	EXPECT_EQ(OffsetsOf(chunks.metadata), (Offsets{0, 4}));
	EXPECT_EQ(context.totalMetadataCacheSize, 5 * 8192u);
}

TEST_F(RecordedChunksTest, AreSortedByNumberWhateverTheirOrderInTheFile)
{
	EXPECT_TRUE(Load(kConfig + Record("1000000") + Record("18446744073709551615") + Record("99") + Record("100")));
	EXPECT_EQ(OffsetsOf(chunks.metadata), (Offsets{99, 100, 1000000, UINT64_MAX}));
}

TEST_F(RecordedChunksTest, AreReadInFull)
{
	EXPECT_TRUE(Load(kConfig + Record("99", "12288", "0")));
	ASSERT_EQ(chunks.metadata.size(), 1u);
	EXPECT_TRUE(ChunkIsEqual(chunks.metadata[0], {99, 12288, 2, {65536, 131072}, 0}));
	EXPECT_EQ(chunks.metadata[0].status, 0);
}

TEST_F(RecordedChunksTest, CountOnceWhereTheirHeaderStandsTwice)
{
	EXPECT_TRUE(
		Load(Record("99") + Record("1") + kConfig + Record("99") + Record("1") + Record("98") + Record("99")));
	EXPECT_EQ(OffsetsOf(chunks.superblocks), Offsets{1});
	EXPECT_EQ(OffsetsOf(chunks.metadata), (Offsets{98, 99}));
	EXPECT_EQ(context.totalMetadataCacheSize, 3 * 8192u);
}

TEST_F(RecordedChunksTest, SumUpToTheLargestNumberAtMost)
{
	EXPECT_TRUE(Load(Record("98", "18446744073709420543") + Record("99")));
	EXPECT_EQ(context.totalMetadataCacheSize, UINT64_MAX);
}

TEST_F(RecordedChunksTest, AreNotLoadedWhereOneOfThemCannotBeRead)
{
	const struct {
		std::string text;
		std::string line;
	} rows[] = {
		{"[x]\nsize=\"1\"\nstripe_count=\"0\"\n", "section [x]"},
		{"[99]\nstripe_count=\"1\"\n", "size with section [99]"},
		{"[99]\nsize=\"1\"\nstripe_count=\"3\"\n", "stripe count with section [99]"},
		{"[2]\nsize=\"1\"\nstripe_count=\"1\"\n", "stripe offset with section [2]"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.line);
		journal.Clear();
		EXPECT_FALSE(Load(kConfig + Record("100") + row.text + Record("101")));
		EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Failed to get " + row.line + " in [" + path +
		                                 "][0x1500 " + path + ":0]"});
		EXPECT_EQ(context.totalMetadataCacheSize, 0u);
	}
}

TEST_F(RecordedChunksTest, AreNotLoadedWhereTheCoreLibraryFails)
{
	{
		const kit::Fault fault("VUNKCSzHashAlloc");
		EXPECT_FALSE(Load(kConfig + Record("100")));
	}
	const kit::Fault fault("VUNKCFileGetSection", 2);
	EXPECT_FALSE(Load(kConfig + Record("100") + Record("101")));
	EXPECT_EQ(journal.Lines(),
	          (Lines{"btrfs_metadata_cache.cpp Failed to alloc hash[0xFA17 fault:1]",
	                 "btrfs_metadata_cache.cpp Failed to get section [101] in [" + path + "][0xFA17 fault:1]"}));
	EXPECT_EQ(context.totalMetadataCacheSize, 0u);
}

} // namespace
