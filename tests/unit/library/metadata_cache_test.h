#ifndef TESTS_UNIT_LIBRARY_METADATA_CACHE_TEST_H
#define TESTS_UNIT_LIBRARY_METADATA_CACHE_TEST_H

// What the tests of the functions of <zevotuned/metadata_cache.h> have in common.

#include "kit/device_reads.h"
#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/pin_volume.h"
#include "kit/processes.h"
#include "kit/timeline.h"

#include <vunkcore/error.h>
#include <zevotuned/metadata_cache.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;

inline const std::string kFault = "[0xFA17 fault:1]";
inline const std::string kNoCode = "[0x0000 :0]";

/// A volume with the superblock and two chunks, the second of which is DUP; nothing of it is pinned yet. Nobody sleeps.
class MetadataCacheTest : public kit::LabTest {
protected:
	inline static const std::string kAllPinned = "16+1 512+16 600+8 700+8";
	inline static const std::string kVolume = kit::PinVolume::kPath;

	MetadataCacheTest()
	{
		volume.SetChunks({{1024, 16, 512}, {2048, 8, 600, 700}});
		VUNKCErrSetEx(0, "", 0);
	}

	/// Forgets what has been written down.
	void Forget()
	{
		journal.Clear();
		volume.storage.calls.clear();
		timeline.lines.clear();
		processes.lines.clear();
		VUNKCErrSetEx(0, "", 0);
	}

	/// A text of this volume: "{volume}" and the like stand for its paths.
	std::string Of(std::string text, const std::string &code = kFault) const
	{
		const std::pair<const char *, std::string> words[] = {{"{volume}", volume.kPath},
		                                                      {"{device}", volume.kDevice},
		                                                      {"{mapping}", volume.kMapping},
		                                                      {"{uuid}", volume.kUuid},
		                                                      {"{progress}", volume.kProgress},
		                                                      {"{pid}", volume.kPid},
		                                                      {"{code}", code}};
		for (const auto &[word, replacement] : words)
			for (size_t at; (at = text.find(word)) != std::string::npos;)
				text.replace(at, strlen(word), replacement);
		return text;
	}

	/// The lines of a chain of failures: "{code}" is what stands on the error stack.
	Lines Log(const Lines &texts, const std::string &code = kFault) const
	{
		Lines lines;
		for (const std::string &text : texts)
			lines.push_back("btrfs_metadata_cache.cpp " + Of(text, code));
		return lines;
	}

	static std::string Refused(const std::string &condition)
	{
		return "Invaild Argument (" + condition + ")=[0]\n";
	}

	/// Has put nothing on the volume nor below /run, nor changed the configuration.
	void ExpectNoFiles() const
	{
		EXPECT_TRUE(fs::is_empty(kVolume));
		EXPECT_FALSE(fs::exists("/run/zevotuned"));
		EXPECT_FALSE(fs::exists("/run/lock/zevotuned"));
		EXPECT_FALSE(fs::exists(kit::kConfigFile));
	}

	kit::PinVolume volume;
	kit::DeviceReads device;
	kit::Timeline timeline;
	kit::Processes processes;
	kit::Journal journal;
};

#endif
