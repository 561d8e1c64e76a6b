#ifndef TESTS_KIT_PIN_VOLUME_H
#define TESTS_KIT_PIN_VOLUME_H

// A Btrfs volume behind an SSD cache, whose metadata can be pinned: all that the pin engine works with, made up.

#include "kit/fake_btrfs.h"
#include "kit/files.h"
#include "kit/pin_tool.h"
#include "kit/storage.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

namespace kit {

/// A metadata chunk, in blocks of 4096 bytes; of DUP when it has a second stripe.
struct MetadataChunk {
	uint64_t offset;
	uint64_t size;
	uint64_t stripe;
	uint64_t secondStripe = 0;

	bool operator==(const MetadataChunk &) const = default;
};

/// While the object lives there is /run/volume1. Its device is a sparse file; the storage library has it, with a cache of 1 GiB
/// that can pin, and with its own switch on; the kernel has a switch for it. Objects do not nest.
class PinVolume {
public:
	static constexpr uint64_t kBlock = 4096;
	static constexpr const char *kPath = "/run/volume1";
	static constexpr const char *kDevice = "/run/volume1-device";
	static constexpr const char *kUuid = "11111111-0000-4000-8000-0000000000aa";

	inline static const std::string kMapping = std::string(kPath) + "/@eaDir/zevo_btrfs_metadata_mapping_config";
	inline static const std::string kSwitch = std::string("/sys/fs/btrfs/") + kUuid + "/metadata_cache_enable";
	inline static const std::string kProgress = std::string("/run/zevotuned/metadata_cache/") + kUuid + ".progress";
	inline static const std::string kPid = std::string("/run/zevotuned/metadata_cache/") + kUuid + ".pid";
	inline static const std::string kLock = std::string("/run/lock/zevotuned/metadata_cache/") + kUuid + ".lock";

	PinVolume()
	{
		RemoveFiles();
		std::filesystem::create_directories(kPath);
		WriteFile(kDevice, "");
		std::filesystem::resize_file(kDevice, PinTool::kBlocks * kBlock);
		WriteFile(kSwitch, "0\n");
		storage.volumes = {{.path = kPath, .uuid = kUuid, .device = kDevice}};
		storage.volumeConf[kPath].metadataCache = 1;
		storage.caches[kPath] = {};
		btrfs.devices = {{1, kDevice}};
		btrfs.deviceSize = 1 << 20; // one copy of the superblock
	}
	~PinVolume() { RemoveFiles(); }
	PinVolume(const PinVolume &) = delete;
	PinVolume &operator=(const PinVolume &) = delete;

	/// Gives the volume other metadata: chunks with rising offsets.
	void SetChunks(const std::vector<MetadataChunk> &chunks)
	{
		btrfs.chunks.clear();
		uint64_t size = 0;
		for (const MetadataChunk &chunk : chunks) {
			const uint64_t dup = chunk.secondStripe != 0 ? 32 : 0;
			FakeChunk fake = {chunk.offset * kBlock, chunk.size * kBlock, 4 | dup, {}};
			for (const uint64_t stripe : {chunk.stripe, chunk.secondStripe})
				if (stripe != 0)
					fake.stripes.push_back({1, stripe * kBlock});
			size += fake.length;
			btrfs.chunks.push_back(fake);
		}
		btrfs.spaces = {{4, size, 0}};
	}

	/// What of the configuration is not the default: "btrfs_metadata_cache_on" and the like. A missing one is completed.
	void Configure(const std::map<std::string, std::string> &settings)
	{
		std::string text;
		for (const auto &[key, value] : settings)
			text += key + "=\"" + value + "\"\n";
		WriteFile("/usr/zevo/etc/zevotuned/config", text);
	}

	bool HasMapping() const { return std::filesystem::exists(kMapping); }

	FakeStorage storage;
	FakeBtrfs btrfs;
	PinTool tool;

private:
	static void RemoveFiles()
	{
		std::filesystem::remove_all(kPath);
		std::filesystem::remove(kDevice);
		std::filesystem::remove_all(std::filesystem::path(kSwitch).parent_path());
	}
};

} // namespace kit

#endif
