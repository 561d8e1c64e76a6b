#ifndef TESTS_SYSTEM_CACHED_VOLUMES_H
#define TESTS_SYSTEM_CACHED_VOLUMES_H

// Real Btrfs volumes on loop devices, with an SSD cache declared in front of each, and a program for a pin tool. The
// attribute that only an appliance's kernel has stands beside the real ones, in a /sys of the test's own.

#include "system/btrfs_chunks.h"

#include "kit/files.h"
#include "kit/loop_device.h"

#include <vunkcore/hash.h>
#include <vunkcore/list.h>
#include <vunkcore/section_file.h>
#include <zevostorage/zevostorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace cached {

constexpr long long kVolumeSize = 1LL << 30;
constexpr const char *kTool = "/usr/zevo/sbin/zevocachepinfiletool";
constexpr const char *kToolFolder = "/run/pin-tool";

struct Range {
	uint64_t offset;
	uint64_t size;

	auto operator<=>(const Range &) const = default;
};

using Ranges = std::vector<Range>;

inline void PrintTo(const Range &range, std::ostream *out)
{
	*out << range.offset << '+' << range.size;
}

/// Each stripe of "offset size stripe stripe".
inline Ranges Stripes(const std::vector<std::string> &chunks)
{
	Ranges ranges;
	for (const std::string &chunk : chunks) {
		std::istringstream words(chunk);
		uint64_t address;
		uint64_t size;
		words >> address >> size;
		for (uint64_t stripe; words >> stripe;)
			ranges.push_back({stripe, size});
	}
	return ranges;
}

/// kit::MountPoint for programs whose own calls nothing stands in for: these fork while threads run.
class Mounted {
public:
	Mounted(const std::string &source, std::string mountedAt, const char *fsType, const std::string &options = "")
		: path(std::move(mountedAt))
	{
		if (mount(source.c_str(), path.c_str(), fsType, 0, options.c_str()) != 0)
			throw std::runtime_error("cannot mount " + source + " at " + path + ": " + strerror(errno));
	}
	~Mounted() { umount2(path.c_str(), MNT_DETACH); }
	Mounted(const Mounted &) = delete;
	Mounted &operator=(const Mounted &) = delete;

private:
	const std::string path;
};

/// A mounted volume. Where what the engine keeps of it is follows from its UUID.
class Volume {
public:
	explicit Volume(const std::string &mountedAt) : device(kVolumeSize), path(mountedAt)
	{
		kit::RunProgram({"mkfs.btrfs", "-q", "-f", "-K", "-m", "dup", device.Path()});
		std::filesystem::create_directory(path);
		Mount();
		char text[ZEVO_UUID_SIZE] = "";
		if (ZEVOFSGetBTRFSUuid(path.c_str(), text, sizeof(text)) != 0)
			throw std::runtime_error("no UUID");
		const std::string uuid = text;
		attribute = "/sys/fs/btrfs/" + uuid + "/metadata_cache_enable";
		runFile = "/run/zevotuned/metadata_cache/" + uuid;
		lock = "/run/lock/zevotuned/metadata_cache/" + uuid + ".lock";
		conf = std::string(ZEVO_VOLUME_CONF_DIR) + "/" + uuid;
		mapping = path + "/@eaDir/zevo_btrfs_metadata_mapping_config";
	}

	void Mount() { mount = std::make_unique<Mounted>(device.Path(), path, "btrfs"); }
	void Unmount() { mount.reset(); }

	void WhileChunksStay(const std::function<void(const std::vector<std::string> &)> &look) const
	{
		::WhileChunksStay(path, device.Path(), look);
	}

	/// What the file system's own tools say is to be pinned, in the order of the walks.
	Ranges Wanted(const std::vector<std::string> &chunks) const
	{
		Ranges ranges = Stripes(SuperblocksOnDevice(device.Path()));
		const Ranges stripes = Stripes(chunks);
		ranges.insert(ranges.end(), stripes.begin(), stripes.end());
		return ranges;
	}

	/// What is recorded, by offset; those that are not done only with `wantsUndone`.
	Ranges Recorded(bool wantsUndone) const
	{
		Ranges ranges;
		VUNKSZLIST *sections = VUNKCSzListAlloc(1024);
		EXPECT_GE(VUNKCFileEnumSection(mapping.c_str(), &sections), 0);
		for (int i = 0; i < sections->nItem; ++i) {
			VUNKSZHASH *pairs = VUNKCSzHashAlloc(1024);
			EXPECT_GE(VUNKCFileGetSection(mapping.c_str(), VUNKCSzListGet(sections, i), &pairs), 0);
			const char *const size = VUNKCSzHashGetValue(pairs, "size");
			const std::string status = VUNKCSzHashGetValue(pairs, "status");
			for (const char *key : {"stripe_offset_0", "stripe_offset_1"})
				if (const char *stripe = VUNKCSzHashGetValue(pairs, key);
				    stripe != nullptr && (wantsUndone || status == "1"))
					ranges.push_back({std::stoull(stripe), std::stoull(size)});
			VUNKCSzHashFree(pairs);
		}
		VUNKCSzListFree(sections);
		std::sort(ranges.begin(), ranges.end());
		return ranges;
	}

