#include "scheduler_tunables.h"

#include <map>

namespace {

using Names = std::set<std::string>;

const std::map<std::string, Names> &Schedulers()
{
	static const std::map<std::string, Names> schedulers = {
		{"none", {}},
		{"mq-deadline",
	         {"read_expire", "write_expire", "writes_starved", "front_merges", "fifo_batch", "async_depth",
	          "prio_aging_expire"}},
		{"kyber", {"read_lat_nsec", "write_lat_nsec"}},
		{"bfq",
	         {"fifo_expire_sync", "fifo_expire_async", "back_seek_max", "back_seek_penalty", "slice_idle",
	          "slice_idle_us", "max_budget", "timeout_sync", "strict_guarantees", "low_latency"}},
		// Of kernels before 5.0.
		{"noop", {}},
		{"deadline", {"read_expire", "write_expire", "writes_starved", "front_merges", "fifo_batch"}},
		{"cfq",
	         {"quantum", "fifo_expire_sync", "fifo_expire_async", "back_seek_max", "back_seek_penalty",
	          "slice_sync", "slice_sync_us", "slice_async", "slice_async_us", "slice_async_rq", "slice_idle",
	          "slice_idle_us", "group_idle", "group_idle_us", "low_latency", "target_latency",
	          "target_latency_us"}},
	};
	return schedulers;
}

} // namespace

Names KnownSchedulers()
{
	Names names;
	for (const auto &[name, tunables] : Schedulers())
		names.insert(name);
	return names;
}

Names TunablesOf(const std::string &scheduler)
{
	const auto found = Schedulers().find(scheduler);
	return found == Schedulers().end() ? Names() : found->second;
}

Names KnownTunables()
{
	Names all;
	for (const auto &[name, tunables] : Schedulers())
		all.insert(tunables.begin(), tunables.end());
	return all;
}

bool TakesAnyNotation(const std::string &tunable)
{
	return TunablesOf("mq-deadline").contains(tunable);
}
