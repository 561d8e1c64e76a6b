#ifndef TESTS_UNIT_INTERNALS_PIN_PASS_TEST_H
#define TESTS_UNIT_INTERNALS_PIN_PASS_TEST_H

// What the tests of the pin engine and of its parts have in common.

#include "btrfs_metadata_cache/pin_engine.h"
#include "btrfs_metadata_cache/policy.h"

#include "kit/device_reads.h"
#include "kit/faults.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/pin_volume.h"
#include "kit/timeline.h"

#include <vunkcore/error.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using Lines = std::vector<std::string>;

inline const std::string kFault = "[0xFA17 fault:1]";

/// Sections of the mapping file.
inline std::string Config(const std::string &status, uint64_t maxUsedSize)
{
	return "[config]\nstatus=\"" + status + "\"\nmax_used_size=\"" + std::to_string(maxUsedSize) + "\"\n";
}

/// A chunk's, in blocks but for its name.
inline std::string Record(uint64_t name, int status, uint64_t size, const std::vector<uint64_t> &stripes)
{
	const auto key = [](const std::string &text, uint64_t value) {
		return text + "=\"" + std::to_string(value) + "\"\n";
	};
	std::string text = "[" + std::to_string(name) + "]\n" + key("status", static_cast<uint64_t>(status)) +
	                   key("size", size * kit::PinVolume::kBlock) + key("stripe_count", stripes.size());
	for (size_t i = 0; i < stripes.size(); ++i)
		text += key("stripe_offset_" + std::to_string(i), stripes[i] * kit::PinVolume::kBlock);
	return text;
}

inline std::string Record(const kit::MetadataChunk &chunk, int status = 1)
{
	std::vector<uint64_t> stripes = {chunk.stripe};
	if (chunk.secondStripe != 0)
		stripes.push_back(chunk.secondStripe);
	return Record(chunk.offset * kit::PinVolume::kBlock, status, chunk.size, stripes);
}

/// The first copy of the superblock.
inline std::string SuperblockRecord(int status = 1)
{
	return Record(1, status, 1, {16});
}

/// A volume with the superblock and two chunks, the second of which is DUP; nothing of it is pinned yet. After every test,
/// nothing of a pass is left.
class PinPassTest : public kit::LabTest {
protected:
	inline static const kit::MetadataChunk kFirst = {1024, 16, 512};
	inline static const kit::MetadataChunk kSecond = {2048, 8, 600, 700};
	static constexpr uint64_t kAllBytes = (1 + 16 + 2 * 8) * kit::PinVolume::kBlock;
	inline static const std::string kAllPinned = "16+1 512+16 600+8 700+8";
	/// What a whole pass over it leaves.
	inline static const std::string kAllRecords = SuperblockRecord() + Record(kFirst) + Record(kSecond);

	PinPassTest()
	{
		volume.SetChunks({kFirst, kSecond});
		CompleteConfiguration();
		Forget();
	}

	void TearDown() override
	{
		ExpectNothingLeft();
		kit::LabTest::TearDown();
	}

	/// Makes the volume one on which the engine has never run.
	void Renew()
	{
		std::filesystem::remove_all(std::filesystem::path(volume.kMapping).parent_path());
		kit::WriteFile(volume.kSwitch, "0\n");
		volume.tool.Clear();
		volume.storage.volumeConf[volume.kPath] = {.metadataCache = 1};
		Forget();
	}

	/// Pins all there is, undisturbed.
	void PinAll()
	{
		volume.storage.volumeConf[volume.kPath].metadataCache = 1;
		ASSERT_EQ(__BtrfsMetadataCacheSet(volume.kPath), 0);
		ASSERT_EQ(journal.Lines(), Lines{});
		ASSERT_EQ(Switch(), "1\n");
		Forget();
	}

	/// Sets a key of the tuned configuration; the others are the defaults.
	void Configure(const std::string &key, const std::string &value)
	{
		volume.Configure({{key, value}});
		CompleteConfiguration();
	}

	void SwitchVolume(bool on) { volume.storage.volumeConf[volume.kPath].metadataCache = on ? 1 : 0; }