	/// Of the mapping file as a whole: "1" building, "2" complete, "3" disabled; empty when there is none.
	std::string MappingStatus() const
	{
		if (!std::filesystem::exists(mapping))
			return "";
		VUNKSZHASH *pairs = VUNKCSzHashAlloc(1024);
		EXPECT_GE(VUNKCFileGetSection(mapping.c_str(), "config", &pairs), 0);
		const char *const value = VUNKCSzHashGetValue(pairs, "status");
		const std::string status = value == nullptr ? "none" : value;
		VUNKCSzHashFree(pairs);
		return status;
	}

	char KernelSwitch() const { return kit::ReadFile(attribute).at(0); }

	void ExpectLockIsFree() const
	{
		const int fd = open(lock.c_str(), O_RDONLY | O_CLOEXEC);
		EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
		close(fd);
	}

	void ExpectNothingLeftOfThePass() const
	{
		EXPECT_FALSE(std::filesystem::exists(runFile + ".pid"));
		EXPECT_FALSE(std::filesystem::exists(runFile + ".progress"));
		ExpectLockIsFree();
	}

	/// After a pass that was wanted and has succeeded.
	void ExpectPinned(Ranges wanted) const
	{
		std::sort(wanted.begin(), wanted.end());
		EXPECT_EQ(Recorded(false), wanted);
		EXPECT_EQ(KernelSwitch(), '1');
		EXPECT_EQ(MappingStatus(), "2");
		ExpectNothingLeftOfThePass();
	}

	/// After one that was not wanted.
	void ExpectNotPinned() const
	{
		EXPECT_FALSE(std::filesystem::exists(mapping));
		EXPECT_EQ(KernelSwitch(), '0');
		ExpectNothingLeftOfThePass();
	}

	kit::LoopDevice device;
	const std::string path;
	std::string attribute;
	std::string runFile; // without ".pid" or ".progress"
	std::string lock;
	std::string conf;
	std::string mapping;

private:
	std::unique_ptr<Mounted> mount;
};

/// So many volumes, the declarations of their caches, and a program as the pin tool, while the object lives.
class Volumes {
public:
	Volumes(size_t count, const std::string &tool)
	{
		MakeSys();
		std::filesystem::create_directory(kToolFolder);
		std::filesystem::create_directories(std::filesystem::path(kTool).parent_path());
		std::filesystem::copy_file(tool, kTool);
		std::string declared;
		for (size_t i = 0; i < count; ++i) {
			const std::string number = std::to_string(i + 1);
			volumes.push_back(std::make_unique<Volume>(folder.Path("volume" + number)));
			declared += "[" + number + "]\nvolume=" + volumes.back()->path + "\nid=ssd_" + number +
			            "\nmode=4\nflags=0x6\nsize=256000000000\nreference=cache-" + number + "\n";
		}
		kit::WriteFile(ZEVO_FLASH_CACHE_FILE, declared);
		Mounted();
	}
	~Volumes()
	{
		volumes.clear();
		sys.reset();
		std::error_code ignored;
		std::filesystem::remove_all(kToolFolder, ignored);
		std::filesystem::remove(kTool, ignored);
	}
	Volumes(const Volumes &) = delete;
	Volumes &operator=(const Volumes &) = delete;

	size_t Count() const { return volumes.size(); }
	Volume &operator[](size_t index) const { return *volumes[index]; }

	/// To be called when a volume has been mounted again.
	void Mounted()
	{
		MakeSys();
		for (const auto &volume : volumes)
			kit::WriteFile(volume->attribute, "0\n");
	}

private:
	/// One of the test's own: an overlay takes a device or a file system that has gone and come back for a stale one.
	void MakeSys()
	{
		sys.reset();
		const kit::TempDir &layers = *sysLayers.emplace_back(std::make_unique<kit::TempDir>());
		std::filesystem::create_directory(layers.Path("upper"));
		std::filesystem::create_directory(layers.Path("work"));
		sys = std::make_unique<cached::Mounted>(
			"overlay", "/sys", "overlay",
			"lowerdir=/run/lab/kernel-sys,upperdir=" + layers.Path("upper") +
				",workdir=" + layers.Path("work"));
	}

	kit::TempDir folder;
	std::vector<std::unique_ptr<kit::TempDir>> sysLayers;
	std::unique_ptr<cached::Mounted> sys;
	std::vector<std::unique_ptr<Volume>> volumes;
};

/// While the object lives, processes whose parents have ended are children of this one. In the lab that may be so anyway.
class Adopting {
public:
	Adopting()
	{
		if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0)
			throw std::runtime_error("cannot adopt");
	}
	~Adopting() { prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0); }
	Adopting(const Adopting &) = delete;
	Adopting &operator=(const Adopting &) = delete;

	/// Until all children have ended, which engines and pin tools are.
	void WaitForAll() const
	{
		while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
		}
	}
};

} // namespace cached

#endif
