#include "devices_output.h"

#include "device_sections.h"
#include "output.h"

#include <zevostorage/disk.h>

namespace {

using Words = std::vector<std::string>;

struct TypeName {
	unsigned type;
	const char *forPeople;
	const char *forPrograms;
};

constexpr TypeName kTypeNames[] = {
	{DISK_TYPE_SATA, "SATA", "sata"},
	{DISK_TYPE_SAS, "SAS", "sas"},
	{DISK_TYPE_NVME, "NVMe", "nvme"},
	{DISK_TYPE_VIRTUAL, "virtual", "virtual"},
	{DISK_TYPE_EXTERNAL, "external", "external"},
	{DISK_TYPE_EMMC, "eMMC", "emmc"},
};

TypeName NameOfType(unsigned type)
{
	for (const TypeName &name : kTypeNames)
		if (name.type == type)
			return name;
	return {type, "other", "other"};
}

std::string Joined(const Words &words, const char *between)
{
	std::string text;
	for (size_t i = 0; i < words.size(); ++i)
		text += (i == 0 ? "" : between) + words[i];
	return text;
}

std::string Kind(std::optional<bool> ssd, const std::string &error)
{
	if (!ssd)
		return "SSD or not is unknown: " + Printable(error);
	return *ssd ? "SSD" : "rotating";
}

std::string WhatVolumeSectionDoes(const Volume &volume)
{
	if (!volume.btrfs)
		return "[volume] leaves it alone: not Btrfs";
	const std::optional<bool> ssdOnly = SsdOnly(volume);
	if (!ssdOnly)
		return "whether [volume] changes it is unknown";
	return *ssdOnly ? "[volume] changes it" : "[volume] leaves it alone: not on SSDs only";
}

Node ToNode(const Volume &volume)
{
	const std::string &device = volume.alternativeDevice.empty() ? volume.device : volume.alternativeDevice;
	Node node{Printable(volume.path) + "  " + Printable(volume.fileSystem) + " on " + Printable(device)};
	if (SsdOnly(volume) == true)
		node.text += ", SSDs only";
	if (!volume.disks)
		node.below.push_back({"disks are unknown: " + Printable(volume.error)});
	else
		for (const VolumeDisk &disk : *volume.disks)
			node.below.push_back({Printable(disk.device) + "  " + Kind(disk.ssd, disk.error)});
	node.below.push_back({WhatVolumeSectionDoes(volume)});
	return node;
}

std::string Disks(size_t count)
{
	return std::to_string(count) + (count == 1 ? " disk" : " disks");
}

std::string WhatRaidSectionsDo(const Array &array)
{
	const Words sections = SectionsOf(array);
	if (!sections.empty())
		return "[" + Joined(sections, "] and [") + "] change its disks' tunables";
	std::string text = "[raid_cfq_...] leave it alone: ";
	if (array.diskCount == 0)
		return text + "not active";
	return text + (array.diskCount == 1 ? "one disk only" : "not a level of theirs");
}

Node ToNode(const ArrayMember &member)
{
	std::string text = Printable(member.device);
	const bool onDisk = member.disk != member.device;
	if (member.failed)
		text += onDisk ? ", failed," : ", failed";
	if (member.disk.empty())
		text += " on an unknown disk: " + Printable(member.error);
	else if (onDisk)
		text += " on " + Printable(member.disk);
	return {text};
}

Node ToNode(const Array &array)
{
	Node node{Printable(array.device) + "  " + (array.level.empty() ? "level unknown" : Printable(array.level))};
	node.text += ", " + (array.diskCount == 0 ? "not active" : Disks(array.diskCount));
	if (array.lacking > 0)
		node.text += ", of which only " + std::to_string(array.diskCount - array.lacking) + " in use";
	if (array.broken)
		node.text += ", broken";
	for (const ArrayMember &member : array.members)
		node.below.push_back(ToNode(member));
	node.below.push_back({WhatRaidSectionsDo(array)});
	return node;
}

// As the kernel writes it, with the active one in brackets.
std::string SchedulersText(const Queue &queue)
{
	Words words = queue.schedulers;
	for (std::string &word : words)
		word = Printable(word == queue.scheduler ? "[" + word + "]" : word);
	return Joined(words, " ");
}

std::string TunablesText(const Queue &queue)
{
	if (!queue.tunablesError.empty())
		return "tunables are unknown: " + Printable(queue.tunablesError);
	return queue.tunables.empty() ? "no tunables" : "tunables: " + Printable(Joined(queue.tunables, " "));
}

std::string WhatDiskSectionDoes(const Disk &disk)
{
	const std::string leaves = "[disk] leaves it alone: ";
	if (!IsOfDiskSection(disk.type))
		return leaves + NameOfType(disk.type).forPeople;
	if (disk.ssd != true)
		return leaves + (disk.ssd ? "no SSD" : "not known as an SSD");
	if (disk.queue.schedulers.empty())
		return "whether [disk] changes it is unknown";
	return "[disk] sets its scheduler to one of these";
}

Node ToNode(const Disk &disk)
{
	Node node{Printable(disk.device) + "  " + NameOfType(disk.type).forPeople};
	if (disk.ssd)
		node.text += *disk.ssd ? " SSD" : " rotating disk";
	else
		node.below.push_back({Kind(disk.ssd, disk.ssdError)});
	if (!disk.queue.schedulers.empty())
		node.text += "  " + SchedulersText(disk.queue);
	if (!disk.queue.schedulerError.empty())
		node.below.push_back({"scheduler is unknown: " + Printable(disk.queue.schedulerError)});
	node.below.push_back({TunablesText(disk.queue)});
	node.below.push_back({WhatDiskSectionDoes(disk)});
	return node;
}

template <class Item>
std::vector<Node> ToNodes(const std::vector<Item> &items)
{
	std::vector<Node> nodes;
	nodes.reserve(items.size());
	for (const Item &item : items)
		nodes.push_back(ToNode(item));
	return nodes;
}

Json::Value TruthOrNull(std::optional<bool> truth)
{
	return truth ? Json::Value(*truth) : Json::Value();
}

Json::Value ToJson(const std::string &text)
{
	return text;
}
Json::Value ToJson(const VolumeDisk &disk);
Json::Value ToJson(const Volume &volume);
Json::Value ToJson(const ArrayMember &member);
Json::Value ToJson(const Array &array);
Json::Value ToJson(const Disk &disk);

template <class Item>
Json::Value ToJson(const std::vector<Item> &items)
{
	Json::Value entries(Json::arrayValue);
	for (const Item &item : items)
		entries.append(ToJson(item));
	return entries;
}

Json::Value ToJson(const VolumeDisk &disk)
{
	Json::Value entry;
	entry["device"] = disk.device;
	entry["ssd"] = TruthOrNull(disk.ssd);
	entry["error"] = TextOrNull(disk.error);
	return entry;
}

Json::Value ToJson(const Volume &volume)
{
	Json::Value entry;
	entry["path"] = volume.path;
	entry["file_system"] = volume.fileSystem;
	entry["uuid"] = TextOrNull(volume.uuid);
	entry["device"] = volume.device;
	entry["alternative_device"] = TextOrNull(volume.alternativeDevice);
	entry["disks"] = volume.disks ? ToJson(*volume.disks) : Json::Value();
	entry["ssd_only"] = TruthOrNull(SsdOnly(volume));
	entry["sections"] = ToJson(SectionsOf(volume));
	entry["error"] = TextOrNull(volume.error);
	return entry;
}

Json::Value ToJson(const ArrayMember &member)
{
	Json::Value entry;
	entry["device"] = member.device;
	entry["disk"] = TextOrNull(member.disk);
	entry["failed"] = member.failed;
	entry["error"] = TextOrNull(member.error);
	return entry;
}

Json::Value ToJson(const Array &array)
{
	Json::Value entry;
	entry["device"] = array.device;
	entry["level"] = TextOrNull(array.level);
	entry["disks"] = array.diskCount;
	entry["active"] = array.diskCount > 0;
	entry["lacking"] = array.lacking;
	entry["broken"] = array.broken;
	entry["members"] = ToJson(array.members);
	entry["sections"] = ToJson(SectionsOf(array));
	return entry;
}

Json::Value ToJson(const Disk &disk)
{
	Words errors;
	for (const std::string &error : {disk.ssdError, disk.queue.schedulerError, disk.queue.tunablesError})
		if (!error.empty())
			errors.push_back(error);
	Json::Value entry;
	entry["device"] = disk.device;
	entry["kernel_name"] = disk.kernelName;
	entry["type"] = NameOfType(disk.type).forPrograms;
	entry["ssd"] = TruthOrNull(disk.ssd);
	entry["scheduler"] = TextOrNull(disk.queue.scheduler);
	entry["schedulers"] = ToJson(disk.queue.schedulers);
	entry["tunables"] = ToJson(disk.queue.tunables);
	entry["sections"] = ToJson(SectionsOf(disk));
	entry["error"] = TextOrNull(Joined(errors, "; "));
	return entry;
}

} // namespace

std::string DevicesTree(const Machine &machine, Branches branches)
{
	return Tree("volumes", ToNodes(machine.volumes), branches) +
	       Tree("RAID arrays", ToNodes(machine.arrays), branches) + Tree("disks", ToNodes(machine.disks), branches);
}

Json::Value DevicesJson(const Machine &machine)
{
	Json::Value result;
	result["volumes"] = ToJson(machine.volumes);
	result["arrays"] = ToJson(machine.arrays);
	result["disks"] = ToJson(machine.disks);
	return result;
}
