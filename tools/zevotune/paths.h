#ifndef ZEVOTUNE_PATHS_H
#define ZEVOTUNE_PATHS_H

// Where the library has its files (zevotuned/profile.h, apply.h, config.h).

inline constexpr const char *kShippedProfiles = "/usr/zevo/share/zevotuned/profiles";
inline constexpr const char *kLocalProfiles = "/usr/local/share/zevotuned/profiles";
inline constexpr const char *kGlobalProfiles[] = {
	"/usr/zevo/share/zevotuned/global",
	"/usr/local/share/zevotuned/global",
};
inline constexpr const char *kConfigDir = "/usr/zevo/etc/zevotuned";
inline constexpr const char *kConfigFile = "/usr/zevo/etc/zevotuned/config";
inline constexpr const char *kLockDir = "/run/lock/zevotuned";
inline constexpr const char *kLockFile = "/run/lock/zevotuned/config.lock";

#endif
