#include "metadata_map.h"
#include "metadata_size.h"
#include "output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

constexpr uint64_t kKiB = 1024;
constexpr uint64_t kMiB = 1024 * kKiB;
constexpr uint64_t kGiB = 1024 * kMiB;
constexpr uint64_t kTiB = 1024 * kGiB;

chunk_info Single(uint64_t at, uint64_t size)
{
	return {at, size, 1, {at, 0}, 0};
}

MetadataLayout Layout(uint64_t deviceSize, std::vector<chunk_info> chunks = {},
                      std::vector<chunk_info> superblocks = {})
{
	MetadataLayout layout;
	layout.deviceSize = deviceSize;
	layout.chunks = std::move(chunks);
	layout.superblocks = std::move(superblocks);
	return layout;
}

std::string Map(const MetadataLayout &layout, size_t columns = 80, Shades shades = Shades::kAscii)
{
	return MetadataMap(layout, {columns, shades});
}

std::vector<std::string> Lines(const std::string &text)
{
	std::vector<std::string> lines;
	std::istringstream stream(text);
	for (std::string line; std::getline(stream, line);)
		lines.push_back(line);
	return lines;
}

/// The cells alone, in one line.
std::string Cells(const std::string &map)
{
	std::string cells;
	for (const std::string &line : Lines(map))
		if (const size_t begin = line.find('|'); begin != std::string::npos && line.ends_with('|'))
			cells += line.substr(begin + 1, line.size() - begin - 2);
	return cells;
}

std::string Cells(const MetadataLayout &layout)
{
	return Cells(Map(layout));
}

TEST(MetadataMap, ShowsTheDeviceWithOffsetsAndALegend)
{
	const MetadataLayout layout = Layout(2 * kGiB, {{0, 256 * kMiB, 2, {64 * kMiB, kGiB}, 0}},
	                                     {Single(64 * kKiB, 4096), Single(64 * kMiB, 4096)});
	EXPECT_EQ(Map(layout), "     0 B |s" + std::string(15, '.') + 'S' + std::string(47, '#') + "|\n" +  //
	                               " 256 MiB |" + std::string(16, '#') + std::string(48, '.') + "|\n" + //
	                               " 512 MiB |" + std::string(64, '.') + "|\n" +                        //
	                               " 768 MiB |" + std::string(64, '.') + "|\n" +                        //
	                               "   1 GiB |" + std::string(64, '#') + "|\n" +                        //
	                               "1.25 GiB |" + std::string(64, '.') + "|\n" +                        //
	                               "1.50 GiB |" + std::string(64, '.') + "|\n" +                        //
	                               "1.75 GiB |" + std::string(64, '.') + "|\n" +                        //
	                               "a cell: 4 MiB  . no metadata  - to 1/3  + to 2/3  * more  # all\n"
	                               "s superblock copy  S both\n");
}

TEST(MetadataMap, ShadesCellsByHowMuchOfThemIsMetadata)
{
	const uint64_t third = kMiB / 3;
	const auto shade = [](uint64_t bytes) { return Cells(Layout(kMiB, {Single(0, bytes)})); };
	EXPECT_EQ(shade(0), ".");
	EXPECT_EQ(shade(1), "-");
	EXPECT_EQ(shade(third), "-");
	EXPECT_EQ(shade(third + 1), "+");
	EXPECT_EQ(shade(kMiB - third), "+");
	EXPECT_EQ(shade(kMiB - third + 1), "*");
	EXPECT_EQ(shade(kMiB - 1), "*");
	EXPECT_EQ(shade(kMiB), "#");
}

TEST(MetadataMap, DrawsShadesOfUnicodeAsWideAsThoseOfAscii)
{
	const MetadataLayout layout = Layout(6 * kMiB, {Single(kMiB, 1), Single(2 * kMiB, kMiB / 2),
	                                                Single(3 * kMiB, kMiB - 1), Single(4 * kMiB, kMiB)});
	const std::string map = Map(layout, 80, Shades::kUnicode);
	EXPECT_EQ(Lines(map).front(), "     0 B |·░▒▓█·|");
	EXPECT_EQ(Lines(map)[1], "a cell: 1 MiB  · no metadata  ░ to 1/3  ▒ to 2/3  ▓ more  █ all");
	EXPECT_EQ(Lines(Map(layout)).front(), "     0 B |.-+*#.|");
}

