#ifndef SUPPORT_BUILTIN_PROFILES_H
#define SUPPORT_BUILTIN_PROFILES_H

// The profiles that are known by number; the first one is selected on a system without a configuration. Each source file
// that includes this has a copy of its own.
static constexpr char kBuiltinProfiles[][64] = {"performance_throughput", "performance_latency"};

#endif
