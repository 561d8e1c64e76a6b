#include "catalogue_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Kind = InheritanceFault::Kind;

Profile Made(const std::string &name, const std::string &path)
{
	Profile profile;
	profile.name = name;
	profile.path = path;
	profile.main_section["name"] = name;
	return profile;
}

Profile Heir(const std::string &name, const std::string &path, const std::string &inherit)
{
	Profile profile = Made(name, path);
	profile.inherit = inherit;
	profile.main_section["inherit"] = inherit;
	return profile;
}

std::vector<std::string> Paths(const std::vector<const Profile *> &chain)
{
	std::vector<std::string> paths;
	for (const Profile *profile : chain)
		paths.push_back(profile->path);
	return paths;
}

TEST(FindProfile, TakesTheFirstOfAName)
{
	const Catalogue catalogue{Made("b", "/1"), Made("a", "/2"), Made("a", "/3")};
	ASSERT_NE(FindProfile(catalogue, "a"), nullptr);
	EXPECT_EQ(FindProfile(catalogue, "a")->path, "/2");
}

TEST(FindProfile, TellsUpperFromLowerCaseAndWholeNamesFromParts)
{
	const Catalogue catalogue{Made("fast", "/1")};
	EXPECT_EQ(FindProfile(catalogue, "Fast"), nullptr);
	EXPECT_EQ(FindProfile(catalogue, "fas"), nullptr);
	EXPECT_EQ(FindProfile(catalogue, ""), nullptr);
	EXPECT_EQ(FindProfile({}, "fast"), nullptr);
}

TEST(FindProfile, FindsAProfileWithoutANameByTheEmptyName)
{
	const Catalogue catalogue{Made("", "/1")};
	EXPECT_EQ(FindProfile(catalogue, ""), &catalogue[0]);
}

TEST(InheritedName, TellsAnEmptyInheritFromNone)
{
	EXPECT_EQ(InheritedName(Made("a", "/1")), nullptr);
	const Profile heir = Heir("a", "/1", "");
	ASSERT_NE(InheritedName(heir), nullptr);
	EXPECT_EQ(*InheritedName(heir), "");
}

TEST(InheritanceFault, IsNotFoundInAProfileThatInheritsFromNone)
{
	const Catalogue catalogue{Made("a", "/1")};
	EXPECT_FALSE(FindInheritanceFault(catalogue, {}, catalogue[0]));
}

TEST(InheritanceFault, IsNotFoundInAChainThatEnds)
{
	const Catalogue catalogue{Heir("a", "/1", "b"), Heir("b", "/2", "c"), Made("c", "/3")};
	EXPECT_FALSE(FindInheritanceFault(catalogue, {Made("g", "/g")}, catalogue[0]));
}

TEST(InheritanceFault, IsNotFoundWhereOnlyOtherProfilesHaveOne)
{
	const Catalogue catalogue{Made("a", "/1"), Heir("b", "/2", "b"), Heir("c", "/3", "missing")};
	EXPECT_FALSE(FindInheritanceFault(catalogue, {}, catalogue[0]));
}

TEST(InheritanceFault, IsAProfileThatInheritsFromItself)
{
	const Catalogue catalogue{Heir("a", "/1", "a")};
	const auto fault = FindInheritanceFault(catalogue, {}, catalogue[0]);
	ASSERT_TRUE(fault);
	EXPECT_EQ(fault->kind, Kind::kCircle);
	EXPECT_THAT(Paths(fault->chain), ElementsAre("/1", "/1"));
	EXPECT_EQ(Describe(*fault, catalogue),
	          "its inheritance never ends: \"a\" (/1) -> \"a\" (/1); remove one \"inherit\" of the circle");
}

TEST(InheritanceFault, IsACircleThatTheProfileIsPartOf)
{
	const Catalogue catalogue{Heir("a", "/1", "b"), Heir("b", "/2", "a")};
	const auto fault = FindInheritanceFault(catalogue, {}, catalogue[1]);
	ASSERT_TRUE(fault);
	EXPECT_EQ(fault->kind, Kind::kCircle);
	EXPECT_THAT(Paths(fault->chain), ElementsAre("/2", "/1", "/2"));
	EXPECT_EQ(Describe(*fault, catalogue), "its inheritance never ends: \"b\" (/2) -> \"a\" (/1) -> \"b\" (/2); "
	                                       "remove one \"inherit\" of the circle");
}

