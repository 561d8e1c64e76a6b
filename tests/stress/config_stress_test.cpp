// Sixteen processes on the configuration at once: no reader ever finds it torn, and nothing fails but by a time-out.
// ZEVOTUNED_STRESS_SECONDS says for how long; 20 unless it is set.

#include "kit/files.h"
#include "kit/lab.h"

#include <vunkcore/vunkcore.h>
#include <zevotuned/zevotuned.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kProcesses = 16;

struct Counts {
	long reads;
	long writes;
	long timeouts;
	long failures;
	long torn;
};

/// The value of a key says which writer wrote it, so that a mixture of two shows.
std::string Value(int process, int round)
{
	const std::string part = std::to_string(process) + ":" + std::to_string(round);
	return part + std::string(static_cast<size_t>(round % 700), '.') + part;
}

bool IsWhole(const std::string &value)
{
	if (value == "none")
		return true;
	const size_t dots = value.find('.');
	const std::string first = dots == std::string::npos ? value.substr(0, value.size() / 2) : value.substr(0, dots);
	return value.size() >= 2 * first.size() && value.ends_with(first);
}

void CountFailure(Counts &counts)
{
	if (VUNKCErrGet() == VUNKC_ERR_TIMEOUT)
		++counts.timeouts;
	else
		++counts.failures;
}

void Read(Counts &counts)
{
	++counts.reads;
	VUNKSZHASH *hash = VUNKCSzHashAlloc(64);
	if (TunedConfigGet(&hash) != 0) {
		CountFailure(counts);
	} else {
		const char *value = VUNKCSzHashGetValue(hash, "shared");
		if (TuneConfigIsValid(hash) != 1 || value == nullptr || !IsWhole(value))
			++counts.torn;
	}
	VUNKCSzHashFree(hash);
}

Counts Work(int process, std::chrono::steady_clock::time_point end)
{
	std::minstd_rand random(static_cast<unsigned>(process) + 1);
	Counts counts = {};
	for (int round = 0; std::chrono::steady_clock::now() < end; ++round) {
		VUNKCErrSetEx(0, "", 0);
		if (random() % 4 != 0) {
			Read(counts);
			continue;
		}
		++counts.writes;
		if (TuneSetKeyValueToConfig("shared", Value(process, round).c_str()) != 0)
			CountFailure(counts);
	}
	return counts;
}

using ConfigStress = kit::LabTest;

TEST_F(ConfigStress, NeverTearsTheFile)
{
	const char *setting = getenv("ZEVOTUNED_STRESS_SECONDS");
	const auto end =
		std::chrono::steady_clock::now() + std::chrono::seconds(setting != nullptr ? atoi(setting) : 20);
	ASSERT_EQ(TuneSetKeyValueToConfig("shared", "none"), 0);
	VUNKSZHASH *hash = VUNKCSzHashAlloc(64);
	ASSERT_EQ(TunedConfigGet(&hash), 0);
	VUNKCSzHashFree(hash);

	int ends[2];
	ASSERT_EQ(pipe(ends), 0);
	std::vector<pid_t> children;
	for (int process = 0; process < kProcesses; ++process) {
		const pid_t child = fork();
		ASSERT_GE(child, 0);
		if (child == 0) {
			const Counts counts = Work(process, end);
			_exit(write(ends[1], &counts, sizeof(counts)) == sizeof(counts) ? 0 : 1);
		}
		children.push_back(child);
	}
	Counts all = {};
	for (const pid_t child : children) {
		int status = 0;
		Counts counts;
		ASSERT_EQ(waitpid(child, &status, 0), child);
		ASSERT_EQ(status, 0);
		ASSERT_EQ(read(ends[0], &counts, sizeof(counts)), static_cast<ssize_t>(sizeof(counts)));
		all.reads += counts.reads;
		all.writes += counts.writes;
		all.timeouts += counts.timeouts;
		all.failures += counts.failures;
		all.torn += counts.torn;
	}
	close(ends[0]);
	close(ends[1]);
	printf("%ld reads, %ld writes, %ld time-outs\n", all.reads, all.writes, all.timeouts);
	EXPECT_GT(all.reads, kProcesses);
	EXPECT_GT(all.writes, kProcesses);
	EXPECT_EQ(all.failures, 0);
	EXPECT_EQ(all.torn, 0);
	EXPECT_EQ(kit::Names("/usr/zevo/etc/zevotuned"), (std::set<std::string>{"config"}));
}

} // namespace
