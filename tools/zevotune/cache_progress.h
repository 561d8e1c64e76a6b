#ifndef ZEVOTUNE_CACHE_PROGRESS_H
#define ZEVOTUNE_CACHE_PROGRESS_H

// How far a pass over a volume is, how fast it goes, and how long it will take.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

struct CacheProgress {
	uint64_t done = 0;                 // bytes
	uint64_t total = 0;                // 0: unknown
	std::optional<double> rate;        // bytes a second
	std::optional<double> secondsLeft; // until it is done
};

/// Made of reports that come some seconds apart, the same one again and again in between.
class RateEstimate {
public:
	/// @param now  seconds on a clock that never goes back.
	void Add(double now, uint64_t done);

	/// Bytes a second of about the last minute; nothing before the second report.
	std::optional<double> Rate() const;
	std::optional<double> SecondsLeft(double now, uint64_t total) const;

private:
	struct Report {
		double at;
		uint64_t done;
	};
	std::deque<Report> reports; // those that differ
};

/// "45%, 234 MiB of 520 MiB, 12.3 MiB/s, 0:23 left"
std::string ProgressText(const CacheProgress &progress);

struct BarStyle {
	size_t columns; // of the terminal
	bool isUtf8;
};

/// One line that stays shorter than the terminal is wide. What does not fit beside a bar of ten cells is left out.
/// @param elapsed  seconds, which is all that there is to show where the total is unknown.
std::string ProgressBar(const std::string &action, const CacheProgress &progress, double elapsed,
                        const BarStyle &style);

/// "0:23", "12:05", "1:02:33"
std::string DurationText(double seconds);

#endif
