#include "catalogue.h"

#include "error_text.h"
#include "failure.h"
#include "paths.h"

#include "utils/profile_catalogue.h"

Catalogue ReadCatalogue()
{
	Catalogue catalogue;
	ForgetErrors();
	if (TuneProfileListWithVector(catalogue) != 0)
		throw Failure("cannot read the profiles: " + ErrorText());
	return catalogue;
}

Catalogue ReadGlobalProfiles()
{
	Catalogue globals;
	ForgetErrors();
	for (const char *dir : kGlobalProfiles)
		if (TuneProfileListByDir(dir, globals) != 0)
			throw Failure("cannot read the global profiles: " + ErrorText());
	return globals;
}

std::string NoSuchProfile(const Catalogue &catalogue, const std::string &name)
{
	return "there is no profile " + Quoted(name) + " in " + kShippedProfiles + " or " + kLocalProfiles +
	       DidYouMean(name, NamesOf(catalogue), "; \"zevotune list\" shows all");
}

const Profile &RequireProfile(const Catalogue &catalogue, const std::string &name)
{
	if (const Profile *profile = FindProfile(catalogue, name))
		return *profile;
	throw Failure(NoSuchProfile(catalogue, name));
}

void RequireSoundInheritance(const Catalogue &catalogue, const Profile &profile)
{
	const Catalogue globals = ReadGlobalProfiles();
	if (const auto fault = FindInheritanceFault(catalogue, globals, profile))
		throw Failure("cannot apply " + Quoted(profile.name) + ": " + Describe(*fault, catalogue));
}
