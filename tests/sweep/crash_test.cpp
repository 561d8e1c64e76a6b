// Every call that writes a file, killed at each of its system calls that change anything: the file is the old one or the
// new one, and the same call made again does what it would have done at first.
//
// ZEVOTUNED_SWEEP_AT=7 runs one position only.

#include "sweep/scenario.h"

#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/nth_call.h"

#include <vunkcore/vunkcore.h>

#include <cstdlib>
#include <filesystem>
#include <map>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

/// The core library's writers, the storage library's, and the library's that go to the configuration, the mapping file
/// and the progress file. A pid file is not the same twice.
std::vector<Scenario> Writers()
{
	std::vector<Scenario> scenarios;
	for (const Scenario &scenario : CoreScenarios())
		if (scenario.name.starts_with("section_") || scenario.name == "pairs_set")
			scenarios.push_back(scenario);
	for (const Scenario &scenario : ProfileScenarios())
		if (scenario.name.starts_with("config_") || scenario.name.starts_with("write_") ||
		    scenario.name.starts_with("find_config"))
			scenarios.push_back(scenario);
	for (const Scenario &scenario : MetadataFilesScenarios())
		if (scenario.name.starts_with("metadata_set_") || scenario.name.starts_with("metadata_progress_write"))
			scenarios.push_back(scenario);
	for (const Scenario &scenario : FlashCacheScenarios())
		if (scenario.name.starts_with("volume_conf_set") || scenario.name.starts_with("space_build_set"))
			scenarios.push_back(scenario);
	return scenarios;
}

using Files = std::map<std::string, std::string>;

/// The files that are written, without those that a writer killed half-way may leave beside them.
Files Written()
{
	Files files;
	for (const char *dir : {"/usr/zevo/etc/zevotuned", "/usr/zevo/etc/volumes", "/run/zevotuned",
	                        "/run/zevotuned/metadata_cache", "/run/zevo/space_build"}) {
		if (!fs::exists(dir))
			continue;
		for (const auto &entry : fs::directory_iterator(dir))
			if (entry.is_regular_file() && !entry.path().filename().string().starts_with('.'))
				files[entry.path()] = kit::ReadFile(entry.path());
	}
	return files;
}

class Crash : public kit::LabTest, public testing::WithParamInterface<Scenario> {
protected:
	void TearDown() override
	{
		if (GetParam().finish)
			GetParam().finish();
		LabTest::TearDown();
	}

	void Prepare()
	{
		kit::FreshMachine();
		GetParam().prepare();
	}

	/// Runs the call in a child that is killed at its nth change. False when the child got to its end.
	bool KilledAt(int n)
	{
		const pid_t child = fork();
		if (child == 0) {
			int result;
			{
				const kit::NthCall nth(kit::Calls::System, n, kit::NthCall::Kill);
				result = GetParam().call();
			}
			_exit(result == GetParam().result ? 0 : 1);
		}
		int status = 0;
		EXPECT_EQ(waitpid(child, &status, 0), child);
		if (WIFSIGNALED(status)) {
			EXPECT_EQ(WTERMSIG(status), SIGKILL);
			return true;
		}
		EXPECT_EQ(status, 0);
		return false;
	}
};

TEST_P(Crash, LeavesTheOldFileOrTheNew)
{
	const kit::Journal journal;
	Prepare();
	const Files before = Written();
	ASSERT_EQ(GetParam().call(), GetParam().result);
	const Files done = Written();

	const char *only = getenv("ZEVOTUNED_SWEEP_AT");
	int n = only != nullptr ? atoi(only) : 1;
	for (;; ++n) {
		SCOPED_TRACE(testing::Message() << GetParam().name << ", killed at change " << n);
		ASSERT_LT(n, 200);
		Prepare();
		const bool killed = KilledAt(n);
		const Files after = Written();
		if (!killed) {
			EXPECT_EQ(after, done);
			break;
		}
		for (const auto &[path, text] : after) {
			const bool old = before.contains(path) && before.at(path) == text;
			const bool now = done.contains(path) && done.at(path) == text;
			// A configuration or a progress file that was not there is made empty first, and filled as a
			// whole.
			EXPECT_TRUE(old || now || (text.empty() && !before.contains(path))) << path << ":\n" << text;
		}
		for (const auto &[path, text] : before)
			EXPECT_TRUE(after.contains(path)) << path << " is gone";

		EXPECT_EQ(GetParam().call(), GetParam().result);
		EXPECT_EQ(Written(), done);
		// A call that writes clears away what the killed one left.
		if (after != done && GetParam().name != "find_config_fresh") {
			EXPECT_FALSE(fs::exists("/usr/zevo/etc/zevotuned/.config.new"));
			EXPECT_FALSE(fs::exists("/run/zevotuned/.sections.new") ||
			             fs::exists("/run/zevotuned/.pairs.new") ||
			             fs::exists("/run/zevotuned/.mapping.new"));
		}
		if (only != nullptr)
			return;
	}
	RecordProperty("kill_points", n - 1);
}

INSTANTIATE_TEST_SUITE_P(Writers, Crash, testing::ValuesIn(Writers()),
                         [](const auto &scenario) { return scenario.param.name; });

} // namespace
