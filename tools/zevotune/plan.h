#ifndef ZEVOTUNE_PLAN_H
#define ZEVOTUNE_PLAN_H

// What applying a profile would do.

#include "kernel_value.h"

#include <string>
#include <vector>

struct PlannedWrite {
	std::string target; // a kernel parameter's name, or the path of an attribute
	std::string path;   // the kernel's file
	std::string value;  // as it would be written
	KernelValue now;
	bool known = true;             // to this kernel; an unknown parameter is passed over
	bool overwrittenLater = false; // by what comes after it in the plan, so that its value does not stay
	std::string note;              // how the value comes about, where it is not the file's
};

struct PassedOver {
	std::string what;
	std::string why;
};

struct PlannedKey {
	std::string key;
	std::string value;
	int line;
	std::vector<PlannedWrite> writes;
	std::vector<PassedOver> passedOver;
};

enum class ProfileRole { kGlobal, kInherited, kSelected };

struct PlannedSection {
	ProfileRole role;
	std::string profile; // its name
	std::string path;
	std::string section;
	int line;
	std::vector<PlannedKey> keys;
	std::vector<PassedOver> passedOver;
};

struct Plan {
	std::string profile;
	std::vector<PlannedSection>
		sections;    // in the order of their application, inherited and global profiles included
	std::string failure; // what would end the application where the plan ends; empty when nothing would
};

/// A write with the place that it comes from. It points into the plan.
struct PlaceOfWrite {
	const PlannedSection *section;
	const PlannedKey *key;
	const PlannedWrite *write;
};

/// All writes in order.
std::vector<PlaceOfWrite> WritesOf(const Plan &plan);

/// Whether a write would change anything; also where that cannot be known.
bool Changes(const PlannedWrite &write);

#endif
