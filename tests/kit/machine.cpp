#include "kit/machine.h"

#include "kit/lab.h"
#include "kit/machine_ioctl.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include <sys/mount.h>
#include <unistd.h>

namespace kit {

namespace fs = std::filesystem;

namespace {

std::string Sys(const std::string &path)
{
	return "/sys/" + path;
}

std::string MountInfo()
{
	return "/proc/" + std::to_string(getpid()) + "/task/" + std::to_string(gettid()) + "/mountinfo";
}

void File(const std::string &path, const std::string &text)
{
	WriteFile(Sys(path), text + "\n");
}

void Folder(const std::string &path)
{
	fs::create_directories(Sys(path));
}

void Link(const std::string &path, const std::string &target)
{
	fs::create_directories(fs::path(Sys(path)).parent_path());
	fs::create_symlink(target, Sys(path));
}

/// A link as the kernel writes it: up to the first folder that both share, and the last component is always named.
void LinkTo(const std::string &path, const std::string &target)
{
	const fs::path to(target);
	const fs::path up = to.parent_path().lexically_relative(fs::path(path).parent_path());
	Link(path, up / to.filename());
}

/// A device that a disk belongs to, in whose folder its "device" link leads.
void Parent(const std::string &folder, const std::string &subsystem, const std::map<std::string, std::string> &files)
{
	Folder(subsystem);
	LinkTo(folder + "/subsystem", subsystem);
	for (const auto &[name, text] : files)
		File(folder + "/" + name, text);
}

/// The number that a name ends with; 0 when there is none.
int TrailingNumber(const std::string &name)
{
	const size_t at = name.find_last_not_of("0123456789") + 1;
	return at == name.size() ? 0 : std::stoi(name.substr(at));
}

std::string DigitsAfter(const std::string &name, const std::string &prefix)
{
	const size_t at = prefix.size();
	return name.substr(at, name.find_first_not_of("0123456789", at) - at);
}

std::string PartitionName(const std::string &disk, int number)
{
	const bool endsInDigit = std::isdigit(static_cast<unsigned char>(disk.back())) != 0;
	return disk + (endsInDigit ? "p" : "") + std::to_string(number);
}

std::string Pair(int majorNumber, int minorNumber)
{
	return std::to_string(majorNumber) + ":" + std::to_string(minorNumber);
}

struct NumberRule {
	std::string_view prefix;
	int major;
	int minors;  // of each device
	bool byName; // the number that the name ends with counts
};

// Major numbers that the kernel gives out as it pleases (virtio, device mapper, bcache, zram) are usual ones.
constexpr NumberRule kNumberRules[] = {
	{"md", 9, 1, true},     {"dm-", 253, 1, true},   {"loop", 7, 1, true},      {"ram", 1, 1, true},
	{"zram", 251, 1, true}, {"sr", 11, 1, true},     {"nbd", 43, 16, true},     {"bcache", 250, 16, true},
	{"vd", 252, 16, false}, {"xvd", 202, 16, false}, {"mmcblk", 179, 8, false}, {"cciss!", 104, 16, false},
	{"", 259, 1, false},
};

/// The sixteen majors of SCSI disks, of sixteen disks with sixteen minors each.
constexpr std::array kScsiMajors = {8, 65, 66, 67, 68, 69, 70, 71, 128, 129, 130, 131, 132, 133, 134, 135};

const NumberRule &RuleOf(const std::string &name)
{
	return *std::find_if(std::begin(kNumberRules), std::end(kNumberRules),
	                     [&](const NumberRule &rule) { return name.starts_with(rule.prefix); });
}

std::string Escaped(const std::string &text, std::string_view special)
{
	std::string escaped;
	for (const char c : text) {
		if (special.find(c) == std::string_view::npos) {
			escaped += c;
			continue;
		}
		char octal[8];
		snprintf(octal, sizeof(octal), "\\%03o", static_cast<unsigned char>(c));
		escaped += octal;
	}
	return escaped;
}

/// The first word, which is taken off the text.
std::string TakeWord(std::string &text)
{
	const size_t end = std::min(text.find(' '), text.size());
	const std::string word = text.substr(0, end);
	text.erase(0, end + 1);
	if (word.empty())
		throw std::runtime_error("a word is missing");
	return word;
}

std::string Unescaped(const std::string &text)
{
	std::string plain;
	for (size_t i = 0; i < text.size(); ++i) {
		if (text[i] != '\\') {
			plain += text[i];
			continue;
		}
		++i;
		if (i == text.size() || (text[i] != 'n' && text[i] != '\\'))
			throw std::runtime_error("an escape that means nothing");
		plain += text[i] == 'n' ? '\n' : '\\';
	}
	return plain;
}

} // namespace

const std::map<std::string, std::string> *btrfsPaths = nullptr;

MountPoint::MountPoint(const std::string &source, std::string mountedAt, const char *fsType, unsigned long flags,
                       const char *options)
	: path(std::move(mountedAt))
{
	if (mount(source.c_str(), path.c_str(), fsType, flags, options) != 0)
		throw std::runtime_error("cannot mount " + source + " at " + path + ": " + strerror(errno));
}

MountPoint::~MountPoint()
{
	umount2(path.c_str(), MNT_DETACH);
}

Machine::Machine()
{
	RequireLab();
	if (kit::btrfsPaths != nullptr)
		throw std::logic_error("one machine at a time");
	SetMountLines({});
	sys = std::make_unique<MountPoint>("machine", "/sys", "tmpfs", 0, "mode=0755");
	mountInfo = std::make_unique<MountPoint>(folder.Path("mountinfo"), MountInfo(), nullptr, MS_BIND);
	for (const char *path : {"block", "class/block", "dev/block", "devices/virtual/block", "fs/btrfs"})
		Folder(path);
	SetDeviceMapper(&deviceMapper);
	kit::btrfsPaths = &btrfsPaths;
}

Machine::~Machine()
{
	SetDeviceMapper(nullptr);
	kit::btrfsPaths = nullptr;
}

MountPoint Machine::ForThisThread() const
{
	return MountPoint(folder.Path("mountinfo"), MountInfo(), nullptr, MS_BIND);
}

Machine::Machine(const std::string &file) : Machine()
{
	std::ifstream recording(file);
	if (!recording)
		throw std::runtime_error("cannot read " + file);
	int number = 0;
	for (std::string line; std::getline(recording, line);) {
		++number;
		try {
			if (!line.empty() && line[0] != '#')
				Record(line);
		} catch (const std::exception &error) {
			throw std::runtime_error(file + ":" + std::to_string(number) + ": " + error.what());
		}
	}
	SetMountLines(mountLines);
}

Machine Machine::Recorded(const std::string &name)
{
	return Machine(TEST_MACHINES "/" + name + ".machine");
}

Machine Machine::RecordedIn(const std::string &file)
{
	return Machine(file);
}

std::set<std::string> Machine::Recordings()
{
	std::set<std::string> names;
	for (const auto &entry : fs::directory_iterator(TEST_MACHINES))
		if (entry.path().extension() == ".machine")
			names.insert(entry.path().stem());
	return names;
}

void Machine::Record(const std::string &line)
{
	std::string rest = line;
	const std::string kind = TakeWord(rest);
	if (kind == "mount") {
		mountLines.push_back(rest);
		return;
	}
	const std::string subject = TakeWord(rest);
	if (kind == "dir" && rest.empty()) {
		Folder(subject);
	} else if (kind == "link") {
		Link(subject, TakeWord(rest));
		if (subject.starts_with("class/block/")) {
			const fs::path target = fs::path("class/block") / fs::read_symlink(Sys(subject));
			devices[target.filename()] = target.lexically_normal();
		}
	} else if (kind == "file") {
		File(subject, Unescaped(rest));
	} else if (kind == "table") {
		DeviceMapper::Table &table = deviceMapper.tables[subject];
		table.name = TakeWord(rest);
		table.targets.push_back(rest);
	} else {
		throw std::runtime_error("not a fact: " + line);
	}
}

const std::string &Machine::Find(const std::string &name) const
{
	const auto found = devices.find(name);
	if (found == devices.end())
		throw std::logic_error("no such device: " + name);
	return found->second;
}

std::string Machine::Number(const std::string &name) const
{
	const std::string text = ReadFile(Sys(Find(name) + "/dev"));
	return text.substr(0, text.find('\n'));
}

std::string Machine::NextNumber(const std::string &name)
{
	if (name.starts_with("sd")) {
		const size_t index = static_cast<size_t>(nextMinor[8]++);
		return Pair(kScsiMajors.at(index / 16), static_cast<int>(index % 16) * 16);
	}
	const NumberRule &rule = RuleOf(name);
	const int index = rule.byName ? TrailingNumber(name) : nextMinor[rule.major]++;
	return Pair(rule.major, index * rule.minors);
}

void Machine::Add(const std::string &name, const std::string &path, const std::string &number, long long sectors)
{
	if (!devices.emplace(name, path).second)
		throw std::logic_error("there is one already: " + name);
	LinkTo("class/block/" + name, path);
	LinkTo("dev/block/" + number, path);
	LinkTo(path + "/subsystem", "class/block");
	Folder(path + "/holders");
	File(path + "/dev", number);
	File(path + "/size", std::to_string(sectors));
	File(path + "/ro", "0");
}

void Machine::AddDisk(const std::string &name, const std::string &path, long long sectors, bool rotating)
{
	Add(name, path, NextNumber(name), sectors);
	LinkTo("block/" + name, path);
	Folder(path + "/slaves");
	File(path + "/hidden", "0");
	File(path + "/removable", "0");
	File(path + "/queue/rotational", rotating ? "1" : "0");
	File(path + "/queue/scheduler", "none");
}

void Machine::AddSlave(const std::string &name, const std::string &slave)
{
	LinkTo(Find(name) + "/slaves/" + slave, Find(slave));
	LinkTo(Find(slave) + "/holders/" + name, Find(name));
}

void Machine::Disk(const std::string &name, const DiskOptions &options)
{
	const std::string slot = std::to_string(nextSlot++);
	const std::string pci = "devices/pci0000:00/0000:00:";
	const std::string host = "/host" + slot;
	const std::string scsi = "/target" + slot + ":0:0/" + slot + ":0:0:0";
	const auto scsiFiles = [](const char *type, const char *vendor) {
		return std::map<std::string, std::string>{{"type", type}, {"vendor", vendor}, {"model", "Model 1"}};
	};

	std::string parent;
	std::string between = "/block/";
	switch (options.bus) {
	case Bus::Sata:
	case Bus::Optical:
		parent = pci + "1f.2/ata" + slot + host + scsi;
		Parent(parent, "bus/scsi", scsiFiles(options.bus == Bus::Optical ? "5" : "0", "ATA     "));
		break;
	case Bus::Sas:
		parent = pci + "05.0/0000:01:00.0" + host + "/port-" + slot + ":0/end_device-" + slot + ":0" + scsi;
		Parent(parent, "bus/scsi", scsiFiles("0", "MAKER   "));
		break;
	case Bus::Usb:
		parent = pci + "14.0/usb2/2-" + slot + "/2-" + slot + ":1.0" + host + scsi;
		Parent(parent, "bus/scsi", scsiFiles("0", "MAKER   "));
		break;
	case Bus::Nvme: {
		const std::string controller = "nvme" + DigitsAfter(name, "nvme");
		parent = pci + "06.0/nvme/" + controller;
		between = "/";
		if (!fs::exists(Sys(parent)))
			Parent(parent, "class/nvme", {{"model", "Model 1"}});
		break;
	}
	case Bus::Virtio:
		parent = pci + "07.0/virtio" + slot;
		Parent(parent, "bus/virtio", {{"vendor", "0x1af4"}});
		break;
	case Bus::Xen:
		parent = "devices/vbd-" + slot;
		Parent(parent, "bus/xen", {{"devtype", "vbd"}});
		break;
	case Bus::Emmc:
		if (const size_t boot = name.find("boot"); boot != std::string::npos) {
			parent = Find(name.substr(0, boot));
			between = "/";
			break;
		}
		[[fallthrough]];
	case Bus::Sd:
		parent = pci + "1a.0/mmc_host/mmc" + slot + "/mmc" + slot + ":0001";
		Parent(parent, "bus/mmc", {{"type", options.bus == Bus::Sd ? "SD" : "MMC"}});
		break;
	}

	const std::string path = parent + between + name;
	AddDisk(name, path, options.sectors, options.rotating);
	LinkTo(path + "/device", parent);
	if (options.hidden)
		fs::remove(Sys("dev/block/" + Number(name)));
	File(path + "/hidden", options.hidden ? "1" : "0");
	File(path + "/removable", options.bus == Bus::Optical || options.bus == Bus::Usb ? "1" : "0");
	File(path + "/queue/scheduler", options.schedulers);
	for (const auto &[tunable, value] : options.tunables)
		File(path + "/queue/iosched/" + tunable, value);
}

void Machine::Partition(const std::string &disk, int number)
{
	const std::string name = PartitionName(disk, number);
	const std::string whole = Number(disk);
	const int minors = disk.starts_with("sd") ? 16 : RuleOf(disk).minors;
	const std::string devno =
		number < minors ? Pair(std::stoi(whole), std::stoi(whole.substr(whole.find(':') + 1)) + number)
				: Pair(259, nextMinor[259]++);
	const std::string path = Find(disk) + "/" + name;
	Add(name, path, devno, 2048);
	File(path + "/partition", std::to_string(number));
	File(path + "/start", "2048");
}

void Machine::Loop(const std::string &name, bool rotating)
{
	const std::string path = "devices/virtual/block/" + name;
	AddDisk(name, path, 2048, rotating);
	File(path + "/loop/backing_file", "/images/" + name);
}

void Machine::Virtual(const std::string &name)
{
	AddDisk(name, "devices/virtual/block/" + name, 2048, false);
}

void Machine::Md(const std::string &name, const std::string &level, const std::vector<std::string> &members,
                 const MdOptions &options)
{
	const std::string path = "devices/virtual/block/" + name;
	const int present = static_cast<int>(members.size());
	const int raidDisks = options.raidDisks >= 0 ? options.raidDisks : present;
	AddDisk(name, path, 2048, false);
	File(path + "/md/level", level);
	File(path + "/md/raid_disks", std::to_string(raidDisks));
	File(path + "/md/array_state", options.state);
	File(path + "/md/degraded", std::to_string(std::max(raidDisks - present, 0)));
	File(path + "/md/metadata_version", "1.2");
	int slot = 0;
	for (const std::string &member : members) {
		const std::string ofMember = path + "/md/dev-" + member;
		AddSlave(name, member);
		LinkTo(ofMember + "/block", Find(member));
		File(ofMember + "/state", slot < raidDisks ? "in_sync" : "spare");
		File(ofMember + "/slot", slot < raidDisks ? std::to_string(slot) : "none");
		if (slot < raidDisks)
			LinkTo(path + "/md/rd" + std::to_string(slot), ofMember);
		++slot;
	}
}

void Machine::Dm(const std::string &name, const std::string &dmName, const std::string &uuid,
                 const std::vector<std::string> &slaves, const std::vector<std::string> &targets)
{
	const std::string path = "devices/virtual/block/" + name;
	AddDisk(name, path, 2048, false);
	File(path + "/dm/name", dmName);
	File(path + "/dm/uuid", uuid);
	File(path + "/dm/suspended", "0");
	for (const std::string &slave : slaves)
		AddSlave(name, slave);
	deviceMapper.tables[Number(name)] = {dmName, targets};
}

void Machine::Bcache(const std::string &name, const std::string &backing, const std::string &cache)
{
	const std::string path = "devices/virtual/block/" + name;
	const std::string set = "fs/bcache/9c0e0fbb-8a3c-4c0a-9d8b-" + (cache.empty() ? "none" : cache);
	AddDisk(name, path, 2048, false);
	if (!cache.empty()) {
		AddSlave(name, cache);
		if (!fs::exists(Sys(set))) {
			Folder(set);
			LinkTo(Find(cache) + "/bcache/set", set);
			LinkTo(set + "/cache0", Find(cache) + "/bcache");
		}
	}
	const std::string own = (backing.empty() ? path : Find(backing)) + "/bcache";
	File(own + "/label", "");
	LinkTo(own + "/dev", path);
	if (!cache.empty()) {
		LinkTo(own + "/cache", set);
		LinkTo(set + (backing.empty() ? "/volume0" : "/bdev" + std::to_string(TrailingNumber(name))), own);
	}
	if (backing.empty())
		return;
	AddSlave(name, backing);
	File(own + "/state", cache.empty() ? "no cache" : "clean");
	File(own + "/running", "1");
	File(own + "/cache_mode", "[writethrough] writeback writearound none");
	LinkTo(path + "/bcache", own);
}

void Machine::Btrfs(const std::string &uuid, const std::vector<std::string> &members, const BtrfsOptions &options)
{
	const std::string path = "fs/btrfs/" + uuid;
	Folder(path + "/devices");
	File(path + "/label", "");
	File(path + "/metadata_uuid", uuid);
	Folder("fs/btrfs/features");
	int id = 1;
	const auto addId = [&](bool isMissing) {
		const std::string info = path + "/devinfo/" + std::to_string(id++);
		File(info + "/missing", isMissing ? "1" : "0");
		File(info + "/in_fs_metadata", "1");
	};
	const auto isMissing = [&] {
		return std::find(options.missing.begin(), options.missing.end(), id) != options.missing.end();
	};
	for (const std::string &member : members) {
		while (isMissing())
			addId(true);
		addId(false);
		LinkTo(path + "/devices/" + member, Find(member));
	}
	while (isMissing())
		addId(true);
	for (const auto &[name, text] : options.files)
		File(path + "/" + name, text);
	btrfs[uuid] = members;
}

std::string Machine::SourceName(const std::string &source) const
{
	constexpr std::string_view kMapper = "/dev/mapper/";
	if (source.starts_with(kMapper)) {
		for (const auto &[name, path] : devices)
			if (fs::exists(Sys(path + "/dm/name")) &&
			    ReadFile(Sys(path + "/dm/name")) == source.substr(kMapper.size()) + "\n")
				return name;
	}
	std::string name = source.starts_with("/dev/") ? source.substr(5) : "";
	std::replace(name.begin(), name.end(), '/', '!');
	return devices.contains(name) ? name : "";
}

std::string Machine::DefaultNumber(const std::string &source, const std::string &path, const std::string &fsType)
{
	const std::string device = SourceName(source);
	std::string fileSystem = path + " " + fsType;
	if (fsType == "btrfs") {
		fileSystem = source;
		for (const auto &[uuid, members] : btrfs)
			if (std::find(members.begin(), members.end(), device) != members.end())
				fileSystem = uuid;
	} else if (!device.empty()) {
		return Number(device);
	}
	const int next = 40 + static_cast<int>(anonymousNumbers.size());
	return anonymousNumbers.emplace(fileSystem, Pair(0, next)).first->second;
}

/// As the kernel looks a path up: folder by folder, and onto whatever is mounted there.
int Machine::TopMount(const std::string &path) const
{
	constexpr int kUnseen = 1; // what the root stands on
	const auto isRoot = [](const MountRecord &mounted) { return mounted.path == "/"; };
	const auto root = std::find_if(mounts.begin(), mounts.end(), isRoot);
	int top = root != mounts.end() ? root->id : kUnseen;
	const auto enter = [&](const std::string &prefix) {
		for (const MountRecord &mounted : mounts) // a later one can only stand on an earlier one
			if (mounted.parent == top && mounted.path == prefix)
				top = mounted.id;
	};
	for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1))
		enter(path.substr(0, end));
	if (path != "/")
		enter(path);
	return top;
}

