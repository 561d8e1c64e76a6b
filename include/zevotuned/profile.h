#ifndef ZEVOTUNED_PROFILE_H
#define ZEVOTUNED_PROFILE_H

/**
 * @file
 * Installed profiles.
 *
 * A profile is a section file (vunkcore/section_file.h) with a section "main". Every regular file of the two folders
 *
 *     /usr/zevo/share/zevotuned/profiles     profiles that ship
 *     /usr/local/share/zevotuned/profiles    profiles added locally
 *
 * is one, whatever its name, except for names that begin with a dot. A folder that is missing holds none. A file that
 * cannot be read, or has no section "main", makes every function here fail, so that a broken profile shows at once. The
 * folders are read afresh by every call.
 */

#include <map>
#include <string>
#include <vector>

#include <vunkcore/list.h>
#include <zevotuned/export.h>

/** One profile, as its section "main" describes it. */
class Profile {
public:
	std::string name;               /**< key "name": what the profile is known by; "" when the key is missing */
	std::string inherit;            /**< key "inherit": profile that is applied as part of this one; "" for none */
	std::string profile_title_i18n; /**< key "profile_title_i18n": key of the title's translations */
	std::string profile_desc_i18n;  /**< key "profile_desc_i18n": key of the description's translations */
	std::string path;               /**< the file that it was read from */
	std::map<std::string, std::string> main_section; /**< all keys of section "main", those above included */
	bool ui = false; /**< key "ui" is exactly "true": meant to be offered to users */
	int index = -1;  /**< key "index", a decimal number to sort by; -1 when the key is missing */
};

/** Order of the catalogue: by index alone. Profiles of equal index have no order of their own. */
struct SortProfile {
	bool operator()(const Profile &a, const Profile &b) const { return a.index < b.index; }
};

/**
 * Appends all installed profiles to a vector and sorts it, what it held before included, with SortProfile. Profiles of
 * the same name are all there; of such, TuneGetProfileConfig and all that applies profiles take the first.
 *
 * @return 0; -1 on failure, when the vector keeps what was appended until then, unsorted.
 */
ZEVOTUNED_API int TuneProfileListWithVector(std::vector<Profile> &vecProfile);

/**
 * Finds the file of a profile.
 *
 * @param szProfile  name of the profile; upper and lower case differ.
 * @param szConfig   receives the path, cut to cbConfig - 1 bytes and terminated; untouched on failure.
 * @param cbConfig   size of szConfig in bytes, at least 1.
 * @return 0; -1 when there is no such profile (not logged, no error set) or the profiles could not be read.
 */
ZEVOTUNED_API int TuneGetProfileConfig(const char *szProfile, char *szConfig, unsigned long cbConfig);

/** Does what ZEVOProfileList (tune.h) says. */
ZEVOTUNED_API int TuneProfileList(VUNKSZLIST **ppslList);

#endif
