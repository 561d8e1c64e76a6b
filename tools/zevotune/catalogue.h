#ifndef ZEVOTUNE_CATALOGUE_H
#define ZEVOTUNE_CATALOGUE_H

// The profiles that are installed. Everything here throws Failure.

#include "catalogue_check.h"

Catalogue ReadCatalogue();
Catalogue ReadGlobalProfiles();

/// Says that no profile has a name, and which ones are near to it.
std::string NoSuchProfile(const Catalogue &catalogue, const std::string &name);

/// The profile of a name that somebody has typed.
const Profile &RequireProfile(const Catalogue &catalogue, const std::string &name);

/// Makes sure that applying a profile comes to an end and finds all profiles that it inherits from.
void RequireSoundInheritance(const Catalogue &catalogue, const Profile &profile);

#endif
