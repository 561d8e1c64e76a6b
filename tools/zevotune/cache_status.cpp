#include "cache_status.h"

#include "cache_progress.h"
#include "metadata_size.h"
#include "output.h"

#include <zevotuned/metadata_cache.h>

namespace {

std::string Command(const std::string &command, const CacheFacts &facts)
{
	return "\"sudo zevotune cache " + command + ' ' + ShellWord(facts.path) + '"';
}

std::string AmountOf(const CacheFacts &facts)
{
	return AmountText(facts.recorded, facts.ranges);
}

std::string NothingText(const CacheFacts &facts)
{
	if (facts.isOn != true)
		return "nothing is pinned";
	return "nothing is pinned, although the switch is on; " + Command("rescan", facts) + " pins it, and " +
	       Command("check", facts) + " says whether that can be";
}

std::string PinningText(const CacheFacts &facts)
{
	const std::string amount = facts.total > 0 ? ProgressText({facts.done, facts.total, {}, {}}) : AmountOf(facts);
	return "being pinned: " + amount;
}

std::string PinnedText(const CacheFacts &facts)
{
	std::string text = "pinned: " + AmountOf(facts);
	if (facts.isOn == true || facts.engine != 0)
		return text;
	return text + ", although the switch is not on; " + Command("rescan", facts) + " unpins it";
}

std::string PinningStoppedText(const CacheFacts &facts)
{
	return "pinned in part, and nobody is at it: " + AmountOf(facts) + "; " + Command("rescan", facts) +
	       (facts.isOn == true ? " goes on, " : " or ") + Command("off", facts) + " takes it back";
}

std::string UnpinningStoppedText(const CacheFacts &facts)
{
	return "unpinned in part, and nobody is at it: " + AmountOf(facts) + " are left; " + Command("rescan", facts) +
	       (facts.isOn == true ? " pins all of it again" : " goes on");
}

const char *StateName(CacheState state)
{
	switch (state) {
	case CacheState::kNothing:
		return "nothing_pinned";
	case CacheState::kPinning:
		return "pinning";
	case CacheState::kPinned:
		return "pinned";
	case CacheState::kUnpinning:
		return "unpinning";
	case CacheState::kPinningStopped:
		return "pinning_stopped";
	case CacheState::kUnpinningStopped:
		break;
	}
	return "unpinning_stopped";
}

/// Of a pinned volume: what is there, but not pinned.
uint64_t Missing(const CacheFacts &facts)
{
	const uint64_t allocated = facts.allocated.value_or(0);
	return StateOf(facts) == CacheState::kPinned && allocated > facts.metadata ? allocated - facts.metadata : 0;
}

std::string LimitLine(const CacheFacts &facts)
{
	return facts.limit ? "limit: " + SizeText(*facts.limit) + " of the SSD cache may be taken\n" : "";
}

Json::Value NumberOrNull(std::optional<uint64_t> number)
{
	return number ? Json::Value(Json::UInt64{*number}) : Json::Value();
}

} // namespace

CacheState StateOf(const CacheFacts &facts)
{
	const bool isWorkedOn = facts.engine != 0;
	if (facts.status == ZEVO_METADATA_CACHE_PINNED)
		return CacheState::kPinned;
	if (facts.status == ZEVO_METADATA_CACHE_WORKING && facts.total > 0)
		return CacheState::kPinning;
	// The library does not look whether somebody is at it then.
	if (facts.status == ZEVO_METADATA_CACHE_WORKING && isWorkedOn)
		return CacheState::kUnpinning;
	// An engine reports some time after it has begun to pin.
	if (isWorkedOn && (facts.isRecorded || facts.isOn == true))
		return CacheState::kPinning;
	if (facts.ranges == 0)
		return CacheState::kNothing;
	return facts.status == ZEVO_METADATA_CACHE_WORKING ? CacheState::kUnpinningStopped
	                                                   : CacheState::kPinningStopped;
}

bool IsUnderWay(const CacheFacts &facts)
{
	const CacheState state = StateOf(facts);
	return facts.engine != 0 || state == CacheState::kPinning || state == CacheState::kUnpinning;
}

std::string CacheStateText(const CacheFacts &facts)
{
	switch (StateOf(facts)) {
	case CacheState::kNothing:
		return NothingText(facts);
	case CacheState::kPinning:
		return PinningText(facts);
	case CacheState::kPinned:
		return PinnedText(facts);
	case CacheState::kUnpinning:
		return "being unpinned: " + AmountOf(facts) + " are left";
	case CacheState::kPinningStopped:
		return PinningStoppedText(facts);
	case CacheState::kUnpinningStopped:
		break;
	}
	return UnpinningStoppedText(facts);
}

std::string NotPinnedText(const CacheFacts &facts)
{
	const uint64_t missing = Missing(facts);
	if (missing == 0)
		return "";
	return "not pinned: " + SizeText(missing) + " of metadata, new since the last pass or beyond the limit; " +
	       Command("rescan", facts) + " pins what is new";
}

std::string CacheStatusText(const CacheFacts &facts)
{
	const std::string turned = !facts.isOn ? "never set" : *facts.isOn ? "on" : "off";
	const std::string engine = facts.engine == 0 ? "none" : "process " + std::to_string(facts.engine);
	const std::string notPinned = NotPinnedText(facts);
	return Printable(facts.path) + "  on " + Printable(facts.device) + '\n' + Printable(CacheStateText(facts)) +
	       '\n' + Printable(notPinned) + (notPinned.empty() ? "" : "\n") + "switch: " + turned + '\n' +
	       "engine: " + engine + '\n' + LimitLine(facts);
}

Json::Value CacheStatusJson(const CacheFacts &facts)
{
	const bool isCounted = StateOf(facts) == CacheState::kPinning && facts.total > 0;
	Json::Value result;
	result["path"] = facts.path;
	result["uuid"] = facts.uuid;
	result["device"] = facts.device;
	result["state"] = StateName(StateOf(facts));
	result["switched_on"] = facts.isOn ? Json::Value(*facts.isOn) : Json::Value();
	result["engine_pid"] = facts.engine != 0 ? Json::Value(facts.engine) : Json::Value();
	result["total"] = isCounted ? Json::Value(Json::UInt64{facts.total}) : Json::Value();
	result["done"] = isCounted ? Json::Value(Json::UInt64{facts.done}) : Json::Value();
	result["pinned_size"] = Json::UInt64{facts.recorded};
	result["pinned_ranges"] = Json::UInt64{facts.ranges};
	result["limit"] = NumberOrNull(facts.limit);
	return result;
}

std::string AmountText(uint64_t bytes, uint64_t ranges)
{
	return SizeText(bytes) + " in " + std::to_string(ranges) + (ranges == 1 ? " range" : " ranges");
}

std::string ShellWord(const std::string &text)
{
	constexpr const char *kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@%,=";
	if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos)
		return text;
	std::string word = "'";
	for (const char c : text)
		word += c == '\'' ? "'\\''" : std::string(1, c);
	return word + '\'';
}

std::string HowToFollow(const std::string &path)
{
	const std::string word = ShellWord(path);
	return "\"zevotune cache status " + word + " --watch\" follows it, \"sudo zevotune cache stop " + word +
	       "\" ends it";
}
