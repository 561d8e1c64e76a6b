// Exported functions call each other through their symbols, so that a preloaded library can take the place of one.

#include "preload/replacements.h"

#include "kit/faults.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>
#include <zevotuned/zevotuned.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <dlfcn.h>

namespace {

using Lines = std::vector<std::string>;

constexpr int kResult = 42; // no result that the library itself gives

// What the replacements were called with, in order.
Lines calls;

template <int result>
int Named(const char *name)
{
	calls.push_back(name);
	return result;
}

class Preloaded : public kit::LabTest {
protected:
	Preloaded() : replacements(static_cast<Replacements *>(dlsym(RTLD_DEFAULT, REPLACEMENTS_SYMBOL)))
	{
		if (replacements == nullptr)
			throw std::logic_error("the library of the replacements is not preloaded");
		*replacements = {};
		calls.clear();
		VUNKCErrSetEx(0, "", 0);
	}
	~Preloaded() override { *replacements = {}; }

	Replacements *const replacements;
	kit::Journal journal;
	kit::Programs programs;
};

TEST_F(Preloaded, FunctionsWithoutAReplacementAreTheLibrarysOwn)
{
	kit::Install(kit::kShippedDir, "a", "[main]\nname=performance_latency\n[sysctl]\nvm.x=1\n");
	EXPECT_EQ(ZEVOSetProfile(1), 0);
	EXPECT_EQ(ZEVORunCurrentProfile(), 0);
	EXPECT_EQ(programs.Lines(), (Lines{"/sbin/sysctl -we vm.x=1", "/sbin/sysctl -we vm.x=1"}));
}

TEST_F(Preloaded, CurrentProfileIsTheOneThatIsApplied)
{
	replacements->getCurrentProfile = [](char *szBuf, size_t cbBuf) {
		snprintf(szBuf, cbBuf, "other");
		return 0;
	};
	replacements->applyProfile = Named<0>;
	EXPECT_EQ(ZEVORunCurrentProfile(), 0);
	EXPECT_EQ(calls, Lines{"other"});

	replacements->getCurrentProfile = [](char *, size_t) { return -1; };
	EXPECT_EQ(ZEVORunCurrentProfile(), -1);
	EXPECT_EQ(calls, Lines{"other"});
	EXPECT_EQ(journal.Lines(), Lines{"tune.cpp Failed to get current profile.[0x0000 :0]"});
}

TEST_F(Preloaded, SelectionByNameServesTheOneByNumber)
{
	replacements->setCustomProfile = Named<kResult>;
	EXPECT_EQ(ZEVOSetProfile(0), kResult);
	EXPECT_EQ(ZEVOSetProfile(1), kResult);
	EXPECT_EQ(calls, (Lines{"performance_throughput", "performance_latency"}));
}

TEST_F(Preloaded, SelectionFindsRecordsAndAppliesInThisOrder)
{
	replacements->getProfileConfig = [](const char *szProfile, char *, unsigned long cbConfig) {
		calls.push_back("find " + std::string(szProfile) + " " + std::to_string(cbConfig));
		return 0;
	};
	replacements->setConfigProfile = [](const char *szProfile) {
		calls.push_back("record " + std::string(szProfile));
		return 0;
	};
	replacements->applyProfile = [](const char *szProfile) {
		calls.push_back("apply " + std::string(szProfile));
		return -1;
	};
	EXPECT_EQ(ZEVOSetCustomProfile("a"), -1);
	EXPECT_EQ(calls, (Lines{"find a 1024", "record a", "apply a"}));
	EXPECT_EQ(journal.Lines(), Lines{"tune.cpp Failed to apply profile [a].[0x0000 :0]"});

	calls.clear();
	journal.Clear();
	replacements->setConfigProfile = Named<-1>;
	EXPECT_EQ(ZEVOSetCustomProfile("a"), -1);
	EXPECT_EQ(calls, (Lines{"find a 1024", "a"}));
	EXPECT_EQ(journal.Lines(), Lines{"tune.cpp Failed to set profile [a].[0x0000 :0]"});
}

TEST_F(Preloaded, ConfigurationGivesTheCurrentProfile)
{
	replacements->configGet = [](VUNKSZHASH **ppshHash) {
		return VUNKCSzHashSetValue(ppshHash, "profile", "other");
	};
	char name[16];
	EXPECT_EQ(ZEVOGetCurrentProfile(name, sizeof(name)), 0);
	EXPECT_STREQ(name, "other");
}

TEST_F(Preloaded, ListServesTheOneOfTheEntryPoints)
{
	replacements->profileList = [](VUNKSZLIST **) { return -1; };
	VUNKSZLIST *list = VUNKCSzListAlloc(16);
	EXPECT_EQ(ZEVOProfileList(&list), -1);
	EXPECT_EQ(journal.Lines(), Lines{"tune.cpp Failed to TuneProfileList.[0x0000 :0]"});
	VUNKCSzListFree(list);
}

TEST_F(Preloaded, CatalogueServesTheSearchAndTheList)
{
	replacements->profileListWithVector = [](std::vector<Profile> &vecProfile) {
		vecProfile.emplace_back().name = "other";
		vecProfile.back().path = "/other/path";
		return 0;
	};
	char path[64];
	EXPECT_EQ(TuneGetProfileConfig("other", path, sizeof(path)), 0);
	EXPECT_STREQ(path, "/other/path");
	VUNKSZLIST *list = VUNKCSzListAlloc(16);
	EXPECT_EQ(TuneProfileList(&list), 0);
	EXPECT_EQ(list->nItem, 1);
	EXPECT_STREQ(VUNKCSzListGet(list, 0), "other");
	VUNKCSzListFree(list);
}

TEST_F(Preloaded, ApplicationFindsAndAppliesGlobalProfilesThroughThem)
{
	static std::string file;
	file = kit::Install("/run/zevotuned", "elsewhere", "[main]\n[sysctl]\nvm.x=1\n");
	replacements->getProfileConfig = [](const char *, char *szConfig, unsigned long cbConfig) {
		snprintf(szConfig, cbConfig, "%s", file.c_str());
		return 0;
	};
	replacements->applyGlobalProfile = [] {
		calls.push_back("globals");
		return 0;
	};
	EXPECT_EQ(TuneApplyProfile("anything"), 0);
	EXPECT_EQ(calls, Lines{"globals"});
	EXPECT_EQ(programs.Lines(), Lines{"/sbin/sysctl -we vm.x=1"});

	replacements->applyGlobalProfile = [] { return -1; };
	EXPECT_EQ(TuneApplyProfile("anything"), -1);
	EXPECT_EQ(programs.Lines(), Lines{"/sbin/sysctl -we vm.x=1"});
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to TuneApplyGlobalProfile.[0x0000 :0]"});
}

TEST_F(Preloaded, ApplicationServesInheritance)
{
	kit::Install(kit::kShippedGlobalDir, "g", "[main]\ninherit=other\n");
	replacements->applyProfile = Named<0>;
	EXPECT_EQ(TuneApplyGlobalProfile(), 0);
	EXPECT_EQ(calls, Lines{"other"});
}

} // namespace
