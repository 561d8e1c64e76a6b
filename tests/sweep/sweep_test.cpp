// Every scenario again and again, each time with another one of its calls failing, until it passes untouched. After each:
// the result and the log lines that are written down in expected/, nothing left open or locked, the files as they were or
// as they should be, and the same call succeeding when it is made again.
//
// ZEVOTUNED_SWEEP_AT=7 runs one position only; ZEVOTUNED_SWEEP_WRITE=1 writes the expectations anew, for review.

#include "sweep/pin_state.h"
#include "sweep/scenario.h"

#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/nth_call.h"

#include <vunkcore/error.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>

// Of the leak checker, in builds that have it.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace {

namespace fs = std::filesystem;

using Files = std::map<std::string, std::string>;

/// Everything that the library may write, by path.
Files Snapshot(const std::vector<std::string> &watched)
{
	Files files;
	std::vector<std::string> roots = {"/usr/zevo/etc", "/run/lock", "/run/zevotuned", "/proc/sys/vm"};
	roots.insert(roots.end(), watched.begin(), watched.end());
	for (const std::string &root : roots) {
		if (!fs::exists(root))
			continue;
		for (const auto &entry : fs::recursive_directory_iterator(root))
			files[entry.path()] = entry.is_regular_file() ? kit::ReadFile(entry.path()) : "";
	}
	return files;
}

/// What differs, a short text for a transcript: "+" made, "-" removed, "~" changed.
std::string Difference(const Files &before, const Files &after)
{
	std::string text;
	for (const auto &[path, content] : after) {
		const auto old = before.find(path);
		if (old == before.end())
			text += " +" + path + (content.empty() ? "" : ":" + std::to_string(content.size()));
		else if (old->second != content)
			text += " ~" + path;
	}
	for (const auto &[path, content] : before)
		if (!after.contains(path))
			text += " -" + path;
	return text;
}

/// One line of "7 fsync: -1 [0xB00]", the log lines for failing platform calls, and what changed on the machine.
std::string Describe(kit::Calls calls, int n, const std::string &function, int result, int code,
                     const kit::Journal &journal, const std::string &difference)
{
	std::ostringstream text;
	text << n << ' ' << function << ": " << result;
	if (result < 0)
		text << " [0x" << std::hex << std::uppercase << code << ']';
	text << std::dec;
	const auto lines = journal.Lines();
	if (calls == kit::Calls::System)
		text << ", " << lines.size() << " lines";
	text << '\n';
	if (calls == kit::Calls::Platform)
		for (const std::string &line : lines)
			text << '\t' << line.substr(0, line.find_last_not_of('\n') + 1) << '\n';
	if (!difference.empty())
		text << "\tchanged:" << difference << '\n';
	return text.str();
}

/// "done" in place of the list of changes wherever it is the one of the undisturbed call, with which a transcript ends.
std::string Abbreviated(const std::string &transcript)
{
	const size_t end = transcript.find("good: ");
	const size_t good = transcript.find("\tchanged:", end);
	if (good == std::string::npos)
		return transcript;
	const std::string changes = transcript.substr(good);
	std::string text = transcript.substr(0, end);
	for (size_t at = text.find(changes); at != std::string::npos; at = text.find(changes, at))
		text.replace(at, changes.size(), "\tdone\n");
	return text + transcript.substr(end);
}

class Sweep : public kit::LabTest, public testing::WithParamInterface<Scenario> {
protected:
	void TearDown() override
	{
		if (GetParam().finish)
			GetParam().finish();
		LabTest::TearDown();
	}