TEST(MetadataMap, SumsUpChunksThatAreSmallerThanACell)
{
	EXPECT_EQ(Cells(Layout(2 * kMiB, {Single(0, kMiB / 4), Single(kMiB / 2, kMiB / 4)})), "+.");
	EXPECT_EQ(Cells(Layout(2 * kMiB, {Single(kMiB - 1, 2)})), "--");
}

TEST(MetadataMap, CountsWhatTwoChunksClaimOnce)
{
	EXPECT_EQ(Cells(Layout(kMiB, {Single(0, kMiB / 4), Single(0, kMiB / 4), Single(kMiB / 8, kMiB / 8)})), "-");
	EXPECT_EQ(Cells(Layout(4 * kMiB, {Single(0, 3 * kMiB), Single(kMiB, kMiB)})), "###.");
}

TEST(MetadataMap, DrawsOnlyTheStripesThatThereAre)
{
	EXPECT_EQ(Cells(Layout(4 * kMiB, {{0, kMiB, 1, {kMiB, 2 * kMiB}, 0}})), ".#..");
	EXPECT_EQ(Cells(Layout(4 * kMiB, {{0, kMiB, 2, {kMiB, 2 * kMiB}, 0}})), ".##.");
	EXPECT_EQ(Cells(Layout(4 * kMiB, {{0, kMiB, 0, {kMiB, 2 * kMiB}, 0}})), "....");
}

TEST(MetadataMap, CutsOffWhatReachesBeyondTheDevice)
{
	EXPECT_EQ(Cells(Layout(4 * kMiB, {Single(3 * kMiB, kGiB)})), "...#");
	EXPECT_EQ(Cells(Layout(4 * kMiB, {Single(0, UINT64_MAX)})), "####");
	EXPECT_EQ(Cells(Layout(4 * kMiB, {Single(4 * kMiB, 1), Single(UINT64_MAX, UINT64_MAX)})), "....");
	EXPECT_EQ(Cells(Layout(4 * kMiB, {}, {Single(4 * kMiB, 4096)})), "....");
}

TEST(MetadataMap, MeasuresTheLastCellByWhatThereIsOfIt)
{
	EXPECT_EQ(Cells(Layout(kMiB + 1, {Single(kMiB, 1)})), ".#");
	EXPECT_EQ(Cells(Layout(1, {Single(0, 1)})), "#");
	EXPECT_EQ(Cells(Layout(2, {Single(0, 1)})), "+");
}

TEST(MetadataMap, OfADeviceWithoutBytesThereIsNone)
{
	EXPECT_EQ(Map(Layout(0, {Single(0, kMiB)}, {Single(0, 1)})), "no map: the device has no bytes\n");
}

TEST(MetadataMap, OfADeviceWithoutMetadataAllCellsAreEmpty)
{
	EXPECT_EQ(Cells(Layout(512 * kMiB)), std::string(512, '.'));
}

TEST(MetadataMap, TakesTheSmallestCellsWithWhichTheDeviceFits)
{
	EXPECT_THAT(Map(Layout(512 * kMiB)), testing::HasSubstr("a cell: 1 MiB "));
	EXPECT_THAT(Map(Layout(512 * kMiB + 1)), testing::HasSubstr("a cell: 2 MiB "));
	EXPECT_THAT(Map(Layout(16 * kTiB)), testing::HasSubstr("a cell: 32 GiB "));
	EXPECT_EQ(Cells(Layout(512 * kMiB + 1)).size(), 257U);
}

