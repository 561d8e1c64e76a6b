#include "commands.h"

#include "cache_error_text.h"
#include "cache_examine.h"
#include "cache_follow.h"
#include "cache_process.h"
#include "cache_records.h"
#include "error_text.h"
#include "failure.h"
#include "output.h"
#include "terminal.h"

#include <vunkcore/process.h>
#include <zevostorage/flash_cache.h>
#include <zevostorage/volume_conf.h>
#include <zevotuned/metadata_cache.h>

namespace {

constexpr const char *kPin = "pin the metadata of";
constexpr const char *kUnpin = "unpin the metadata of";
constexpr const char *kRescan = "bring up to date what is pinned of";
constexpr const char *kStop = "stop the pass over";

/// A pass that is to be run over a volume.
struct Pass {
	const char *action;
	std::optional<bool> turnsOn; // the switch; none: as it is
	bool noWait;
	bool json;
};

int Call(const BtrfsVolume &volume, const Pass &pass)
{
	std::string path = volume.path;
	const int noWait = pass.noWait ? 1 : 0;
	return pass.turnsOn ? ZEVOBtrfsMetadataCacheSet(path.data(), *pass.turnsOn ? 1 : 0, noWait)
	                    : ZEVOBtrfsMetadataCacheRescan(path.data(), noWait);
}

void PrintResult(const CacheFacts &facts, const std::string &text, bool json)
{
	if (json) {
		PrintJson(CacheStatusJson(facts));
		return;
	}
	PrintLine(Printable(text));
	if (const std::string notPinned = NotPinnedText(facts); !notPinned.empty())
		PrintLine(Printable(notPinned));
}

void Start(const BtrfsVolume &volume, const Pass &pass)
{
	ForgetErrors();
	if (Call(volume, pass) != 0)
		RefuseVolume(volume.path, pass.action, CacheErrorText(volume.path));
	const CacheFacts facts = ExamineCache(volume);
	if (pass.json) {
		Json::Value result;
		result["path"] = volume.path;
		result["switched_on"] = facts.isOn ? Json::Value(*facts.isOn) : Json::Value();
		result["started"] = true;
		PrintJson(result);
		return;
	}
	PrintLine(Printable("started a pass over " + volume.path + ": " + HowToFollow(volume.path)));
}

CacheFacts Finish(const BtrfsVolume &volume, const Pass &pass)
{
	FollowPass(volume, pass.action, DisplayFor(pass.json), [&] { return Call(volume, pass); });
	return ExamineCache(volume);
}

/// The pass has ended well, and yet things are not as they were asked for.
[[noreturn]] void FailAfterPass(const BtrfsVolume &volume, const CacheFacts &facts, const Pass &pass)
{
	std::string reason = "another program works on it as well; \"zevotune cache status " + ShellWord(volume.path) +
	                     "\" says how it is";
	if (facts.isOn != pass.turnsOn)
		reason = "another program has turned its switch meanwhile";
	else if (const std::string why = WhyNot(ExamineCacheSupport(volume)); *pass.turnsOn && !why.empty())
		reason = why;
	RefuseVolume(volume.path, pass.action, reason);
}

std::string WithoutAttribute(const CacheSupport &support, const std::string &consequence)
{
	return "this kernel has no " + support.attribute + ", without which " + consequence +
	       "; start the machine with a kernel that has it";
}

/// What is recorded cannot be unpinned on this kernel.
[[noreturn]] void RefuseToUnpin(const BtrfsVolume &volume, const CacheSupport &support, const CacheFacts &facts,
                                const char *action)
{
	std::string reason = WithoutAttribute(support, AmountText(facts.recorded, facts.ranges) +
	                                                       " that are recorded as pinned cannot be unpinned");
	if (ZEVOFlashCachePinIsVolumeSupport(volume.path.c_str()) == 0)
		reason += ", or, as the SSD cache that they were pinned in is gone, remove " +
		          ReadPinRecords(volume.path).file + " and run \"sudo zevotune cache off " +
		          ShellWord(volume.path) + '"';
	RefuseVolume(volume.path, action, reason);
}

/// For a kernel on which no engine can work, and a volume of which nothing is pinned: the switch alone.
void TurnOff(const BtrfsVolume &volume)
{
	const ZEVOVOLUMECONF settings{0};
	ForgetErrors();
	if (ZEVOVolumeConfSet(volume.path.c_str(), &settings, ZEVO_VOLUME_CONF_METADATA_CACHE) != 0)
		RefuseVolume(volume.path, kUnpin, CacheErrorText(volume.path));
}

std::string PinnedAmount(const CacheFacts &facts)
{
	return AmountText(facts.recorded, facts.ranges);
}

std::string RescanText(const BtrfsVolume &volume, const CacheFacts &before, const CacheFacts &after)
{
	if (StateOf(after) == CacheState::kPinned)
		return "rescanned " + volume.path + ": " + PinnedAmount(after) + " are pinned, before " +
		       PinnedAmount(before);
	if (StateOf(after) != CacheState::kNothing)
		return volume.path + ": " + CacheStateText(after);
	const std::string why = after.isOn == true ? WhyNot(ExamineCacheSupport(volume)) : "the switch is off";
	return "nothing is pinned of " + volume.path + (why.empty() ? "" : ": " + why);
}

/// How the process of an engine came to its end.
enum class Stopped { kNoEngine, kOnRequest, kByForce };

Stopped Stop(const BtrfsVolume &volume, int engine, bool json)
{
	constexpr double kPatienceSeconds = 5; // ZEVOBtrfsMetadataCacheForceStop's
	const HeldSignals signals;
	CacheWatch watch(volume, json || !IsLiveTerminal() ? CacheWatch::Display::kNothing : CacheWatch::Display::kBar);
	watch.SetAction("asking process " + std::to_string(engine) + " to end");
	CacheProcess process(volume.path, [&] { return ZEVOBtrfsMetadataCacheForceStop(volume.path.c_str()); });
	const double began = MonotonicSeconds();
	double ended = 0;
	std::optional<ProcessEnd> end;
	while (!(end = process.End())) {
		if (ended == 0 && VUNKCProcAlive(engine) != 1)
			ended = MonotonicSeconds();
		watch.Show();
		WaitForNews(signals, watch, "the engine is stopped all the same");
	}
	watch.Clear();
	if (end->kind != ProcessEnd::Kind::kDone)
		RefuseVolume(volume.path, kStop, end->reason);
	return ended != 0 && ended - began < kPatienceSeconds ? Stopped::kOnRequest : Stopped::kByForce;
}

std::string StoppedText(const BtrfsVolume &volume, int engine, Stopped stopped)
{
	if (stopped == Stopped::kNoEngine)
		return "no engine works on " + volume.path + ": there is nothing to stop";
	return "process " + std::to_string(engine) + ", which worked on " + volume.path +
	       (stopped == Stopped::kOnRequest ? ", has ended when it was asked to"
	                                       : ", did not end within 5 seconds when it was asked to, and was killed");
}

void PrintStopped(const CacheFacts &facts, const std::string &text, int engine, Stopped stopped, bool json)
{
	if (json) {
		Json::Value result = CacheStatusJson(facts);
		result["stopped_pid"] = engine != 0 ? Json::Value(engine) : Json::Value();
		result["killed"] = stopped == Stopped::kByForce;
		PrintJson(result);
		return;
	}
	PrintLine(Printable(text));
	PrintLine(std::string("the switch ") + (!facts.isOn   ? "was never set"
	                                        : *facts.isOn ? "is still on"
	                                                      : "is still off"));
	PrintLine(Printable(CacheStateText(facts)));
}

} // namespace

