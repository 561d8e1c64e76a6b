// The core library's own functions, as far as the library does not call them in the other scenarios.

#include "sweep/scenario.h"

#include "kit/files.h"
#include "kit/lab.h"
#include "kit/nth_call.h"

#include <vunkcore/vunkcore.h>

#include <memory>

#include <sys/wait.h>
#include <unistd.h>

namespace {

const std::string kSections = "/run/zevotuned/sections";
const std::string kPairs = "/run/zevotuned/pairs";
const std::string kPidFile = "/run/zevotuned/pid";

std::unique_ptr<VUNKSZHASH, decltype(&VUNKCSzHashFree)> pairs(nullptr, VUNKCSzHashFree);
std::unique_ptr<VUNKSZLIST, decltype(&VUNKCSzListFree)> list(nullptr, VUNKCSzListFree);

void WithFiles()
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(64);
	VUNKCSzHashSetValue(&hash, "status", "1");
	pairs.reset(hash);
	list.reset(VUNKCSzListAlloc(64));
	kit::WriteFile(kSections,
	               "[config]\nstatus=\"1\"\n[1048576]\nstatus=\"0\"\nsize=\"4096\"\n[2097152]\nstatus=\"1\"\n");
	kit::WriteFile(kPairs, "pid=\"1\"\ntotal=\"3\"\ncurrent=\"2\"\n");
	VUNKCProcPidFileCreate(kPidFile.c_str());
}

int EnumDir()
{
	VUNKSZLIST *names = list.release();
	const int count = VUNKCFileEnumDir("/run/zevotuned", nullptr, &names, VUNKC_ENUM_REGULAR);
	list.reset(names);
	return count;
}

int GetSection()
{
	VUNKSZHASH *hash = pairs.release();
	const int count = VUNKCFileGetSection(kSections.c_str(), "1048576", &hash);
	pairs.reset(hash);
	return count;
}

// Adding and removing are 1, or 0 when it has been done already: both are what was asked for.
int AddSection()
{
	return VUNKCFileAddSection(kSections.c_str(), "4096", pairs.get()) >= 0 ? 0 : -1;
}

int ModifySection()
{
	return VUNKCIFileModifySection(kSections.c_str(), "1048576", nullptr, pairs.get(), 1, 0) == 1 ? 0 : -1;
}

int RemoveSection()
{
	return VUNKCFileRemoveSection(kSections.c_str(), "1048576") >= 0 ? 0 : -1;
}

int ForkChild()
{
	const pid_t child = VUNKCProcForkChildNoWait();
	if (child == 0)
		_exit(0);
	const kit::Uncounted uncounted;
	// In the lab this process is init, which adopts what nobody waits for.
	while (waitpid(-1, nullptr, __WALL) > 0)
		continue;
	return child > 0 ? 0 : -1;
}

int RunProgram()
{
	return VUNKCExecl("/bin/true", 0xBB, "argument", static_cast<char *>(nullptr));
}

} // namespace

std::vector<Scenario> CoreScenarios()
{
	return {
		{"section_get", WithFiles, GetSection, 2},
		{"section_add", WithFiles, AddSection, 0},
		{"section_modify", WithFiles, ModifySection, 0},
		{"section_remove", WithFiles, RemoveSection, 0},
		{"pairs_set", WithFiles, [] { return VUNKCFileSetPair(kPairs.c_str(), pairs.get(), 0); }, 0},
		{"enum_dir", WithFiles, EnumDir, 3},
		{"pid_file_create", WithFiles, [] { return VUNKCProcPidFileCreate(kPidFile.c_str()); }, 0},
		{"pid_file_signal", WithFiles, [] { return VUNKCProcSignalByPidFile(kPidFile.c_str(), 0); }, 0},
		{"pid_file_alive", WithFiles, [] { return VUNKCProcAliveByPidFile(kPidFile.c_str()); }, 1},
		{"alive", WithFiles, [] { return VUNKCProcAlive(getpid()); }, 1},
		{"program", WithFiles, RunProgram, 0},
		{"fork_no_wait", WithFiles, ForkChild, 0, true},
	};
}
