#include "metadata_output.h"
#include "metadata_size.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <json/writer.h>

#include <linux/btrfs_tree.h>

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kGiB = 1024 * kMiB;

MetadataLayout Layout(std::vector<chunk_info> chunks)
{
	MetadataLayout layout;
	layout.path = "/volume1";
	layout.uuid = "01234567-89ab-cdef-0123-456789abcdef";
	layout.device = "/dev/mapper/vg1-volume1";
	layout.deviceSize = 10 * kGiB;
	layout.superblocks = {{1, 4096, 1, {65536, 0}, 0}, {2, 4096, 1, {64 * kMiB, 0}, 0}};
	layout.chunks = std::move(chunks);
	for (const chunk_info &chunk : layout.chunks)
		layout.types[chunk.offset] = BTRFS_BLOCK_GROUP_METADATA | BTRFS_BLOCK_GROUP_DUP;
	layout.allocated = SizeOnDevice(layout.chunks);
	return layout;
}

/// Everything above the map.
std::string Head(const MetadataLayout &layout, bool list = false)
{
	const std::string text = MetadataText(layout, {80, Shades::kAscii}, list);
	const std::string map = MetadataMap(layout, {80, Shades::kAscii});
	EXPECT_TRUE(text.ends_with('\n' + map)) << text;
	return text.substr(0, text.size() - map.size() - 1);
}

std::vector<chunk_info> Chunks(size_t count, uint64_t size = 256 * kMiB, uint64_t stripes = 2)
{
	std::vector<chunk_info> chunks;
	for (size_t i = 0; i < count; ++i)
		chunks.push_back({kGiB * i, size, stripes, {i * size, kGiB + i * size}, 0});
	return chunks;
}

TEST(MetadataText, ListsAFewChunks)
{
	MetadataLayout layout =
		Layout({{22020096, 8 * kMiB, 2, {22020096, 30408704}, 0}, {30408704, kGiB, 1, {38797312, 5}, 0}});
	layout.types[22020096] = BTRFS_BLOCK_GROUP_SYSTEM | BTRFS_BLOCK_GROUP_DUP;
	EXPECT_EQ(Head(layout), "/volume1  on /dev/mapper/vg1-volume1, 10 GiB\n"
	                        "2 metadata and system chunks of 1.01 GiB, on the device 1.02 GiB (10.2%)\n"
	                        "2 superblock copies at 64 KiB, 64 MiB\n"
	                        "\n"
	                        "LOGICAL OFFSET  SIZE   TYPE      PROFILE  DEVICE OFFSETS\n"
	                        "22020096        8 MiB  system    DUP      22020096, 30408704\n"
	                        "30408704        1 GiB  metadata  single   38797312\n");
}

TEST(MetadataText, SaysWhatIsPinnedWhereSomethingIs)
{
	MetadataLayout layout = Layout(Chunks(3, kMiB));
	layout.pinned = {layout.chunks[0], layout.superblocks[0], layout.chunks[1]};
	layout.pinned->back().stripe_offset[1] += 1; // what is recorded of it is not where it lies now
	EXPECT_THAT(Head(layout), HasSubstr("\n2 superblock copies at 64 KiB, 64 MiB\n"
	                                    "pinned in the SSD cache: 2.00 MiB in 3 ranges\n\n"
	                                    "LOGICAL OFFSET  SIZE   TYPE      PROFILE  PINNED  DEVICE OFFSETS\n"
	                                    "0               1 MiB  metadata  DUP      yes     0, 1073741824\n"
	                                    "1073741824      1 MiB  metadata  DUP      no      1048576, 1074790400\n"));
	const Json::Value json = MetadataJson(layout);
	EXPECT_EQ(json["chunks"][0]["pinned"], true);
	EXPECT_EQ(json["chunks"][1]["pinned"], false);
	EXPECT_EQ(json["superblocks"][0]["pinned"], true);
	EXPECT_EQ(json["superblocks"][1]["pinned"], false);
	EXPECT_EQ(json["totals"]["pinned"].asUInt64(), 2 * kMiB + 4096);
}

TEST(MetadataText, SaysWhenItCannotBeToldWhatIsPinned)
{
	MetadataLayout layout = Layout(Chunks(1));
	layout.pinned = std::nullopt;
	EXPECT_THAT(Head(layout),
	            HasSubstr("\nwhat of it is pinned in an SSD cache cannot be told; \"zevotune cache status\" "
	                      "says why\n\nLOGICAL OFFSET  SIZE     TYPE      PROFILE  DEVICE OFFSETS\n"));
	const Json::Value json = MetadataJson(layout);
	EXPECT_TRUE(json["chunks"][0]["pinned"].isNull());
	EXPECT_TRUE(json["superblocks"][0]["pinned"].isNull());
	EXPECT_TRUE(json["totals"]["pinned"].isNull());
}

