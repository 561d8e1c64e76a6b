#ifndef UTILS_APPLY_SECTION_H
#define UTILS_APPLY_SECTION_H

// A section of a profile's file, on its way to the handler that applies it.

#include "support/handles.h"
#include "utils/apply/writer.h"

#include <zevotuned/profile.h>

struct SectionPlace {
	const char *szPath;     // the file that is being applied
	const char *szSection;  // the section's name as it stands there
	const Profile &profile; // what the file's own [main] says; inherited profiles have no part in it
	ParameterWriter &writer;
};

// A section's keys and values, in file order.
class Section {
public:
	// Logs its failure. 0 or -1. Call once.
	int Read(const SectionPlace &place);

	int Count() const { return keys.Count(); }
	const char *Key(int i) const { return keys.Get(i); }
	const char *Value(int i) const { return values.Get(Key(i)); }

private:
	Hash values;
	List keys;
};

// Reads a section and calls apply(szKey, szValue) for each of its keys, up to the first that fails. 0 or -1.
template <class Apply>
int ApplyEachKey(const SectionPlace &place, Apply &&apply)
{
	Section section;
	if (section.Read(place) != 0)
		return -1;
	for (int i = 0; i < section.Count(); ++i) {
		const char *const szKey = section.Key(i);
		const char *const szValue = section.Value(i);
		place.writer.OnKey(szKey, szValue);
		if (apply(szKey, szValue) != 0)
			return -1;
	}
	return 0;
}

#endif
