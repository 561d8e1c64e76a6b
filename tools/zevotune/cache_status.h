#ifndef ZEVOTUNE_CACHE_STATUS_H
#define ZEVOTUNE_CACHE_STATUS_H

// What has become of a volume's metadata, for people and programs.

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>

enum class CacheState {
	kNothing, // is pinned
	kPinning, // for the first time
	kPinned,  // all that the volume had when it was last looked through
	kUnpinning,
	kPinningStopped,  // half-way, and nobody is at it
	kUnpinningStopped // likewise
};

struct CacheFacts {
	std::string path; // of the volume, as the storage library lists it
	std::string uuid;
	std::string device;
	int status = 0;                    // ZEVO_METADATA_CACHE_...
	uint64_t total = 0;                // bytes to go through while it is being pinned; 0: unknown
	uint64_t done = 0;                 // of these
	bool isRecorded = false;           // the mapping file is there
	uint64_t recorded = 0;             // bytes on the device that it records
	uint64_t ranges = 0;               // in which these lie
	uint64_t metadata = 0;             // as recorded, but without the copies of the superblock
	std::optional<bool> isOn;          // the switch; never set where it has no value
	int engine = 0;                    // the process in which one runs; 0: none
	std::optional<uint64_t> limit;     // bytes that may be pinned; unknown without root or a cache
	std::optional<uint64_t> allocated; // bytes that metadata takes on the device
};

CacheState StateOf(const CacheFacts &facts);

/// Whether somebody is changing what is pinned.
bool IsUnderWay(const CacheFacts &facts);

/// What is pinned, and what to do where that is not as it should be: one line without its end.
std::string CacheStateText(const CacheFacts &facts);

/// The same of what a pinned volume has, but is not pinned; "" where there is nothing of that kind.
std::string NotPinnedText(const CacheFacts &facts);

/// All of it, in a few lines.
std::string CacheStatusText(const CacheFacts &facts);

Json::Value CacheStatusJson(const CacheFacts &facts);

/// "520 MiB in 8 ranges"
std::string AmountText(uint64_t bytes, uint64_t ranges);

/// A path as a shell takes it.
std::string ShellWord(const std::string &text);

/// `"zevotune cache status /volume1 --watch" follows it, "sudo zevotune cache stop /volume1" ends it`
std::string HowToFollow(const std::string &path);

#endif