TEST(MetadataText, SumsUpManyChunksBySizeTypeAndProfile)
{
	std::vector<chunk_info> chunks = Chunks(1998);
	chunks.push_back({1, kGiB, 1, {0, 0}, 0});
	chunks.push_back({2, 256 * kMiB, 1, {0, 0}, 0});
	MetadataLayout layout = Layout(chunks);
	layout.deviceSize = 2048 * kGiB;
	layout.types[0] = BTRFS_BLOCK_GROUP_SYSTEM;
	EXPECT_EQ(Head(layout), "/volume1  on /dev/mapper/vg1-volume1, 2 TiB\n"
	                        "2000 metadata and system chunks of 501 GiB, on the device 1000 GiB (48.8%)\n"
	                        "2 superblock copies at 64 KiB, 64 MiB\n"
	                        "\n"
	                        "CHUNKS  OF SIZE  TYPE      PROFILE  ON THE DEVICE\n"
	                        "1997    256 MiB  metadata  DUP      998 GiB\n"
	                        "1       1 GiB    metadata  single   1 GiB\n"
	                        "1       256 MiB  system    DUP      512 MiB\n"
	                        "1       256 MiB  metadata  single   256 MiB\n"
	                        "(--list shows each of them)\n");
}

TEST(MetadataText, NamesWhatAChunkHolds)
{
	MetadataLayout layout = Layout(Chunks(3, kMiB, 1));
	layout.types[0] = BTRFS_BLOCK_GROUP_DATA | BTRFS_BLOCK_GROUP_METADATA;
	layout.types.erase(kGiB);
	EXPECT_THAT(Head(layout), HasSubstr("\n0               1 MiB  mixed     single   0\n"
	                                    "1073741824      1 MiB  unknown   single   1048576\n"
	                                    "2147483648      1 MiB  metadata  single   2097152\n"));
	layout.chunks = Chunks(7, kMiB, 1);
	EXPECT_THAT(Head(layout), HasSubstr("\n5       1 MiB    unknown   single   5 MiB\n"
	                                    "1       1 MiB    mixed     single   1 MiB\n"
	                                    "1       1 MiB    metadata  single   1 MiB\n"));
}

TEST(MetadataText, ListsAllOfManyChunksWhenAskedFor)
{
	const std::string head = Head(Layout(Chunks(7)), true);
	EXPECT_THAT(head, HasSubstr("\n6442450944      256 MiB  metadata  DUP      1610612736, 2684354560\n"));
	EXPECT_EQ(std::count(head.begin(), head.end(), '\n'), 4 + 1 + 7);
	EXPECT_THAT(head, Not(HasSubstr("--list")));
}

TEST(MetadataText, SumsUpFromSevenChunksOn)
{
	EXPECT_THAT(Head(Layout(Chunks(6))), HasSubstr("LOGICAL OFFSET"));
	EXPECT_THAT(Head(Layout(Chunks(7))), HasSubstr("\n7       256 MiB  metadata  DUP      3.50 GiB\n(--list"));
}

TEST(MetadataText, PutsTheSmallestOfManySizesTogether)
{
	std::vector<chunk_info> chunks;
	for (uint64_t i = 1; i <= 9; ++i)
		chunks.push_back({i * kGiB, i * kMiB, 1, {i * kGiB, 0}, 0});
	EXPECT_THAT(Head(Layout(chunks)), HasSubstr("CHUNKS  OF SIZE  TYPE      PROFILE  ON THE DEVICE\n"
	                                            "1       9 MiB    metadata  single   9 MiB\n"
	                                            "1       8 MiB    metadata  single   8 MiB\n"
	                                            "1       7 MiB    metadata  single   7 MiB\n"
	                                            "1       6 MiB    metadata  single   6 MiB\n"
	                                            "1       5 MiB    metadata  single   5 MiB\n"
	                                            "4       others                      10 MiB\n"
	                                            "(--list"));
}

TEST(MetadataText, OfAVolumeWithoutChunksThereIsNoList)
{
	MetadataLayout layout = Layout({});
	layout.superblocks.clear();
	const std::string head = "/volume1  on /dev/mapper/vg1-volume1, 10 GiB\n"
				 "no metadata or system chunks\n"
				 "0 superblock copies\n";
	EXPECT_EQ(Head(layout), head);
	EXPECT_EQ(Head(layout, true), head);
}

