#ifndef ZEVOTUNE_HELP_H
#define ZEVOTUNE_HELP_H

// The user's manual.

#include <string>

namespace help {

extern const char *const kTool;
extern const char *const kList;
extern const char *const kCurrent;
extern const char *const kSet;
extern const char *const kApply;
extern const char *const kUndo;
extern const char *const kPlan;
extern const char *const kVerify;
extern const char *const kLint;
extern const char *const kDevices;
extern const char *const kMetadata;
extern const char *const kCache;
extern const char *const kCacheOn;
extern const char *const kCacheOff;
extern const char *const kCacheRescan;
extern const char *const kCacheStatus;
extern const char *const kCacheStop;
extern const char *const kCacheCheck;
extern const char *const kConfig;
extern const char *const kConfigGet;
extern const char *const kConfigList;

std::string ConfigSet();

} // namespace help

#endif
