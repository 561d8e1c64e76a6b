#ifndef ZEVOTUNE_PATHS_H
#define ZEVOTUNE_PATHS_H

// Where the library has its files (zevotuned/profile.h, apply.h, config.h), and of the metadata cache's
// engines what others may look at.

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
inline constexpr const char *kMappingFile = "@eaDir/zevo_btrfs_metadata_mapping_config"; // on each volume
inline constexpr const char *kEngineDir = "/run/zevotuned/metadata_cache";               // <uuid>.pid
inline constexpr const char *kEngineLockDir = "/run/lock/zevotuned/metadata_cache";
inline constexpr const char *kPinTool = "/usr/zevo/sbin/zevocachepinfiletool";

#endif
