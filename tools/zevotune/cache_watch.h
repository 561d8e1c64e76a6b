#ifndef ZEVOTUNE_CACHE_WATCH_H
#define ZEVOTUNE_CACHE_WATCH_H

// What a pass does, on standard output while it goes on.

#include "btrfs_volume.h"
#include "cache_progress.h"
#include "cache_signals.h"
#include "cache_status.h"

#include <optional>
#include <string>

class CacheWatch {
public:
	enum class Display {
		kNothing,
		kBar,   // one line, drawn anew
		kLines, // one every few seconds, but none of a pass that is done before
		kJson   // an object a line, when there is news
	};

	CacheWatch(const BtrfsVolume &watched, Display shownAs);

	/// What is shown in place of what is seen: `asking process 4242 to end`.
	void SetAction(const std::string &text) { action = text; }

	/// What is shown in front: `waiting for process 4242: `.
	void SetNote(const std::string &text) { note = text; }

	/// Looks at the volume unless it has done so within the last second. Looks that fail, as some do while a pass starts
	/// or ends, are none; it throws Failure after many of them only.
	/// What was seen last; null before anything was.
	const CacheFacts *Look();

	/// Shows what was seen last, if it is time to.
	void Show();

	/// Takes the bar away.
	void Clear();

private:
	void Take(const CacheFacts &seen);
	std::string Action() const;
	CacheProgress Progress() const;
	void ShowBar();
	void ShowLine();
	void ShowJson();

	const BtrfsVolume volume;
	const Display display;
	const double began;
	std::string action;
	std::string note;
	std::optional<CacheFacts> facts;
	double lastLook = -1;
	int failedLooks = 0;
	uint64_t toUnpin = 0; // bytes, when it was first looked at
	RateEstimate rate;
	double lastLine;
	std::string lastJson;
	bool hasBar = false;
};

/// The one for people, or for programs.
CacheWatch::Display DisplayFor(bool json);

/// Seconds on a clock that never goes back.
double MonotonicSeconds();

/// Until the next look, or less when a signal comes. Throws Failure, with that signal's exit status, when it asks to end;
/// `left` says what goes on.
void WaitForNews(const HeldSignals &signals, CacheWatch &watch, const std::string &left);

#endif
