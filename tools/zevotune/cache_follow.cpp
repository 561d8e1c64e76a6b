#include "cache_follow.h"

#include "cache_examine.h"
#include "cache_process.h"
#include "catalogue_check.h"
#include "failure.h"
#include "output.h"

#include <zevotuned/metadata_cache.h>

namespace {

constexpr const char *kSeeLog = " (the whole chain is in the system's log: journalctl -t zevotune)";

std::string InProcess(int process)
{
	return process != 0 ? " in process " + std::to_string(process) : "";
}

ProcessEnd RunAndWatch(const BtrfsVolume &volume, CacheWatch &watch, const HeldSignals &signals,
                       const std::function<int()> &call)
{
	CacheProcess process(volume.path, call);
	const std::string left = "the pass goes on" + InProcess(process.Id()) + ": " + HowToFollow(volume.path);
	for (;;) {
		if (std::optional<ProcessEnd> end = process.End())
			return *end;
		watch.Look();
		watch.Show();
		WaitForNews(signals, watch, left);
	}
}

void WaitForOther(const BtrfsVolume &volume, CacheWatch &watch, const HeldSignals &signals)
{
	int other = EngineOf(volume);
	const std::string left = "the engine that was at work before goes on" + InProcess(other) +
	                         ", by the switch as it is set now: " + HowToFollow(volume.path);
	watch.SetNote(other != 0 ? "waiting for process " + std::to_string(other) + ": " : "waiting: ");
	do {
		watch.Look();
		watch.Show();
		WaitForNews(signals, watch, left);
		other = EngineOf(volume);
	} while (other != 0);
	watch.SetNote("");
}

[[noreturn]] void Fail(const BtrfsVolume &volume, const std::string &action, const ProcessEnd &end)
{
	const std::string what = "cannot " + action + ' ' + Quoted(volume.path) + ": ";
	const std::string later = "; what it has recorded stays, and \"sudo zevotune cache rescan " +
	                          ShellWord(volume.path) + "\" goes on from there";
	if (end.kind == ProcessEnd::Kind::kKilled)
		throw Failure(what + "the pass was ended by " + SignalName(end.signal) +
		              ", as \"zevotune cache stop\" does it" + later);
	throw Failure(what + (end.reason.empty() ? "its process gives no reason" : end.reason) + later + kSeeLog);
}

} // namespace

void FollowPass(const BtrfsVolume &volume, const std::string &action, CacheWatch::Display display,
                const std::function<int()> &first)
{
	const HeldSignals signals;
	CacheWatch watch(volume, display);
	ProcessEnd end = RunAndWatch(volume, watch, signals, first);
	while (end.kind == ProcessEnd::Kind::kBusy) {
		WaitForOther(volume, watch, signals);
		// Not the switch again, which somebody else may have turned meanwhile.
		end = RunAndWatch(volume, watch, signals, [&] {
			std::string path = volume.path;
			return ZEVOBtrfsMetadataCacheRescan(path.data(), 0);
		});
	}
	watch.Clear();
	if (end.kind != ProcessEnd::Kind::kDone)
		Fail(volume, action, end);
}

CacheFacts FollowEngine(const BtrfsVolume &volume, CacheWatch::Display display)
{
	const HeldSignals signals;
	CacheWatch watch(volume, display);
	const std::string left = "the pass goes on: " + HowToFollow(volume.path);
	// An engine that starts over is away for a moment.
	constexpr int kQuietLooks = 5;
	for (int quiet = 0; quiet < kQuietLooks;) {
		const CacheFacts *const facts = watch.Look();
		quiet = facts != nullptr && !IsUnderWay(*facts) ? quiet + 1 : 0;
		if (quiet == 0)
			watch.Show();
		FlushOutput();
		WaitForNews(signals, watch, left);
	}
	watch.Clear();
	return ExamineCache(volume);
}
