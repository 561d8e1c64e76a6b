#include "cache_watch.h"

#include "cache_examine.h"
#include "failure.h"
#include "output.h"
#include "terminal.h"

#include <algorithm>
#include <cstdio>

#include <time.h>

namespace {

constexpr double kLookSeconds = 1;
constexpr double kLineSeconds = 5;
constexpr double kRedrawSeconds = 0.25;
constexpr int kMostFailedLooks = 20;

} // namespace

CacheWatch::CacheWatch(const BtrfsVolume &watched, Display shownAs)
	: volume(watched), display(shownAs), began(MonotonicSeconds()), lastLine(began)
{
}

const CacheFacts *CacheWatch::Look()
{
	const double now = MonotonicSeconds();
	if (lastLook >= 0 && now - lastLook < kLookSeconds)
		return facts ? &*facts : nullptr;
	lastLook = now;
	try {
		Take(ExamineCache(volume));
		failedLooks = 0;
	} catch (const Failure &) {
		if (++failedLooks > kMostFailedLooks)
			throw;
	}
	return facts ? &*facts : nullptr;
}

void CacheWatch::Take(const CacheFacts &seen)
{
	facts = seen;
	toUnpin = StateOf(seen) == CacheState::kUnpinning ? std::max(toUnpin, seen.recorded) : 0;
	const CacheProgress progress = Progress();
	if (progress.total > 0)
		rate.Add(lastLook, progress.done);
}

std::string CacheWatch::Action() const
{
	if (!action.empty())
		return action;
	if (!facts)
		return note + "starting";
	switch (StateOf(*facts)) {
	case CacheState::kPinning:
		return note + "pinning";
	case CacheState::kUnpinning:
		return note + "unpinning";
	case CacheState::kPinned:
		return note + "looking through what is pinned";
	default:
		return note + "starting";
	}
}

CacheProgress CacheWatch::Progress() const
{
	CacheProgress progress;
	if (facts && StateOf(*facts) == CacheState::kPinning) {
		progress.total = facts->total;
		progress.done = facts->done;
	} else if (toUnpin > 0) {
		progress.total = toUnpin;
		progress.done = toUnpin - facts->recorded;
	}
	progress.rate = rate.Rate();
	progress.secondsLeft = rate.SecondsLeft(MonotonicSeconds(), progress.total);
	return progress;
}

void CacheWatch::Show()
{
	if (display == Display::kBar)
		ShowBar();
	else if (display == Display::kLines)
		ShowLine();
	else if (display == Display::kJson)
		ShowJson();
}

void CacheWatch::ShowBar()
{
	const BarStyle style{OutputColumns(), IsUtf8Locale()};
	// What a terminal that has become narrower has broken into two lines goes as well.
	Print('\r' + ProgressBar(Action(), Progress(), MonotonicSeconds() - began, style) + "\x1B[J");
	fflush(stdout);
	hasBar = true;
}

void CacheWatch::ShowLine()
{
	const double now = MonotonicSeconds();
	if (now - lastLine < kLineSeconds)
		return;
	lastLine = now;
	const CacheProgress progress = Progress();
	PrintLine(Action() + ": " +
	          (progress.total > 0 ? ProgressText(progress) : DurationText(now - began) + " so far"));
	fflush(stdout);
}

void CacheWatch::ShowJson()
{
	if (!facts)
		return;
	const Json::Value value = CacheStatusJson(*facts);
	if (value.toStyledString() == lastJson)
		return;
	lastJson = value.toStyledString();
	PrintJsonLine(value);
	fflush(stdout);
}

void CacheWatch::Clear()
{
	if (!hasBar)
		return;
	Print("\r\x1B[J");
	fflush(stdout);
	hasBar = false;
}

CacheWatch::Display DisplayFor(bool json)
{
	if (json)
		return CacheWatch::Display::kNothing;
	return IsLiveTerminal() ? CacheWatch::Display::kBar : CacheWatch::Display::kLines;
}

double MonotonicSeconds()
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void WaitForNews(const HeldSignals &signals, CacheWatch &watch, const std::string &left)
{
	const int number = signals.Wait(kRedrawSeconds);
	if (!AsksToEnd(number))
		return;
	watch.Clear();
	throw Failure("ended by " + SignalName(number) + "; " + left, 128 + number);
}
