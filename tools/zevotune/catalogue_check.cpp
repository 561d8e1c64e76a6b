#include "catalogue_check.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

// Longer names are not typed, and comparing takes time with the product of the lengths.
constexpr size_t kMaxCompared = 256;
constexpr size_t kMaxSuggestions = 3;
constexpr size_t kMinPart = 3; // shorter parts are in nearly every name

std::string LowerCase(std::string_view text)
{
	std::string lower(text);
	for (char &c : lower)
		if (c >= 'A' && c <= 'Z')
			c = static_cast<char>(c - 'A' + 'a');
	return lower;
}

// The distance of names that are near to each other, nothing for others.
std::optional<size_t> Nearness(const std::string &typed, const std::string &name)
{
	if (typed.empty() || std::max(typed.size(), name.size()) > kMaxCompared)
		return std::nullopt;
	const size_t distance = EditDistance(typed, name);
	const size_t shorter = std::min(typed.size(), name.size());
	if (distance < shorter && distance <= std::max<size_t>(1, shorter / 3))
		return distance;
	if (typed.size() >= kMinPart && name.find(typed) != std::string::npos)
		return distance;
	return std::nullopt;
}

std::string NameAndPath(const Profile &profile)
{
	return Quoted(profile.name) + " (" + profile.path + ")";
}

} // namespace

const Profile *FindProfile(const Catalogue &catalogue, std::string_view name)
{
	const auto found = std::find_if(catalogue.begin(), catalogue.end(),
	                                [name](const Profile &profile) { return profile.name == name; });
	return found == catalogue.end() ? nullptr : &*found;
}

const std::string *InheritedName(const Profile &profile)
{
	const auto found = profile.main_section.find("inherit");
	return found == profile.main_section.end() ? nullptr : &found->second;
}

std::optional<InheritanceFault> FindInheritanceFault(const Catalogue &catalogue, const Catalogue &globals,
                                                     const Profile &start)
{
	using Kind = InheritanceFault::Kind;
	for (const Profile &global : globals) {
		const std::string *name = InheritedName(global);
		if (name == nullptr)
			continue;
		if (const Profile *inherited = FindProfile(catalogue, *name))
			return InheritanceFault{Kind::kGlobal, {&global, inherited}};
		return InheritanceFault{Kind::kMissing, {&global}};
	}

	std::vector<const Profile *> chain{&start};
	while (const std::string *name = InheritedName(*chain.back())) {
		const Profile *next = FindProfile(catalogue, *name);
		if (next == nullptr)
			return InheritanceFault{Kind::kMissing, std::move(chain)};
		const bool again = std::find(chain.begin(), chain.end(), next) != chain.end();
		chain.push_back(next);
		if (again)
			return InheritanceFault{Kind::kCircle, std::move(chain)};
	}
	return std::nullopt;
}

std::string Describe(const InheritanceFault &fault, const Catalogue &catalogue)
{
	const Profile &first = *fault.chain.front();
	const Profile &last = *fault.chain.back();
	switch (fault.kind) {
	case InheritanceFault::Kind::kMissing: {
		const std::string &name = *InheritedName(last);
		return last.path + " inherits from " + Quoted(name) + ", and there is no profile of that name" +
		       DidYouMean(name, NamesOf(catalogue), "; mend or remove its \"inherit\"");
	}
	case InheritanceFault::Kind::kGlobal:
		return "the global profile " + first.path + " inherits from " + NameAndPath(last) +
		       ", before which all global profiles are applied again, without end; remove its \"inherit\"";
	case InheritanceFault::Kind::kCircle:
		break;
	}
	std::string text = "its inheritance never ends: ";
	for (const Profile *profile : fault.chain)
		text += (profile == &first && text.back() == ' ' ? "" : " -> ") + NameAndPath(*profile);
	return text + "; remove one \"inherit\" of the circle";
}

size_t EditDistance(std::string_view a, std::string_view b)
{
	// Row i holds the distances of the first i characters of a from every beginning of b.
	std::vector<size_t> beforePrevious(b.size() + 1);
	std::vector<size_t> previous(b.size() + 1);
	std::vector<size_t> current(b.size() + 1);
	for (size_t j = 0; j <= b.size(); ++j)
		current[j] = j;
	for (size_t i = 1; i <= a.size(); ++i) {
		std::swap(beforePrevious, previous);
		std::swap(previous, current);
		current[0] = i;
		for (size_t j = 1; j <= b.size(); ++j) {
			const size_t replaced = previous[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
			current[j] = std::min({previous[j] + 1, current[j - 1] + 1, replaced});
			if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
				current[j] = std::min(current[j], beforePrevious[j - 2] + 1);
		}
	}
	return current[b.size()];
}

std::vector<std::string> NearestNames(std::string_view typed, const std::vector<std::string> &names)
{
	const std::string lowerTyped = LowerCase(typed);
	std::vector<std::pair<size_t, std::string>> near;
	for (const std::string &name : names) {
		const bool known =
			std::any_of(near.begin(), near.end(), [&](const auto &entry) { return entry.second == name; });
		if (known || name == typed)
			continue;
		if (const std::optional<size_t> distance = Nearness(lowerTyped, LowerCase(name)))
			near.emplace_back(*distance, name);
	}
	std::stable_sort(near.begin(), near.end(), [](const auto &a, const auto &b) { return a.first < b.first; });

	std::vector<std::string> nearest;
	for (size_t i = 0; i < std::min(near.size(), kMaxSuggestions); ++i)
		nearest.push_back(near[i].second);
	return nearest;
}

std::vector<std::string> NamesOf(const Catalogue &catalogue)
{
	std::vector<std::string> names;
	std::transform(catalogue.begin(), catalogue.end(), std::back_inserter(names),
	               [](const Profile &profile) { return profile.name; });
	return names;
}

std::string Quoted(std::string_view text)
{
	return '"' + std::string(text) + '"';
}

std::string DidYouMean(std::string_view typed, const std::vector<std::string> &names, const std::string &otherwise)
{
	const std::vector<std::string> nearest = NearestNames(typed, names);
	if (nearest.empty())
		return otherwise;
	std::string text = "; did you mean " + Quoted(nearest[0]);
	for (size_t i = 1; i < nearest.size(); ++i)
		text += (i + 1 == nearest.size() ? " or " : ", ") + Quoted(nearest[i]);
	return text + "?";
}