int Machine::Mount(const std::string &source, const std::string &path, const std::string &fsType,
                   const MountOptions &options)
{
	constexpr std::string_view kInPaths = " \t\n\\";
	constexpr std::string_view kInSources = " \t\n\\#";
	const int id = options.id != 0 ? options.id : 20 + static_cast<int>(mounts.size());
	const int parent = options.parent != 0 ? options.parent : TopMount(path);
	const std::string root = Escaped(options.root, kInPaths);
	std::string own = options.options;
	if (own.empty())
		own = fsType == "btrfs" ? "rw,space_cache=v2,subvol=" + root : "rw";
	const std::string devno = !options.devno.empty() ? options.devno : DefaultNumber(source, path, fsType);
	mounts.push_back({id, parent, path});
	mountLines.push_back(std::to_string(id) + " " + std::to_string(parent) + " " + devno + " " + root + " " +
	                     Escaped(path, kInPaths) + " rw,relatime shared:" + std::to_string(id) + " - " + fsType +
	                     " " + Escaped(source, kInSources) + " " + own);
	SetMountLines(mountLines);
	return id;
}

std::vector<std::string> Machine::MountLines() const
{
	return mountLines;
}

void Machine::SetMountLines(const std::vector<std::string> &lines)
{
	mountLines = lines;
	std::string text;
	for (const std::string &line : lines)
		text += line + "\n";
	WriteFile(folder.Path("mountinfo"), text);
}

void Machine::Remove(const std::string &name)
{
	const std::string gone = Find(name);
	for (auto device = devices.begin(); device != devices.end();) {
		const auto &[vanished, path] = *device;
		if (path != gone && !path.starts_with(gone + "/")) {
			++device;
			continue;
		}
		fs::remove(Sys("dev/block/" + Number(vanished)));
		fs::remove(Sys("block/" + vanished));
		fs::remove(Sys("class/block/" + vanished));
		device = devices.erase(device);
	}
	fs::remove_all(Sys(gone));
}

} // namespace kit
