#include "cache_progress.h"

#include "metadata_size.h"
#include "output.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace {

constexpr double kWindowSeconds = 60;
constexpr size_t kLeastCells = 10;
constexpr size_t kMostCells = 50;

uint64_t Percent(const CacheProgress &progress)
{
	const double part = static_cast<double>(progress.done) / static_cast<double>(progress.total);
	return static_cast<uint64_t>(100 * std::min(part, 1.0));
}

std::string SizesText(const CacheProgress &progress)
{
	return SizeText(progress.done) + " of " + SizeText(progress.total);
}

std::string RateText(double rate)
{
	return SizeText(static_cast<uint64_t>(std::llround(rate))) + "/s";
}

/// What stands behind the bar, the most important first.
std::vector<std::string> Details(const CacheProgress &progress)
{
	std::vector<std::string> details;
	if (progress.secondsLeft)
		details.push_back(DurationText(*progress.secondsLeft) + " left");
	details.push_back(SizesText(progress));
	if (progress.rate)
		details.push_back(RateText(*progress.rate));
	return details;
}

std::string PercentText(const CacheProgress &progress)
{
	char text[32];
	snprintf(text, sizeof(text), "%3llu%%", static_cast<unsigned long long>(Percent(progress)));
	return text;
}

std::string Cells(const CacheProgress &progress, size_t cells, bool isUtf8)
{
	const size_t full = cells * static_cast<size_t>(Percent(progress)) / 100;
	std::string text;
	for (size_t cell = 0; cell < cells; ++cell)
		text += cell < full ? (isUtf8 ? "█" : "#") : (isUtf8 ? "░" : ".");
	return text;
}

/// A text of ASCII.
std::string Cut(const std::string &text, size_t room)
{
	return text.substr(0, room);
}

} // namespace

void RateEstimate::Add(double now, uint64_t done)
{
	if (!reports.empty() && done < reports.back().done) // the pass has started over
		reports.clear();
	if (!reports.empty() && done == reports.back().done)
		return;
	reports.push_back({now, done});
	while (reports.size() > 2 && now - reports.front().at > kWindowSeconds)
		reports.pop_front();
}

std::optional<double> RateEstimate::Rate() const
{
	if (reports.size() < 2 || reports.back().at <= reports.front().at)
		return std::nullopt;
	return static_cast<double>(reports.back().done - reports.front().done) /
	       (reports.back().at - reports.front().at);
}

std::optional<double> RateEstimate::SecondsLeft(double now, uint64_t total) const
{
	const std::optional<double> rate = Rate();
	if (!rate)
		return std::nullopt;
	const uint64_t done = std::min(reports.back().done, total);
	return std::max(0.0, static_cast<double>(total - done) / *rate - (now - reports.back().at));
}

std::string ProgressText(const CacheProgress &progress)
{
	std::string text = std::to_string(Percent(progress)) + "%, " + SizesText(progress);
	if (progress.rate)
		text += ", " + RateText(*progress.rate);
	if (progress.secondsLeft)
		text += ", " + DurationText(*progress.secondsLeft) + " left";
	return text;
}

std::string ProgressBar(const std::string &action, const CacheProgress &progress, double elapsed, const BarStyle &style)
{
	// In the last column a terminal would go on to the next line.
	const size_t room = style.columns > 0 ? style.columns - 1 : 0;
	if (progress.total == 0)
		return Cut(action + "  " + DurationText(elapsed), room);
	std::vector<std::string> details = Details(progress);
	const auto tail = [&] {
		std::string text = ' ' + PercentText(progress);
		for (const std::string &detail : details)
			text += "  " + detail;
		return text;
	};
	const size_t frame = Width(action) + 3;
	while (!details.empty() && frame + kLeastCells + Width(tail()) > room)
		details.pop_back();
	const size_t taken = frame + Width(tail());
	if (taken + kLeastCells > room)
		return Cut(action + tail(), room);
	return action + " [" + Cells(progress, std::min(room - taken, kMostCells), style.isUtf8) + ']' + tail();
}

std::string DurationText(double seconds)
{
	const auto whole = static_cast<unsigned long long>(std::min(std::max(seconds, 0.0), 1e9));
	char text[64];
	if (whole < 3600)
		snprintf(text, sizeof(text), "%llu:%02llu", whole / 60, whole % 60);
	else
		snprintf(text, sizeof(text), "%llu:%02llu:%02llu", whole / 3600, whole / 60 % 60, whole % 60);
	return text;
}