	/// Forgets what has been written down.
	void Forget()
	{
		journal.Clear();
		volume.tool.lines.clear();
		volume.storage.calls.clear();
		device.lines.clear();
		timeline.lines.clear();
		VUNKCErrSetEx(0, "", 0);
	}

	int Set() { return __BtrfsMetadataCacheSet(volume.kPath); }

	std::string Switch() const { return kit::ReadFile(volume.kSwitch); }
	std::string Mapping() const { return kit::ReadFile(volume.kMapping); }
	void WriteMapping(const std::string &text) const { kit::WriteFile(volume.kMapping, text); }

	static bool Contains(const std::string &text, const std::string &part)
	{
		return text.find(part) != std::string::npos;
	}

	size_t Count(const std::string &call) const
	{
		return static_cast<size_t>(
			std::count_if(volume.storage.calls.begin(), volume.storage.calls.end(),
		                      [&](const std::string &line) { return line.starts_with(call); }));
	}

	/// Those that had the lock.
	long Passes() const
	{
		return std::count(timeline.lines.begin(), timeline.lines.end(), "unlink " + volume.kPid);
	}

	/// Neither the files of a pass, nor its lock, nor the marker that the cache is being filled.
	void ExpectNothingLeft() const
	{
		EXPECT_FALSE(std::filesystem::exists(volume.kPid));
		EXPECT_FALSE(std::filesystem::exists(volume.kProgress));
		EXPECT_EQ(Count("ZEVOSpaceBuildFileSet"), Count("ZEVOSpaceBuildFileRemove"));
		EXPECT_TRUE(IsLockFree());
		if (volume.HasMapping()) {
			EXPECT_EQ(kit::Names(std::filesystem::path(volume.kMapping).parent_path()).size(), 1u);
		}
	}

	bool IsLockFree() const
	{
		const int fd = open(volume.kLock.c_str(), O_RDWR | O_CLOEXEC);
		if (fd < 0)
			return true;
		const bool isFree = flock(fd, LOCK_EX | LOCK_NB) == 0;
		close(fd);
		return isFree;
	}

