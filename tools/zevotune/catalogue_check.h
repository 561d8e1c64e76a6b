#ifndef ZEVOTUNE_CATALOGUE_CHECK_H
#define ZEVOTUNE_CATALOGUE_CHECK_H

// What can be said of profiles before any of them is applied.

#include <zevotuned/profile.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Profiles in the order in which the library looks through them.
using Catalogue = std::vector<Profile>;

/// The profile that a name stands for: the first one of that name. Null when there is none.
const Profile *FindProfile(const Catalogue &catalogue, std::string_view name);

/// The name that a profile inherits from; null when it inherits from none. An empty "inherit" is a name, too, which the
/// field Profile::inherit does not tell from a missing one.
const std::string *InheritedName(const Profile &profile);

/// Why applying a profile would stop half-way, or never.
struct InheritanceFault {
	enum class Kind {
		kMissing, // the last of the chain inherits from a name that no profile has
		kCircle,  // the last of the chain occurs in it before
		kGlobal   // the first is a global profile; before the second, which it inherits from, it comes again
	};
	Kind kind;
	std::vector<const Profile *> chain; // each inherits from the next one
};

/// Looks for what the application of a profile would meet first. The arguments have to outlive the result.
std::optional<InheritanceFault> FindInheritanceFault(const Catalogue &catalogue, const Catalogue &globals,
                                                     const Profile &start);

/// Says it with names and files, and what to do.
std::string Describe(const InheritanceFault &fault, const Catalogue &catalogue);

/// Number of characters to insert, remove, replace or swap with their neighbour to make one text of the other.
size_t EditDistance(std::string_view a, std::string_view b);

/// Up to three different names that somebody may have meant who typed another one, the nearest first. Upper and lower
/// case do not count, and a part of a name is near to it.
std::vector<std::string> NearestNames(std::string_view typed, const std::vector<std::string> &names);

std::vector<std::string> NamesOf(const Catalogue &catalogue);

/// The text between double quotes.
std::string Quoted(std::string_view text);

/// `; did you mean "a" or "b"?`, or otherwise where no name is near.
std::string DidYouMean(std::string_view typed, const std::vector<std::string> &names, const std::string &otherwise);

#endif
