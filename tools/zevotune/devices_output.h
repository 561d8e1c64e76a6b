#ifndef ZEVOTUNE_DEVICES_OUTPUT_H
#define ZEVOTUNE_DEVICES_OUTPUT_H

#include "devices.h"
#include "tree.h"

#include <json/value.h>

/// For people.
std::string DevicesTree(const Machine &machine, Branches branches);

/// For programs. What could not be found out is null, or empty, and has its reason in "error".
Json::Value DevicesJson(const Machine &machine);

#endif