	/// A log line, or another text, of this volume: "{volume}" and the like stand for its paths.
	std::string Of(std::string text, const std::string &code = kFault) const
	{
		const std::pair<const char *, std::string> words[] = {
			{"{volume}", volume.kPath},       {"{device}", volume.kDevice}, {"{mapping}", volume.kMapping},
			{"{switch}", volume.kSwitch},     {"{uuid}", volume.kUuid},     {"{pid}", volume.kPid},
			{"{progress}", volume.kProgress}, {"{lock}", volume.kLock},     {"{code}", code}};
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

	/// What a chain of failures goes on with: out of the walk over the superblock's copies or over the chunks, out of an
	/// enabling or a disabling pass. The last line is that of the engine.
	Lines OfSuperblocks(Lines chain, const std::string &code = kFault) const
	{
		return OfEnabling(Joined(std::move(chain), Log({"Failed to PinChunks for SB with [{volume}]{code}",
		                                                "Failed to PinBtrfsMetadataSB with [{volume}].{code}"},
		                                               code)),
		                  code);
	}
	Lines OfMetadata(Lines chain, const std::string &code = kFault, int error = EIO) const
	{
		return OfEnabling(
			Joined(std::move(chain), Log({"Failed to PinChunks for Metadata with [{volume}]{code}",
		                                      "Failed to PinBtrfsMetadataChunk with [{volume}].{code}"},
		                                     code)),
			code, error);
	}
	Lines OfEnabling(Lines chain, const std::string &code = kFault, int error = EIO) const
	{
		return OfEngine(Joined(std::move(chain), Log({"Failed to pin btrfs metadata on [{volume}] errno[" +
		                                              std::to_string(error) + "]{code}"},
		                                             code)),
		                code);
	}
	Lines OfDisabling(Lines chain, const std::string &code = kFault) const
	{
		return OfEngine(Joined(std::move(chain),
		                       Log({"Failed to remove btrfs metadata pin file for {volume}{code}"}, code)),
		                code);
	}
	Lines OfEngine(Lines chain, const std::string &code = kFault) const
	{
		return Joined(std::move(chain), Log({"Failed to __BtrfsMetadataCacheSet with [{volume}]{code}"}, code));
	}
	static Lines Joined(Lines lines, const Lines &more)
	{
		lines.insert(lines.end(), more.begin(), more.end());
		return lines;
	}

	/// With 0 for every errno, which means nothing where it is not of the failure.
	static Lines WithoutErrno(Lines lines)
	{
		for (std::string &line : lines)
			line = std::regex_replace(line, std::regex(R"(errno\[\d+\])"), "errno[0]");
		return lines;
	}

	/// The result of a call and its lines: what there is to be told apart in failures.
	struct Outcome {
		int result;
		Lines lines;

		auto operator<=>(const Outcome &) const = default;
		friend std::ostream &operator<<(std::ostream &out, const Outcome &outcome)
		{
			out << "\n" << outcome.result;
			for (const std::string &line : outcome.lines)
				out << "\n\t" << line;
			return out;
		}
	};

	/// Lets each call of a function fail once, the calls of a pass over what `arrange` makes, and gives all outcomes
	/// that there are. After each the lock is free and so on, and a second pass mends all.
	std::set<Outcome> OutcomesOf(const std::string &function, const std::function<void()> &arrange)
	{
		std::set<Outcome> outcomes;
		for (int n = 1; n < 1000; ++n) {
			SCOPED_TRACE(function + " " + std::to_string(n));
			arrange();
			Forget();
			int result;
			{
				const kit::Fault fault(function, n);
				result = Set();
				if (!fault.Struck()) {
					EXPECT_EQ(result, 0);
					EXPECT_EQ(journal.Lines(), Lines{});
					return outcomes;
				}
			}
			outcomes.insert({result, journal.Lines()});
			ExpectNothingLeft();
			journal.Clear();
			EXPECT_EQ(Set(), 0);
			EXPECT_EQ(journal.Lines(), Lines{});
		}
		ADD_FAILURE() << "does not end";
		return outcomes;
	}

	/// What a pass has done, in order and in short: what is only asked for names is left out.
	///
	///   check               both checks of a pass; "cache?" and "switch?" when there is only one of them
	///   add [1], modify [1], remove [1]           sections of the mapping file
	///   --set-bitmap 128 8                        a run of the pin tool: start and number of sectors
	///   drop                                      of what the kernel has read of the device
	Lines Steps() const
	{
		Lines steps;
		for (const std::string &line : timeline.lines) {
			const std::string step = Step(line);
			if (step == "switch?" && !steps.empty() && steps.back() == "cache?")
				steps.back() = "check";
			else if (!step.empty())
				steps.push_back(step);
		}
		return steps;
	}

	kit::PinVolume volume;
	kit::DeviceReads device;
	kit::Timeline timeline;
	kit::Journal journal;

private:
	static std::string Step(const std::string &line)
	{
		static const std::map<std::string, std::string> names = {
			{"ZEVOVolumeConfGet", "switch?"},
			{"ZEVOSpaceInfoEnum", "cache?"},
			{"posix_fadvise", "drop"},
			{"VUNKCFileAddSection", "add"},
			{"VUNKCIFileModifySection", "modify"},
			{"VUNKCFileRemoveSection", "remove"},
			{"ZEVOFSGetBTRFSUuid", ""},
			{"ZEVOGetFSType", ""},
			{"ZEVOFlashCacheConfigTmpGet", ""},
			{"ZEVOFlashCacheSupportFlagsGet", ""},
			{"ModelSupportPin", ""},
		};
		const size_t space = line.find(' ');
		if (const auto name = names.find(line.substr(0, space)); name != names.end())
			return name->second.find('?') != std::string::npos || name->second.empty() ||
			                       name->second == "drop"
			               ? name->second
			               : name->second + " [" + line.substr(space + 1) + "]";
		std::string step = line;
		for (const char *const option : {" --mount-path /run/volume1", " --start-sector", " --num-sectors"})
			if (const size_t at = step.find(option); at != std::string::npos)
				step.erase(at, strlen(option));
		return step;
	}

	/// What lacks a key is completed when it is first read, which is none of the engine's business.
	void CompleteConfiguration()
	{
		MetadataCacheContext context = {};
		ASSERT_GE(BtrfsMetadataCachePolicyCheck(context, volume.kPath, false), 0);
	}
};

#endif
