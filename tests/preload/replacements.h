#ifndef TESTS_PRELOAD_REPLACEMENTS_H
#define TESTS_PRELOAD_REPLACEMENTS_H

// What a preloaded library puts in the place of the library's exported functions.

#include <vunkcore/hash.h>
#include <zevotuned/profile.h>

#include <cstddef>
#include <vector>

// A null one leaves the function as it is.
struct Replacements {
	int (*getProfileConfig)(const char *szProfile, char *szConfig, unsigned long cbConfig);
	int (*profileListWithVector)(std::vector<Profile> &vecProfile);
	int (*applyGlobalProfile)();
	int (*applyProfile)(const char *szProfile);
	int (*configGet)(VUNKSZHASH **ppshHash);
	int (*getCurrentProfile)(char *szBuf, size_t cbBuf);
	int (*profileList)(VUNKSZLIST **ppslList);
	int (*setConfigProfile)(const char *szProfile);
	int (*setCustomProfile)(const char *szProfile);
};

#define REPLACEMENTS_SYMBOL "zevotuned_test_replacements"

#endif
