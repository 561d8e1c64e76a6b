// A profile of 20 kernel parameters, against the same 20 runs of sysctl.

#include "bench.h"

#include <zevotuned/zevotuned.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *kKeys[] = {
	"vm.admin_reserve_kbytes",
	"vm.dirty_background_ratio",
	"vm.dirty_expire_centisecs",
	"vm.dirty_ratio",
	"vm.dirty_writeback_centisecs",
	"vm.dirtytime_expire_seconds",
	"vm.extfrag_threshold",
	"vm.laptop_mode",
	"vm.max_map_count",
	"vm.min_free_kbytes",
	"vm.oom_dump_tasks",
	"vm.overcommit_memory",
	"vm.overcommit_ratio",
	"vm.page-cluster",
	"vm.panic_on_oom",
	"vm.stat_interval",
	"vm.swappiness",
	"vm.user_reserve_kbytes",
	"vm.vfs_cache_pressure",
	"vm.watermark_scale_factor",
};
static_assert(std::size(kKeys) == 20);

void Install()
{
	std::string text = "[main]\nname=bench_apply\n[sysctl]\n";
	for (const char *key : kKeys)
		text = text + key + "=10\n";
	bench::WriteFile("/usr/zevo/share/zevotuned/profiles/bench_apply", text);
}

void Apply()
{
	[[maybe_unused]] static const bool installed = (Install(), true);
	BENCH_REQUIRE(TuneApplyProfile("bench_apply") == 0);
}

void Spawn()
{
	posix_spawn_file_actions_t actions;
	BENCH_REQUIRE(posix_spawn_file_actions_init(&actions) == 0);
	BENCH_REQUIRE(posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) == 0);
	for (const char *key : kKeys) {
		std::string setting = std::string(key) + "=10";
		std::string program = "/sbin/sysctl";
		std::string option = "-we";
		char *arguments[] = {program.data(), option.data(), setting.data(), nullptr};
		pid_t pid;
		int status;
		BENCH_REQUIRE(posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments, environ) == 0);
		BENCH_REQUIRE(waitpid(pid, &status, 0) == pid && status == 0);
	}
	posix_spawn_file_actions_destroy(&actions);
}

[[maybe_unused]] const bool registered = [] {
	bench::Pair("apply 20 kernel parameters", 1.10, Apply, Spawn, bench::SetUpWithoutLocalProfiles);
	return true;
}();

} // namespace