TEST(MetadataMap, ReachesToSixteenEiB)
{
	const MetadataLayout layout = Layout(UINT64_MAX, {Single(0, UINT64_MAX)}, {Single(UINT64_MAX - 4096, 4096)});
	const std::vector<std::string> lines = Lines(Map(layout));
	ASSERT_EQ(lines.size(), 10U);
	EXPECT_EQ(lines[0], "     0 B |" + std::string(64, '#') + "|");
	EXPECT_EQ(lines[7], "  14 EiB |" + std::string(63, '#') + "S|");
	EXPECT_THAT(lines[8], testing::StartsWith("a cell: 32 PiB "));
}

TEST(MetadataMap, IsAsWideAsTheTerminal)
{
	const MetadataLayout layout = Layout(100 * kGiB);
	for (const size_t columns : {20UL, 26UL, 27UL, 43UL, 79UL, 80UL, 132UL, 250UL, 65535UL})
		for (const Shades shades : {Shades::kAscii, Shades::kUnicode}) {
			const std::vector<std::string> lines = Lines(Map(layout, columns, shades));
			for (const std::string &line : lines)
				EXPECT_LE(Width(line), columns) << line;
			EXPECT_LE(std::count_if(lines.begin(), lines.end(),
			                        [](const auto &l) { return l.ends_with('|'); }),
			          8);
		}
	EXPECT_EQ(Lines(Map(layout, 26)).front().size(), 9 + 2 + 8U);
	EXPECT_EQ(Lines(Map(layout, 27)).front().size(), 27U);
	EXPECT_EQ(Lines(Map(layout, 132)).front().size(), 9 + 2 + 112U);
}

TEST(MetadataMap, IsTheSameOnEveryTerminalThatIsTooNarrow)
{
	const std::vector<std::string> cells = Lines(Map(Layout(kGiB), 20));
	for (const size_t columns : {0UL, 1UL, 19UL}) {
		const std::vector<std::string> lines = Lines(Map(Layout(kGiB), columns));
		EXPECT_TRUE(std::equal(lines.begin(), lines.begin() + 8, cells.begin())) << columns;
	}
	EXPECT_EQ(cells.front(), "     0 B |........|");
}

TEST(MetadataSize, IsWrittenForPeople)
{
	EXPECT_EQ(SizeText(0), "0 B");
	EXPECT_EQ(SizeText(1023), "1023 B");
	EXPECT_EQ(SizeText(4096), "4 KiB");
	EXPECT_EQ(SizeText(4097), "4.00 KiB");
	EXPECT_EQ(SizeText(kGiB + kGiB / 4), "1.25 GiB");
	EXPECT_EQ(SizeText(10 * kGiB - 1), "10.0 GiB");
	EXPECT_EQ(SizeText(12 * kGiB + kGiB / 2), "12.5 GiB");
	EXPECT_EQ(SizeText(100 * kGiB - 1), "100 GiB");
	EXPECT_EQ(SizeText(kTiB - 1), "1024 GiB");
	EXPECT_EQ(SizeText(UINT64_MAX), "16.0 EiB");
}

TEST(MetadataSize, CountsStripesAndStopsAtTheLargestNumber)
{
	EXPECT_EQ(SizeOnDevice({1, 10, 2, {0, 0}, 0}), 20U);
	EXPECT_EQ(SizeOnDevice({1, 10, 1, {0, 0}, 0}), 10U);
	EXPECT_EQ(SizeOnDevice({1, 10, 0, {0, 0}, 0}), 0U);
	EXPECT_EQ(SizeOnDevice(chunk_info{1, UINT64_MAX / 2 + 1, 2, {0, 0}, 0}), UINT64_MAX);
	const std::vector<chunk_info> huge(3, Single(0, UINT64_MAX / 2));
	EXPECT_EQ(SizeOnDevice(huge), UINT64_MAX);
	EXPECT_EQ(LogicalSize(huge), UINT64_MAX);
	EXPECT_EQ(StripesOf({1, 10, 7, {0, 0}, 0}), 2U);
	EXPECT_STREQ(ProfileOf({1, 10, 1, {0, 0}, 0}), "single");
	EXPECT_STREQ(ProfileOf({1, 10, 2, {0, 0}, 0}), "DUP");
}

} // namespace