TEST(InheritanceFault, IsACircleThatTheProfileOnlyLeadsTo)
{
	const Catalogue catalogue{Heir("a", "/1", "b"), Heir("b", "/2", "c"), Heir("c", "/3", "b")};
	const auto fault = FindInheritanceFault(catalogue, {}, catalogue[0]);
	ASSERT_TRUE(fault);
	EXPECT_EQ(fault->kind, Kind::kCircle);
	EXPECT_THAT(Paths(fault->chain), ElementsAre("/1", "/2", "/3", "/2"));
}

TEST(InheritanceFault, IsACircleOfProfilesWithoutAName)
{
	const Catalogue catalogue{Heir("", "/1", "")};
	const auto fault = FindInheritanceFault(catalogue, {}, catalogue[0]);
	ASSERT_TRUE(fault);
	EXPECT_EQ(fault->kind, Kind::kCircle);
}

TEST(InheritanceFault, IsNotFoundWhereAHiddenProfileInheritsFromTheOneThatHidesIt)
{
	const Catalogue catalogue{Made("a", "/1"), Heir("a", "/2", "a")};
	EXPECT_FALSE(FindInheritanceFault(catalogue, {}, catalogue[1]));
}

TEST(InheritanceFault, IsAProfileThatInheritsFromTheOneItHides)
{
	const Catalogue catalogue{Heir("a", "/1", "a"), Made("a", "/2")};
	const auto fault = FindInheritanceFault(catalogue, {}, catalogue[0]);
	ASSERT_TRUE(fault);
	EXPECT_THAT(Paths(fault->chain), ElementsAre("/1", "/1"));
}

TEST(InheritanceFault, IsAMissingProfileAtTheEndOfAChain)
{
	const Catalogue catalogue{Heir("a", "/1", "base"), Heir("base", "/2", "baes")};
	const auto fault = FindInheritanceFault(catalogue, {}, catalogue[0]);
	ASSERT_TRUE(fault);
	EXPECT_EQ(fault->kind, Kind::kMissing);
	EXPECT_THAT(Paths(fault->chain), ElementsAre("/1", "/2"));
	EXPECT_EQ(Describe(*fault, catalogue),
	          "/2 inherits from \"baes\", and there is no profile of that name; did you mean \"base\"?");
}

TEST(InheritanceFault, IsAnEmptyInheritWhereEveryProfileHasAName)
{
	const Catalogue catalogue{Heir("a", "/1", "")};
	const auto fault = FindInheritanceFault(catalogue, {}, catalogue[0]);
	ASSERT_TRUE(fault);
	EXPECT_EQ(fault->kind, Kind::kMissing);
	EXPECT_EQ(Describe(*fault, catalogue),
	          "/1 inherits from \"\", and there is no profile of that name; mend or remove its \"inherit\"");
}

TEST(InheritanceFault, IsAGlobalProfileThatInheritsFromAnyProfile)
{
	const Catalogue catalogue{Made("a", "/1"), Made("b", "/2")};
	const Catalogue globals{Made("g", "/g"), Heir("h", "/h", "b")};
	const auto fault = FindInheritanceFault(catalogue, globals, catalogue[0]);
	ASSERT_TRUE(fault);
	EXPECT_EQ(fault->kind, Kind::kGlobal);
	EXPECT_THAT(Paths(fault->chain), ElementsAre("/h", "/2"));
	EXPECT_EQ(Describe(*fault, catalogue),
	          "the global profile /h inherits from \"b\" (/2), before which all global "
	          "profiles are applied again, without end; remove its \"inherit\"");
}

TEST(InheritanceFault, IsAGlobalProfileThatInheritsFromAMissingOne)
{
	const Catalogue catalogue{Made("a", "/1")};
	const Catalogue globals{Heir("g", "/g", "g")};
	const auto fault = FindInheritanceFault(catalogue, globals, catalogue[0]);
	ASSERT_TRUE(fault);
	EXPECT_EQ(fault->kind, Kind::kMissing);
	EXPECT_THAT(Paths(fault->chain), ElementsAre("/g"));
}

TEST(InheritanceFault, IsTheOneThatIsMetFirst)
{
	const Catalogue catalogue{Heir("a", "/1", "a")};
	const Catalogue globals{Heir("g", "/g", "missing"), Heir("h", "/h", "a")};
	const auto fault = FindInheritanceFault(catalogue, globals, catalogue[0]);
	ASSERT_TRUE(fault);
	EXPECT_THAT(Paths(fault->chain), ElementsAre("/g"));
}