	/// Runs the scenario with its nth call failing; false when it makes fewer calls.
	bool RunPosition(kit::Calls calls, int n, std::string &transcript)
	{
		const Scenario &scenario = GetParam();
		SCOPED_TRACE(testing::Message() << scenario.name << ", position " << n);
		kit::FreshMachine();
		scenario.prepare();
		VUNKCErrSetEx(0, "", 0);
		const Files before = Snapshot(scenario.watched);
		const auto openBefore = kit::OpenDescriptors();
		const kit::Journal journal;
		int result;
		int code;
		bool struck;
		std::string function;
		{
			const kit::NthCall nth(calls, n);
			result = scenario.call();
			code = VUNKCErrGet();
			struck = nth.Struck();
			function = nth.Function();
		}
		const std::string difference = Difference(before, Snapshot(scenario.watched));
		EXPECT_EQ(kit::OpenDescriptors(), openBefore);
		EXPECT_EQ(kit::Children(), 0);
		if (scenario.check)
			scenario.check();
		EXPECT_TRUE(IsUnlocked(kit::kConfigLock));
		EXPECT_FALSE(fs::exists("/usr/zevo/etc/zevotuned/.config.new") && !function.starts_with("unlinkat"));
		if (!struck) {
			EXPECT_EQ(result, scenario.result);
			transcript += "good: " + std::to_string(result) + '\n';
			if (!difference.empty())
				transcript += "\tchanged:" + difference + '\n';
			return false;
		}
		if (calls == kit::Calls::Platform && result < 0) {
			EXPECT_NE(code, 0);
		}
		transcript += Describe(calls, n, function, result, code, journal, difference);
		EXPECT_EQ(scenario.call(), scenario.result) << "the call does not work again";
		return true;
	}

	void RunAll(kit::Calls calls, const std::string &kind)
	{
		RunPositions(calls, kind);
		// Once for all: it looks through the whole memory, and what is lost stays lost.
		if (__lsan_do_recoverable_leak_check != nullptr) {
			EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0)
				<< "ZEVOTUNED_SWEEP_AT tells at which position";
		}
	}

private:
	void RunPositions(kit::Calls calls, const std::string &kind)
	{
		if (const char *at = getenv("ZEVOTUNED_SWEEP_AT")) {
			std::string transcript;
			RunPosition(calls, atoi(at), transcript);
			printf("%s", transcript.c_str());
			return;
		}
		std::string transcript;
		int n = 1;
		while (RunPosition(calls, n, transcript))
			ASSERT_LT(n++, 2000) << "it never passes";
		if (GetParam().concurrent)
			return;
		transcript = Abbreviated(transcript);
		RecordProperty("positions", n - 1);
		const std::string path = fs::path(SWEEP_EXPECTED) / (GetParam().name + '.' + kind + ".txt");
		if (getenv("ZEVOTUNED_SWEEP_WRITE") != nullptr)
			kit::WriteFile(path, transcript);
		// A build that counts what is reached makes calls of its own.
		if (getenv("ZEVOTUNED_SWEEP_UNCOMPARED") == nullptr) {
			EXPECT_EQ(transcript, kit::ReadFile(path)) << path;
		}
	}
};

TEST_P(Sweep, OfPlatformCalls)
{
	RunAll(kit::Calls::Platform, "platform");
}

TEST_P(Sweep, OfSystemCalls)
{
	RunAll(kit::Calls::System, "system");
}

INSTANTIATE_TEST_SUITE_P(Core, Sweep, testing::ValuesIn(CoreScenarios()),
                         [](const auto &scenario) { return scenario.param.name; });
INSTANTIATE_TEST_SUITE_P(Profiles, Sweep, testing::ValuesIn(ProfileScenarios()),
                         [](const auto &scenario) { return scenario.param.name; });
INSTANTIATE_TEST_SUITE_P(Storage, Sweep, testing::ValuesIn(StorageScenarios()),
                         [](const auto &scenario) { return scenario.param.name; });
INSTANTIATE_TEST_SUITE_P(MetadataFiles, Sweep, testing::ValuesIn(MetadataFilesScenarios()),
                         [](const auto &scenario) { return scenario.param.name; });
INSTANTIATE_TEST_SUITE_P(FlashCache, Sweep, testing::ValuesIn(FlashCacheScenarios()),
                         [](const auto &scenario) { return scenario.param.name; });
INSTANTIATE_TEST_SUITE_P(Discovery, Sweep, testing::ValuesIn(DiscoveryScenarios()),
                         [](const auto &scenario) { return scenario.param.name; });
INSTANTIATE_TEST_SUITE_P(Pin, Sweep, testing::ValuesIn(PinScenarios()),
                         [](const auto &scenario) { return scenario.param.name; });
INSTANTIATE_TEST_SUITE_P(CacheApi, Sweep, testing::ValuesIn(CacheApiScenarios()),
                         [](const auto &scenario) { return scenario.param.name; });

} // namespace