void CacheOn(const std::string &name, bool noWait, bool json)
{
	RequireRoot("cache on");
	const BtrfsVolume volume = FindBtrfsVolume(name, kPin);
	const Pass pass{kPin, true, noWait, json};
	// Before anything is written or pinned. The switch, once on, would be a promise that nobody can keep.
	if (const std::string why = WhyNot(ExamineCacheSupport(volume)); !why.empty())
		RefuseVolume(name, kPin, why);
	if (noWait) {
		Start(volume, pass);
		return;
	}
	const CacheFacts facts = Finish(volume, pass);
	if (facts.isOn != true || StateOf(facts) != CacheState::kPinned)
		FailAfterPass(volume, facts, pass);
	PrintResult(facts, "pinned the metadata of " + volume.path + ": " + PinnedAmount(facts), json);
}

void CacheOff(const std::string &name, bool noWait, bool json)
{
	RequireRoot("cache off");
	const BtrfsVolume volume = FindBtrfsVolume(name, kUnpin);
	const Pass pass{kUnpin, false, noWait, json};
	const CacheSupport support = ExamineCacheSupport(volume);
	const CacheFacts before = ExamineCache(volume);
	const bool isStuck = !support.hasAttribute && before.isRecorded;
	if (isStuck && before.ranges > 0)
		RefuseToUnpin(volume, support, before, kUnpin);
	if (noWait && !isStuck) {
		Start(volume, pass);
		return;
	}
	if (isStuck)
		TurnOff(volume);
	const CacheFacts after = isStuck ? ExamineCache(volume) : Finish(volume, pass);
	if (after.isOn != false || StateOf(after) != CacheState::kNothing)
		FailAfterPass(volume, after, pass);
	PrintResult(after,
	            "switched off; nothing is pinned of " + volume.path +
	                    (before.ranges > 0 ? " any more, before " + PinnedAmount(before) : ""),
	            json);
}

