#include "metadata_output.h"

#include "metadata_size.h"
#include "output.h"
#include "table.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>
#include <map>
#include <tuple>

#include <linux/btrfs_tree.h>

namespace {

constexpr size_t kMostRows = 6;

std::string Count(uint64_t count, const std::string &one, const std::string &many)
{
	return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

std::string Share(uint64_t bytes, uint64_t whole)
{
	if (whole == 0)
		return "";
	char text[32];
	snprintf(text, sizeof(text), " (%.1f%%)", 100 * static_cast<double>(bytes) / static_cast<double>(whole));
	return text;
}

bool EndsOnDevice(const chunk_info &chunk, uint64_t deviceSize)
{
	for (size_t i = 0; i < StripesOf(chunk); ++i)
		if (Sum(chunk.stripe_offset[i], chunk.size) > deviceSize)
			return false;
	return true;
}

std::string ChunksLine(const MetadataLayout &layout)
{
	if (layout.chunks.empty())
		return "no metadata or system chunks\n";
	const uint64_t onDevice = SizeOnDevice(layout.chunks);
	const std::string holds = SizeText(LogicalSize(layout.chunks));
	return Count(layout.chunks.size(), "metadata or system chunk", "metadata and system chunks") + " of " + holds +
	       ", on the device " + SizeText(onDevice) + Share(onDevice, layout.deviceSize) + '\n';
}

// The list and the kernel's count are asked for one after the other.
std::string CountedLine(const MetadataLayout &layout)
{
	if (layout.allocated == SizeOnDevice(layout.chunks))
		return "";
	return "the kernel counts " + SizeText(layout.allocated) + ": chunks have come or gone meanwhile\n";
}

std::string BeyondLine(const MetadataLayout &layout)
{
	const auto beyond = std::count_if(layout.chunks.begin(), layout.chunks.end(), [&](const chunk_info &chunk) {
		return !EndsOnDevice(chunk, layout.deviceSize);
	});
	if (beyond == 0)
		return "";
	return Count(static_cast<uint64_t>(beyond), "chunk reaches", "chunks reach") +
	       " beyond the end of the device\n";
}

std::string SuperblocksLine(const MetadataLayout &layout)
{
	std::string text = Count(layout.superblocks.size(), "superblock copy", "superblock copies");
	for (const chunk_info &copy : layout.superblocks)
		text += (&copy == &layout.superblocks.front() ? " at " : ", ") + SizeText(copy.stripe_offset[0]);
	return text + '\n';
}

std::string OffsetsText(const chunk_info &chunk)
{
	std::string text;
	for (size_t i = 0; i < StripesOf(chunk); ++i)
		text += (i == 0 ? "" : ", ") + std::to_string(chunk.stripe_offset[i]);
	return text;
}

bool IsPinned(const MetadataLayout &layout, const chunk_info &piece)
{
	if (!layout.pinned)
		return false;
	const auto [first, last] = std::equal_range(layout.pinned->begin(), layout.pinned->end(), piece, ChunkInfoSort);
	return std::any_of(first, last, [&](const chunk_info &pinned) { return ChunkIsEqual(pinned, piece); });
}

std::vector<chunk_info> PinnedPieces(const MetadataLayout &layout)
{
	std::vector<chunk_info> pinned;
	for (const std::vector<chunk_info> *pieces : {&layout.chunks, &layout.superblocks})
		std::copy_if(pieces->begin(), pieces->end(), std::back_inserter(pinned),
		             [&](const chunk_info &piece) { return IsPinned(layout, piece); });
	return pinned;
}

std::string PinnedLine(const MetadataLayout &layout)
{
	if (!layout.pinned)
		return "what of it is pinned in an SSD cache cannot be told; \"zevotune cache status\" says why\n";
	const std::vector<chunk_info> pinned = PinnedPieces(layout);
	if (pinned.empty())
		return "";
	uint64_t ranges = 0;
	for (const chunk_info &piece : pinned)
		ranges += StripesOf(piece);
	return "pinned in the SSD cache: " + SizeText(SizeOnDevice(pinned)) + " in " +
	       Count(ranges, "range", "ranges") + '\n';
}

/// What a chunk holds; "" if unknown.
std::string TypeOf(const MetadataLayout &layout, const chunk_info &chunk)
{
	const auto type = layout.types.find(chunk.offset);
	if (type == layout.types.end())
		return "";
	if ((type->second & BTRFS_BLOCK_GROUP_DATA) != 0)
		return "mixed";
	return (type->second & BTRFS_BLOCK_GROUP_SYSTEM) != 0 ? "system" : "metadata";
}

std::string TypeText(const std::string &type)
{
	return type.empty() ? "unknown" : type;
}

/// Only where something is pinned does the list say of what.
std::string ListText(const MetadataLayout &layout)
{
	const bool marksPinned = layout.pinned && !layout.pinned->empty();
	std::vector<std::string> header = {"LOGICAL OFFSET", "SIZE", "TYPE", "PROFILE", "DEVICE OFFSETS"};
	if (marksPinned)
		header.insert(header.end() - 1, "PINNED");
	Table table(header);
	for (const chunk_info &chunk : layout.chunks) {
		std::vector<Cell> row = {std::to_string(chunk.offset), SizeText(chunk.size),
		                         TypeText(TypeOf(layout, chunk)), ProfileOf(chunk), OffsetsText(chunk)};
		if (marksPinned)
			row.insert(row.end() - 1, IsPinned(layout, chunk) ? "yes" : "no");
		table.Add(row);
	}
	return table.Text();
}

struct Group {
	std::string size;
	std::string type;
	std::string profile;
	std::vector<chunk_info> chunks;
};

// By size, type and profile, those that take most of the device first.
std::vector<Group> GroupsOf(const MetadataLayout &layout)
{
	std::map<std::tuple<uint64_t, std::string, size_t>, Group, std::greater<>> kinds;
	for (const chunk_info &chunk : layout.chunks) {
		const std::string type = TypeOf(layout, chunk);
		Group &group = kinds[{chunk.size, type, StripesOf(chunk)}];
		group.type = TypeText(type);
		group.size = SizeText(chunk.size);
		group.profile = ProfileOf(chunk);
		group.chunks.push_back(chunk);
	}
	std::vector<Group> groups;
	groups.reserve(kinds.size());
	for (auto &[kind, group] : kinds)
		groups.push_back(std::move(group));
	std::stable_sort(groups.begin(), groups.end(), [](const Group &a, const Group &b) {
		return SizeOnDevice(a.chunks) > SizeOnDevice(b.chunks);
	});
	return groups;
}

// What is left of the rows goes into the last one.
void KeepRows(std::vector<Group> &groups)
{
	if (groups.size() <= kMostRows)
		return;
	Group others{"others", "", "", {}};
	for (size_t i = kMostRows - 1; i < groups.size(); ++i)
		others.chunks.insert(others.chunks.end(), groups[i].chunks.begin(), groups[i].chunks.end());
	groups.resize(kMostRows - 1);
	groups.push_back(std::move(others));
}

std::string GroupsText(const MetadataLayout &layout)
{
	std::vector<Group> groups = GroupsOf(layout);
	KeepRows(groups);
	Table table({"CHUNKS", "OF SIZE", "TYPE", "PROFILE", "ON THE DEVICE"});
	for (const Group &group : groups)
		table.Add({std::to_string(group.chunks.size()), group.size, group.type, group.profile,
		           SizeText(SizeOnDevice(group.chunks))});
	return table.Text() + "(--list shows each of them)\n";
}

std::string ChunksText(const MetadataLayout &layout, bool list)
{
	if (layout.chunks.empty())
		return "";
	return '\n' + (list || layout.chunks.size() <= kMostRows ? ListText(layout) : GroupsText(layout));
}

Json::Value PinnedJson(const MetadataLayout &layout, const chunk_info &piece)
{
	return layout.pinned ? Json::Value(IsPinned(layout, piece)) : Json::Value();
}

Json::Value ChunkJson(const MetadataLayout &layout, const chunk_info &chunk)
{
	const std::string type = TypeOf(layout, chunk);
	Json::Value stripes(Json::arrayValue);
	for (size_t i = 0; i < StripesOf(chunk); ++i)
		stripes.append(Json::UInt64{chunk.stripe_offset[i]});
	Json::Value entry;
	entry["logical_offset"] = Json::UInt64{chunk.offset};
	entry["size"] = Json::UInt64{chunk.size};
	entry["type"] = type.empty() ? Json::Value() : Json::Value(type);
	entry["profile"] = ProfileOf(chunk);
	entry["device_offsets"] = stripes;
	entry["pinned"] = PinnedJson(layout, chunk);
	return entry;
}

Json::Value SuperblockJson(const MetadataLayout &layout, const chunk_info &copy)
{
	Json::Value entry;
	entry["copy"] = Json::UInt64{copy.offset};
	entry["size"] = Json::UInt64{copy.size};
	entry["device_offset"] = Json::UInt64{copy.stripe_offset[0]};
	entry["pinned"] = PinnedJson(layout, copy);
	return entry;
}

} // namespace

std::string MetadataText(const MetadataLayout &layout, const MapStyle &style, bool list)
{
	return Printable(layout.path) + "  on " + Printable(layout.device) + ", " + SizeText(layout.deviceSize) + '\n' +
	       ChunksLine(layout) + CountedLine(layout) + BeyondLine(layout) + SuperblocksLine(layout) +
	       PinnedLine(layout) + ChunksText(layout, list) + '\n' + MetadataMap(layout, style);
}

Json::Value MetadataJson(const MetadataLayout &layout)
{
	Json::Value totals;
	totals["chunks"] = Json::UInt64{layout.chunks.size()};
	totals["logical_size"] = Json::UInt64{LogicalSize(layout.chunks)};
	totals["size_on_device"] = Json::UInt64{SizeOnDevice(layout.chunks)};
	totals["counted_by_kernel"] = Json::UInt64{layout.allocated};
	totals["pinned"] =
		layout.pinned ? Json::Value(Json::UInt64{SizeOnDevice(PinnedPieces(layout))}) : Json::Value();
	Json::Value result;
	result["path"] = layout.path;
	result["uuid"] = layout.uuid;
	result["device"] = layout.device;
	result["device_size"] = Json::UInt64{layout.deviceSize};
	result["superblocks"] = Json::Value(Json::arrayValue);
	for (const chunk_info &copy : layout.superblocks)
		result["superblocks"].append(SuperblockJson(layout, copy));
	result["chunks"] = Json::Value(Json::arrayValue);
	for (const chunk_info &chunk : layout.chunks)
		result["chunks"].append(ChunkJson(layout, chunk));
	result["totals"] = totals;
	return result;
}
