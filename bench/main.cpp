#include "bench.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>

#include <sys/mman.h>

namespace bench {
namespace {

struct Row {
	std::string what;
	double goal;
};

std::vector<Row> &Rows()
{
	static std::vector<Row> rows;
	return rows;
}

std::vector<void (*)()> &Absolutes()
{
	static std::vector<void (*)()> absolutes;
	return absolutes;
}

void Register(const std::string &name, void (*once)(), SetUp setUp)
{
	const auto repeat = [once](benchmark::State &state) {
		for (auto ignored : state)
			once();
	};
	benchmark::internal::Benchmark *const measurement = benchmark::RegisterBenchmark(name.c_str(), repeat);
	measurement->UseRealTime()->Unit(benchmark::kMicrosecond);
	if (setUp != nullptr)
		measurement->Setup(setUp);
}

/// Makes this process one of 4 GiB of resident memory.
void BeLarge()
{
	Require(mmap(nullptr, size_t{4} << 30, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1,
	             0) != MAP_FAILED,
	        "4 GiB of memory");
}

/// Keeps the median of each measurement.
class Medians : public benchmark::BenchmarkReporter {
public:
	bool ReportContext(const Context &) override { return true; }
	void ReportRuns(const std::vector<Run> &runs) override
	{
		for (const Run &run : runs)
			if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
				microseconds[run.run_name.function_name] = run.GetAdjustedRealTime();
	}

	std::map<std::string, double> microseconds;
};

} // namespace

void Pair(const std::string &what, double goal, void (*ours)(), void (*floor)(), SetUp setUp)
{
	Rows().push_back({what, goal});
	Register(what + "/ours", ours, setUp);
	Register(what + "/floor", floor, setUp);
}

void Absolute(void (*measureAndPrint)())
{
	Absolutes().push_back(measureAndPrint);
}

} // namespace bench

int main(int argc, char **argv)
{
	if (!std::filesystem::exists("/run/zevotuned-lab")) {
		fprintf(stderr, "bench: run this with bench/run, in the lab\n");
		return 1;
	}
	std::filesystem::create_directories("/usr/zevo/etc");
	std::vector<std::string> words(argv, argv + argc);
	const bool large = std::erase(words, "--large-caller") > 0;
	if (large)
		bench::BeLarge();
	// Interleaved, so that a machine that slows down slows both sides of a ratio.
	for (const char *word : {"--benchmark_repetitions=9", "--benchmark_enable_random_interleaving=true",
	                         "--benchmark_report_aggregates_only=true", "--benchmark_min_time=0.05"})
		words.insert(words.begin() + 1, word);
	std::vector<char *> arguments;
	for (std::string &word : words)
		arguments.push_back(word.data());
	int count = static_cast<int>(arguments.size());
	benchmark::Initialize(&count, arguments.data());

	bench::Medians medians;
	benchmark::RunSpecifiedBenchmarks(&medians);
	printf("%-44s %12s %12s %7s %7s\n", "", "ours (us)", "floor (us)", "ratio", "goal");
	for (const bench::Row &row : bench::Rows()) {
		const auto ours = medians.microseconds.find(row.what + "/ours");
		const auto floor = medians.microseconds.find(row.what + "/floor");
		if (ours == medians.microseconds.end() || floor == medians.microseconds.end())
			continue; // filtered out on the command line
		const double ratio = ours->second / floor->second;
		const std::string what = row.what + (large ? ", caller of 4 GiB" : "");
		printf("%-44s %12.1f %12.1f %7.2f", what.c_str(), ours->second, floor->second, ratio);
		if (row.goal != bench::kNoGoal)
			printf(" %7.2f%s", row.goal, ratio <= row.goal ? "" : "  missed");
		printf("\n");
	}
	if (!large)
		for (void (*measure)() : bench::Absolutes())
			measure();
	return 0;
}
