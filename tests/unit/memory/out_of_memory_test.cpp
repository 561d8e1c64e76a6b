// Every exported function, with each of its allocations failing in turn.

#include "kit/files.h"
#include "kit/lab.h"

#include <vunkcore/error.h>
#include <zevotuned/zevotuned.h>

#include <gtest/gtest.h>
#include <json/value.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <syslog.h>

namespace {

constexpr long kNever = -1;
long untilRefusal = kNever; // allocations that still succeed before one fails
bool refused = false;
long held = 0; // allocations that have not been released

} // namespace

#define EXPORTED __attribute__((visibility("default")))

EXPORTED void *operator new(size_t size)
{
	if (untilRefusal != kNever && untilRefusal-- == 0) {
		refused = true;
		throw std::bad_alloc();
	}
	void *memory = malloc(size == 0 ? 1 : size);
	if (memory == nullptr)
		throw std::bad_alloc();
	++held;
	return memory;
}

EXPORTED void operator delete(void *memory) noexcept
{
	if (memory == nullptr)
		return;
	--held;
	free(memory);
}

EXPORTED void operator delete(void *memory, size_t) noexcept
{
	operator delete(memory);
}

// Lines are of no interest here, and the C library's way to the log allocates on its own.
extern "C" EXPORTED void syslog(int, const char *, ...) {}
extern "C" EXPORTED void __syslog_chk(int, int, const char *, ...) {}

namespace {

class OutOfMemory : public kit::LabTest {
protected:
	// What a function may do with an allocation that fails.
	enum Outcome {
		kFails,         // it fails
		kMayPassItOver, // it fails, or goes on without what the allocation was for
	};

	OutOfMemory()
	{
		const std::string longName(100, 'n'); // no string of it fits into its own object
		kit::Install(kit::kShippedDir, "a",
		             "[main]\nname=" + longName + "\nindex=2\n[sysctl]\nvm.swappiness=1\n");
		kit::Install(kit::kLocalDir, "b",
		             "[main]\nname=performance_throughput\ninherit=" + longName + "\nindex=1\n");
		kit::Install(kit::kShippedGlobalDir, "g", "[main]\nvm_memory_max=1\n[sysctl]\nvm.dirty_ratio=1\n");
	}

	// Calls a function once for every allocation that it makes, with that one failing; then without a failure.
	// `after` is told the result and what was held before the call.
	template <class Call, class Check>
	static void EachFails(
		Outcome outcome, Call call, Check after, void (*prepare)() = [] {})
	{
		int failures = 0;
		for (long nth = 0;; ++nth) {
			SCOPED_TRACE("allocation " + std::to_string(nth));
			prepare();
			VUNKCErrSetEx(0, "", 0);
			const long heldBefore = held;
			untilRefusal = nth;
			refused = false;
			int result = -2;
			try {
				result = call();
			} catch (...) {
				untilRefusal = kNever;
				ADD_FAILURE() << "an exception left the function";
			}
			untilRefusal = kNever;
			if (!refused) {
				EXPECT_GE(result, 0);
				EXPECT_GT(failures, 0) << "it allocates nothing: the test is of no use";
				return;
			}
			after(result, heldBefore);
			if (outcome == kMayPassItOver && result == 0)
				continue;
			++failures;
			ASSERT_EQ(result, -1);
			EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_NO_MEMORY);
		}
	}

	template <class Call>
	static void EachFails(Outcome outcome, Call call)
	{
		call(); // what is allocated once and for all
		EachFails(outcome, call,
		          [](int, long heldBefore) { EXPECT_EQ(held, heldBefore) << "something is leaked"; });
	}
};

TEST_F(OutOfMemory, FailsTheCatalogue)
{
	char path[1024] = "untouched";
	EachFails(kFails, [&] {
		// That there is no such profile sets no error: that is how the two are told apart.
		return TuneGetProfileConfig("missing", path, sizeof(path)) == -1 && VUNKCErrGet() == 0 ? 0 : -1;
	});
	EXPECT_STREQ(path, "untouched");
	EachFails(kFails, [&] { return TuneGetProfileConfig("performance_throughput", path, sizeof(path)); });
	EXPECT_EQ(path, kit::kLocalDir + "/b");

	std::vector<Profile> profiles;
	EachFails(
		kFails, [&] { return TuneProfileListWithVector(profiles); },
		[&](int, long) {
			EXPECT_LE(profiles.size(), 2u);
			profiles = {};
		});
	EXPECT_EQ(profiles.size(), 2u);
}

TEST_F(OutOfMemory, FailsTheListsAndLeavesTheCallersListUsable)
{
	for (const auto function : {TuneProfileList, ZEVOProfileList}) {
		VUNKSZLIST *list = VUNKCSzListAlloc(16);
		VUNKCSzListPush(&list, "held before");
		int items = 1;
		EachFails(
			kMayPassItOver,
			[&] {
				items = list->nItem;
				return function(&list);
			},
			[&](int result, long) {
				if (result != 0) {
					EXPECT_EQ(list->nItem, items);
				}
			});
		EXPECT_STREQ(VUNKCSzListGet(list, 0), "held before");
		EXPECT_STREQ(VUNKCSzListGet(list, list->nItem - 2), "performance_throughput");
		EXPECT_STREQ(VUNKCSzListGet(list, list->nItem - 1), std::string(100, 'n').c_str());
		VUNKCSzListFree(list);
	}
}

TEST_F(OutOfMemory, FailsTheApplication)
{
	EachFails(kMayPassItOver, [] { return TuneApplyProfile("performance_throughput"); });
	EachFails(kMayPassItOver, [] { return TuneApplyGlobalProfile(); });
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "1");
	EXPECT_EQ(kit::Sysctl("vm.dirty_bytes"), "0");
}

TEST_F(OutOfMemory, FailsTheEntryPoints)
{
	EachFails(kMayPassItOver, [] { return ZEVOSetCustomProfile("performance_throughput"); });
	EachFails(kMayPassItOver, [] { return ZEVOSetProfile(0); });
	EachFails(kMayPassItOver, [] { return ZEVORunCurrentProfile(); });
	char name[64] = "untouched";
	EachFails(
		kFails, [&] { return ZEVOGetCurrentProfile(name, sizeof(name)); },
		[&](int, long heldBefore) {
			EXPECT_STREQ(name, "untouched");
			EXPECT_EQ(held, heldBefore);
		});
	EXPECT_STREQ(name, "performance_throughput");
}

TEST_F(OutOfMemory, FailsTheConfiguration)
{
	EachFails(kFails, [] { return TuneSetKeyValueToConfig("some key", "some value"); });
	EachFails(kFails, [] { return TuneSetConfigProfile("a"); });
	Json::Value config;
	EachFails(
		kFails, [&] { return TunedConfigGetToJson(config); }, [&](int, long) { EXPECT_TRUE(config.isNull()); },
		[] { kit::WriteFile(kit::kConfigFile, "profile=b\n"); }); // to be completed each time
	EXPECT_EQ(config["lock"], "false");
}

} // namespace