void CacheRescan(const std::string &name, bool noWait, bool json)
{
	RequireRoot("cache rescan");
	const BtrfsVolume volume = FindBtrfsVolume(name, kRescan);
	const Pass pass{kRescan, std::nullopt, noWait, json};
	const CacheSupport support = ExamineCacheSupport(volume);
	const CacheFacts before = ExamineCache(volume);
	if (!before.isOn)
		RefuseVolume(name, kRescan,
		             "its switch has never been set; \"sudo zevotune cache on " + ShellWord(volume.path) +
		                     "\" pins its metadata");
	const bool isStuck = !support.hasAttribute && before.isRecorded;
	if (!support.hasAttribute && support.isSwitchedOn && support.reason == 0)
		RefuseVolume(name, kRescan, WhyNot(support));
	if (isStuck && before.ranges > 0)
		RefuseToUnpin(volume, support, before, kRescan);
	if (noWait && !isStuck) {
		Start(volume, pass);
		return;
	}
	const CacheFacts after = isStuck ? before : Finish(volume, pass);
	PrintResult(after, RescanText(volume, before, after), json);
}

void CacheStatus(const std::string &name, bool watch, bool json)
{
	const BtrfsVolume volume = FindBtrfsVolume(name, "show the metadata cache of");
	if (!watch) {
		const CacheFacts facts = ExamineCache(volume);
		if (json)
			PrintJson(CacheStatusJson(facts));
		else
			Print(CacheStatusText(facts));
		return;
	}
	const CacheFacts facts = FollowEngine(volume, json ? CacheWatch::Display::kJson : DisplayFor(json));
	if (json)
		PrintJsonLine(CacheStatusJson(facts));
	else
		Print(CacheStatusText(facts));
}

void CacheStop(const std::string &name, bool json)
{
	RequireRoot("cache stop");
	const BtrfsVolume volume = FindBtrfsVolume(name, kStop);
	const int engine = EngineOf(volume);
	const Stopped stopped = engine != 0 ? Stop(volume, engine, json) : Stopped::kNoEngine;
	if (engine != 0 && VUNKCProcAlive(engine) == 1)
		RefuseVolume(volume.path, kStop,
		             "process " + std::to_string(engine) +
		                     " was killed, but waits for a device, and ends when that answers");
	PrintStopped(ExamineCache(volume), StoppedText(volume, engine, stopped), engine, stopped, json);
}

void CacheCheck(const std::string &name, bool json)
{
	RequireRoot("cache check");
	const CacheSupport support = ExamineCacheSupport(FindBtrfsVolume(name, "check the metadata cache of"));
	if (json)
		PrintJson(CacheSupportJson(support));
	else
		Print(CacheSupportText(support));
	FlushOutput();
	if (!IsSupported(support))
		throw AnswerIsNo();
}
