#include "sweep/scenario.h"

#include "kit/files.h"
#include "kit/lab.h"

#include <vunkcore/vunkcore.h>
#include <zevotuned/zevotuned.h>

#include <json/value.h>

#include <memory>

namespace {

/// What callers bring along, made while nothing fails yet.
struct Callers {
	Callers() { VUNKCSzHashSetValue(&pair, "lock", "true"); }
	~Callers()
	{
		VUNKCSzHashFree(hash);
		VUNKCSzHashFree(pair);
		VUNKCSzListFree(list);
	}

	VUNKSZHASH *hash = VUNKCSzHashAlloc(1024);
	VUNKSZHASH *pair = VUNKCSzHashAlloc(1024);
	VUNKSZLIST *list = VUNKCSzListAlloc(1024);
	Json::Value json;
	std::vector<Profile> profiles;
	char text[1024] = "";
};

std::unique_ptr<Callers> caller;

void Fresh()
{
	caller = std::make_unique<Callers>();
}

void Configured()
{
	Fresh();
	kit::WriteFile(kit::kConfigFile, "profile=\"b\"\nlock=\"false\"\nbtrfs_metadata_cache_on=\"true\"\n"
	                                 "btrfs_metadata_cache_space_usage_limit=\"100\"\n"
	                                 "btrfs_metadata_cache_read_throttle_wait_mult=\"0\"\n");
}

void Incomplete()
{
	Fresh();
	kit::WriteFile(kit::kConfigFile, "profile=\"b\"\n");
}

/// Two profiles, one of which inherits from the other, and a global one.
void Installed()
{
	Configured();
	kit::Install(kit::kShippedDir, "a",
	             "[main]\nname=a\nindex=2\nvm_memory_max=1024\n[sysctl]\nvm.dirty_ratio=20\n");
	kit::Install(kit::kLocalDir, "b", "[main]\nname=b\nindex=1\ninherit=a\n[sysctl]\nvm.swappiness=7\n");
	kit::Install(kit::kShippedGlobalDir, "g", "[main]\nname=g\n[sysctl]\nvm.vfs_cache_pressure=50\n");
}

void WithBrokenFile()
{
	Installed();
	kit::Install(kit::kLocalDir, "z", "[main]\nname=z\nno pair\n");
}

void WithMissingParent()
{
	Installed();
	kit::Install(kit::kLocalDir, "b", "[sysctl]\nvm.swappiness=7\n[main]\nname=b\ninherit=nobody\n");
}

void WithBuiltIn()
{
	Configured();
	kit::Install(kit::kShippedDir, "l", "[main]\nname=performance_latency\n[sysctl]\nvm.swappiness=7\n");
}

int LockAndUnlock()
{
	const int fd = TuneLockConfig(1);
	return fd >= 0 && VUNKCFileUnlockByFile(fd) == 1 ? 0 : -1;
}

int FindConfig()
{
	return TuneGetOrCreateConfig(caller->text, sizeof(caller->text), true);
}

int Write()
{
	return TuneParameterWrite("/proc/sys/vm/swappiness", "33", 2);
}

} // namespace

std::vector<Scenario> ProfileScenarios()
{
	return {
		{"lock", Fresh, LockAndUnlock, 0},
		{"find_config_fresh", Fresh, FindConfig, 1},
		{"find_config", Configured, FindConfig, 1},
		{"read_pairs", Configured,
	         [] { return TuneGetConfigHashFromFile(kit::kConfigFile.c_str(), &caller->hash); }, 0},
		{"read_pairs_missing", Fresh,
	         [] { return TuneGetConfigHashFromFile(kit::kConfigFile.c_str(), &caller->hash); }, -1},
		{"write_pairs", Configured,
	         [] { return TuneSetConfigHashToFile(kit::kConfigFile.c_str(), caller->pair); }, 0},
		{"config_get_fresh", Fresh, [] { return TunedConfigGet(&caller->hash); }, 0},
		{"config_get_incomplete", Incomplete, [] { return TunedConfigGet(&caller->hash); }, 0},
		{"config_get", Configured, [] { return TunedConfigGet(&caller->hash); }, 0},
		{"config_merge", Configured, [] { return TuneSetHashToConfig(caller->pair); }, 0},
		{"config_set", Configured, [] { return TuneSetKeyValueToConfig("lock", "true"); }, 0},
		{"config_set_profile", Configured, [] { return TuneSetConfigProfile("a"); }, 0},
		{"config_to_json", Configured, [] { return TunedConfigGetToJson(caller->json); }, 0},
		{"parameter_write", Fresh, Write, 0},
		{"run_lock_dir", Fresh, CreateRunLockTunedDir, 0},
		{"run_dir", Fresh, CreateRunTunedDir, 0},
		{"profiles", Installed, [] { return TuneProfileListWithVector(caller->profiles); }, 0},
		{"profiles_broken", WithBrokenFile, [] { return TuneProfileListWithVector(caller->profiles); }, -1},
		{"profile_names", Installed, [] { return TuneProfileList(&caller->list); }, 0},
		{"profile_file", Installed,
	         [] { return TuneGetProfileConfig("a", caller->text, sizeof(caller->text)); }, 0},
		{"profile_file_missing", Installed,
	         [] { return TuneGetProfileConfig("x", caller->text, sizeof(caller->text)); }, -1},
		{"apply", Installed, [] { return TuneApplyProfile("b"); }, 0},
		{"apply_missing_parent", WithMissingParent, [] { return TuneApplyProfile("b"); }, -1},
		{"apply_global", Installed, TuneApplyGlobalProfile, 0},
		{"set_custom_profile", Installed, [] { return ZEVOSetCustomProfile("a"); }, 0},
		{"current_profile", Configured,
	         [] { return ZEVOGetCurrentProfile(caller->text, sizeof(caller->text)); }, 0},
		{"run_current_profile", Installed, ZEVORunCurrentProfile, 0},
		{"list", Installed, [] { return ZEVOProfileList(&caller->list); }, 0},
		{"config_is_valid", Configured, [] { return TuneConfigIsValid(caller->pair); }, 0},
		{"check_file", Configured, [] { return CheckFileExist(kit::kConfigFile.c_str()); }, 1},
		{"check_or_create_dir", Fresh, [] { return CheckOrCreateDir("/run/zevotuned", true); }, 1},
		{"parameter_write_missing", Fresh, [] { return TuneParameterWrite("/proc/sys/vm/none", "1", 1); }, -1},
		{"set_profile", WithBuiltIn, [] { return ZEVOSetProfile(1); }, 0},
		{"set_profile_missing", WithBuiltIn, [] { return ZEVOSetProfile(0); }, -1},
		{"set_custom_profile_missing", Installed, [] { return ZEVOSetCustomProfile("x"); }, -1},
		{"set_custom_profile_broken", WithMissingParent, [] { return ZEVOSetCustomProfile("b"); }, -1},
		{"current_profile_fresh", Fresh,
	         [] { return ZEVOGetCurrentProfile(caller->text, sizeof(caller->text)); }, 0},
		{"run_current_profile_gone", Configured, ZEVORunCurrentProfile, -1},
	};
}
