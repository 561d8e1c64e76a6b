#ifndef TESTS_SWEEP_SCENARIO_H
#define TESTS_SWEEP_SCENARIO_H

#include <functional>
#include <ostream>
#include <string>
#include <vector>

/// One call of the library on a machine made ready for it. Every call of the platform and every system call that it makes
/// fails in turn (sweep_test.cpp).
struct Scenario {
	std::string name;              // also of the file that says what is expected, expected/<name>.txt
	std::function<void()> prepare; // on a machine on which the library has never run
	std::function<int()> call;
	int result; // of the call when nothing fails
	// Two processes make its calls at once, in an order that no two runs share: nothing can be written down of it, but
	// all else holds.
	bool concurrent = false;
	std::vector<std::string> watched = {}; // further folders whose files it may change
	std::function<void()> check = {};      // what holds on the machine, whatever fails
	std::function<void()> finish = {};     // gives the machine back
};

/// How GoogleTest names a scenario in a failure.
inline void PrintTo(const Scenario &scenario, std::ostream *out)
{
	*out << scenario.name;
}

/// The scenarios, of the core library, of the profile half and of the storage. A new one is one more row.
std::vector<Scenario> CoreScenarios();
std::vector<Scenario> ProfileScenarios();
std::vector<Scenario> StorageScenarios();
std::vector<Scenario> MetadataFilesScenarios();
std::vector<Scenario> FlashCacheScenarios();
std::vector<Scenario> DiscoveryScenarios();
std::vector<Scenario> PinScenarios();
std::vector<Scenario> CacheApiScenarios();

#endif