TEST(MetadataText, OfOneItIsSingular)
{
	MetadataLayout layout = Layout(Chunks(1));
	layout.superblocks.pop_back();
	EXPECT_THAT(Head(layout), HasSubstr("\n1 metadata or system chunk of 256 MiB, on the device 512 MiB (5.0%)\n"
	                                    "1 superblock copy at 64 KiB\n"));
}

TEST(MetadataText, SaysWhenTheKernelCountsOtherwise)
{
	MetadataLayout layout = Layout(Chunks(1));
	layout.allocated += kGiB;
	EXPECT_THAT(Head(layout),
	            HasSubstr(" (5.0%)\nthe kernel counts 1.50 GiB: chunks have come or gone meanwhile\n2 super"));
}

TEST(MetadataText, SaysWhichChunksTheDeviceIsTooSmallFor)
{
	MetadataLayout layout = Layout({{1, kMiB, 1, {10 * kGiB - kMiB, 0}, 0}});
	EXPECT_THAT(Head(layout), Not(HasSubstr("beyond")));
	layout.chunks[0].stripe_offset[0] += 1;
	EXPECT_THAT(Head(layout), HasSubstr("\n1 chunk reaches beyond the end of the device\n"));
	layout.chunks.push_back({2, kMiB, 2, {0, UINT64_MAX}, 0});
	EXPECT_THAT(Head(layout), HasSubstr("\n2 chunks reach beyond the end of the device\n"));
}

TEST(MetadataText, OfADeviceWithoutBytesThereIsNoShare)
{
	MetadataLayout layout = Layout(Chunks(1));
	layout.deviceSize = 0;
	EXPECT_THAT(Head(layout), HasSubstr("on the device 512 MiB\n1 chunk reaches beyond"));
}

TEST(MetadataText, ControlCharactersDoNoHarm)
{
	MetadataLayout layout = Layout({});
	layout.path = "/a\x1b[31m\nb";
	layout.device = "/dev/mapper/\x07";
	EXPECT_THAT(Head(layout), testing::StartsWith("/a\\x1B[31m\\x0Ab  on /dev/mapper/\\x07, 10 GiB\n"));
}

std::string Text(const Json::Value &value)
{
	Json::StreamWriterBuilder writer;
	writer["indentation"] = "";
	return Json::writeString(writer, value);
}

TEST(MetadataJson, HasAllInBytes)
{
	MetadataLayout layout = Layout({{22020096, 8388608, 2, {22020096, 30408704}, 0}, {30408704, 7, 1, {1, 5}, 0}});
	layout.allocated = 9;
	layout.types[22020096] = BTRFS_BLOCK_GROUP_SYSTEM;
	layout.types.erase(30408704);
	EXPECT_EQ(
		Text(MetadataJson(layout)),
		R"({"chunks":[)"
		R"({"device_offsets":[22020096,30408704],"logical_offset":22020096,"pinned":false,"profile":"DUP","size":8388608,"type":"system"},)"
		R"({"device_offsets":[1],"logical_offset":30408704,"pinned":false,"profile":"single","size":7,"type":null}],)"
		R"("device":"/dev/mapper/vg1-volume1","device_size":10737418240,"path":"/volume1",)"
		R"("superblocks":[{"copy":1,"device_offset":65536,"pinned":false,"size":4096},)"
		R"({"copy":2,"device_offset":67108864,"pinned":false,"size":4096}],)"
		R"("totals":{"chunks":2,"counted_by_kernel":9,"logical_size":8388615,"pinned":0,"size_on_device":16777223},)"
		R"("uuid":"01234567-89ab-cdef-0123-456789abcdef"})");
}

TEST(MetadataJson, KeepsEveryChunkAndEveryDigit)
{
	EXPECT_EQ(MetadataJson(Layout(Chunks(2000)))["chunks"].size(), 2000U);
	MetadataLayout layout = Layout({{UINT64_MAX, UINT64_MAX, 1, {UINT64_MAX, 0}, 0}});
	layout.deviceSize = UINT64_MAX;
	const Json::Value json = MetadataJson(layout);
	EXPECT_EQ(json["device_size"].asUInt64(), UINT64_MAX);
	EXPECT_THAT(Text(json), HasSubstr(R"("logical_offset":18446744073709551615)"));
}

TEST(MetadataJson, OfAVolumeWithoutChunksHasEmptyArrays)
{
	MetadataLayout layout = Layout({});
	layout.superblocks.clear();
	const Json::Value json = MetadataJson(layout);
	EXPECT_EQ(Text(json["chunks"]), "[]");
	EXPECT_EQ(Text(json["superblocks"]), "[]");
}

} // namespace
