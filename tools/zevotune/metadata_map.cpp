#include "metadata_map.h"

#include "metadata_size.h"
#include "output.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t kMostRows = 8;
constexpr size_t kLabelColumns = 9; // "1.25 GiB "
constexpr size_t kFrameColumns = kLabelColumns + 2;
constexpr uint64_t kSmallestCell = uint64_t{1} << 20;

// By how much of a cell is metadata: none, up to a third, up to two thirds, more, all of it.
using ShadeTexts = std::array<const char *, 5>;

const ShadeTexts &TextsOf(Shades shades)
{
	static constexpr ShadeTexts kAscii{".", "-", "+", "*", "#"};
	static constexpr ShadeTexts kUnicode{"·", "░", "▒", "▓", "█"};
	return shades == Shades::kAscii ? kAscii : kUnicode;
}

struct Range {
	uint64_t begin;
	uint64_t end;
};

struct Grid {
	uint64_t deviceSize;
	uint64_t cellSize;
	size_t rowCells;
	size_t cellCount;

	uint64_t Begin(size_t cell) const { return cell * cellSize; }
	uint64_t End(size_t cell) const { return std::min(Sum(Begin(cell), cellSize), deviceSize); }
	size_t CellAt(uint64_t offset) const { return static_cast<size_t>(offset / cellSize); }
};

struct Cell {
	uint64_t metadata = 0; // bytes
	bool superblock = false;
};

size_t RowCells(size_t columns)
{
	// Multiples of 16, so that lines begin at round offsets.
	const size_t room = columns > kFrameColumns ? columns - kFrameColumns : 0;
	return room < 16 ? 8 : room / 16 * 16;
}

Grid GridOf(uint64_t deviceSize, size_t columns)
{
	Grid grid{deviceSize, kSmallestCell, RowCells(columns), 0};
	const auto needed = [&] { return deviceSize / grid.cellSize + (deviceSize % grid.cellSize != 0 ? 1 : 0); };
	while (needed() > grid.rowCells * kMostRows)
		grid.cellSize *= 2;
	grid.cellCount = static_cast<size_t>(needed());
	return grid;
}

void AddRanges(const std::vector<chunk_info> &chunks, uint64_t deviceSize, std::vector<Range> &ranges)
{
	for (const chunk_info &chunk : chunks)
		for (size_t i = 0; i < StripesOf(chunk); ++i) {
			const uint64_t begin = chunk.stripe_offset[i];
			const uint64_t end = std::min(Sum(begin, chunk.size), deviceSize);
			if (begin < end)
				ranges.push_back({begin, end});
		}
}

// In ascending order, each byte of the device in one range at most.
std::vector<Range> RangesOf(const std::vector<chunk_info> &chunks, uint64_t deviceSize)
{
	std::vector<Range> ranges;
	AddRanges(chunks, deviceSize, ranges);
	std::sort(ranges.begin(), ranges.end(), [](const Range &a, const Range &b) { return a.begin < b.begin; });
	uint64_t covered = 0;
	for (Range &range : ranges) {
		range.begin = std::max(range.begin, covered);
		range.end = std::max(range.begin, range.end);
		covered = range.end;
	}
	return ranges;
}

std::vector<Cell> CellsOf(const MetadataLayout &layout, const Grid &grid)
{
	std::vector<Cell> cells(grid.cellCount);
	for (const Range &range : RangesOf(layout.chunks, grid.deviceSize))
		for (uint64_t at = range.begin; at < range.end;) {
			const size_t cell = grid.CellAt(at);
			const uint64_t end = std::min(range.end, grid.End(cell));
			cells[cell].metadata += end - at;
			at = end;
		}
	for (const Range &range : RangesOf(layout.superblocks, grid.deviceSize))
		cells[grid.CellAt(range.begin)].superblock = true;
	return cells;
}

size_t ShadeOf(const Cell &cell, uint64_t size)
{
	if (cell.metadata == 0)
		return 0;
	if (cell.metadata >= size)
		return 4;
	const uint64_t third = size / 3;
	return cell.metadata <= third ? 1 : cell.metadata <= size - third ? 2 : 3;
}

std::string Drawn(const Cell &cell, uint64_t size, const ShadeTexts &texts)
{
	if (cell.superblock)
		return cell.metadata > 0 ? "S" : "s";
	return texts[ShadeOf(cell, size)];
}

// Between the words, which stay whole.
std::string Wrapped(const std::vector<std::string> &words, size_t columns)
{
	std::string text;
	size_t width = 0;
	for (const std::string &word : words) {
		const bool fits = width + 2 + Width(word) <= columns;
		if (width > 0)
			text += fits ? "  " : "\n";
		width = (fits && width > 0 ? width + 2 : 0) + Width(word);
		text += word;
	}
	return text + '\n';
}

std::string Legend(const Grid &grid, const MapStyle &style)
{
	const ShadeTexts &texts = TextsOf(style.shades);
	const auto named = [&](size_t shade, const char *meaning) {
		return texts[shade] + (' ' + std::string(meaning));
	};
	return Wrapped({"a cell: " + SizeText(grid.cellSize), named(0, "no metadata"), named(1, "to 1/3"),
	                named(2, "to 2/3"), named(3, "more"), named(4, "all"), "s superblock copy", "S both"},
	               style.columns);
}

std::string Label(uint64_t offset)
{
	const std::string text = SizeText(offset);
	return std::string(kLabelColumns - 1 - std::min(kLabelColumns - 1, text.size()), ' ') + text + ' ';
}

} // namespace

std::string MetadataMap(const MetadataLayout &layout, const MapStyle &style)
{
	if (layout.deviceSize == 0)
		return "no map: the device has no bytes\n";
	const Grid grid = GridOf(layout.deviceSize, style.columns);
	const std::vector<Cell> cells = CellsOf(layout, grid);
	const ShadeTexts &texts = TextsOf(style.shades);
	std::string text;
	for (size_t cell = 0; cell < cells.size(); ++cell) {
		if (cell % grid.rowCells == 0)
			text += (cell == 0 ? "" : "|\n") + Label(grid.Begin(cell)) + '|';
		text += Drawn(cells[cell], grid.End(cell) - grid.Begin(cell), texts);
	}
	return text + "|\n" + Legend(grid, style);
}