TEST(EditDistance, CountsSingleChanges)
{
	EXPECT_EQ(EditDistance("", ""), 0u);
	EXPECT_EQ(EditDistance("abc", "abc"), 0u);
	EXPECT_EQ(EditDistance("abc", ""), 3u);
	EXPECT_EQ(EditDistance("", "ab"), 2u);
	EXPECT_EQ(EditDistance("abc", "abd"), 1u);
	EXPECT_EQ(EditDistance("abc", "ac"), 1u);
	EXPECT_EQ(EditDistance("abc", "abcd"), 1u);
	EXPECT_EQ(EditDistance("abc", "acb"), 1u);
	EXPECT_EQ(EditDistance("abcd", "badc"), 2u);
	EXPECT_EQ(EditDistance("kitten", "sitting"), 3u);
	EXPECT_EQ(EditDistance("ca", "abc"), 3u);
}

TEST(EditDistance, IsTheSameBothWaysAndAtLeastTheDifferenceInLength)
{
	std::mt19937 random(1);
	const auto text = [&random] {
		std::string made(random() % 8, ' ');
		for (char &c : made)
			c = static_cast<char>('a' + random() % 3);
		return made;
	};
	for (int i = 0; i < 5000; ++i) {
		const std::string a = text();
		const std::string b = text();
		const size_t distance = EditDistance(a, b);
		EXPECT_EQ(distance, EditDistance(b, a)) << a << ' ' << b;
		EXPECT_EQ(distance == 0, a == b) << a << ' ' << b;
		EXPECT_LE(distance, std::max(a.size(), b.size())) << a << ' ' << b;
		EXPECT_GE(distance, std::max(a.size(), b.size()) - std::min(a.size(), b.size())) << a << ' ' << b;
	}
}

TEST(NearestNames, PutsTheNearestFirst)
{
	EXPECT_THAT(NearestNames("balanced", {"balance", "balanzed", "unbalanced", "quick"}),
	            ElementsAre("balance", "balanzed", "unbalanced"));
	EXPECT_THAT(NearestNames("performance_latenzi", {"performance_latency_2", "performance_latency"}),
	            ElementsAre("performance_latency", "performance_latency_2"));
}

TEST(NearestNames, GivesThreeAtMostAndEachOnce)
{
	EXPECT_THAT(NearestNames("abcd", {"abce", "abce", "abcf", "abcg", "abch"}),
	            ElementsAre("abce", "abcf", "abcg"));
}

TEST(NearestNames, LeavesOutWhatIsFarAway)
{
	EXPECT_THAT(NearestNames("quiet", {"performance_latency", "q"}), IsEmpty());
	EXPECT_THAT(NearestNames("ab", {"cd", "abcdef"}), IsEmpty());
	EXPECT_THAT(NearestNames("a", {"b"}), IsEmpty());
}

TEST(NearestNames, DoesNotTellUpperFromLowerCase)
{
	EXPECT_THAT(NearestNames("PERFORMANCE_LATENCY", {"performance_latency"}), ElementsAre("performance_latency"));
}

TEST(NearestNames, FindsNamesOfWhichAPartWasTyped)
{
	EXPECT_THAT(NearestNames("latency", {"performance_throughput", "performance_latency"}),
	            ElementsAre("performance_latency"));
}

TEST(NearestNames, HasNothingForTheEmptyNameOrTheVeryName)
{
	EXPECT_THAT(NearestNames("", {"", "a"}), IsEmpty());
	EXPECT_THAT(NearestNames("a", {"a"}), IsEmpty());
}

TEST(NearestNames, ComparesNoNamesOfUnreasonableLength)
{
	const std::string longName(1'000'000, 'a');
	EXPECT_THAT(NearestNames(longName, {longName + 'b'}), IsEmpty());
	EXPECT_THAT(NearestNames(std::string(255, 'a'), {std::string(256, 'a')}), ElementsAre(std::string(256, 'a')));
	EXPECT_THAT(NearestNames(std::string(256, 'a'), {std::string(257, 'a')}), IsEmpty());
}

TEST(DidYouMean, ListsNamesAsASentenceDoes)
{
	EXPECT_EQ(DidYouMean("abcd", {"abce"}, "!"), "; did you mean \"abce\"?");
	EXPECT_EQ(DidYouMean("abcd", {"abce", "abcf"}, "!"), "; did you mean \"abce\" or \"abcf\"?");
	EXPECT_EQ(DidYouMean("abcd", {"abce", "abcf", "abcg"}, "!"), "; did you mean \"abce\", \"abcf\" or \"abcg\"?");
	EXPECT_EQ(DidYouMean("abcd", {}, "!"), "!");
}

} // namespace
