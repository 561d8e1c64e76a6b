#include <zevotuned/zevotuned.h>

#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/vunkcore.h>

#include <json/value.h>

#include <barrier>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Whether both threads meet each other in a function is up to the scheduler; these many rounds make it likely, and a
// thread sanitizer sees a race also between calls that have only just missed each other.
constexpr int kRounds = 25;

const std::string kConfigDir = "/usr/zevo/etc/zevotuned";
const std::string kLockDir = "/run/lock/zevotuned";
const char *const kProfiles[] = {"performance_throughput", "performance_latency"};
const char *const kSwappiness[] = {"11", "22"};

// Runs a body in two threads that start together, as number 0 and number 1.
void InTwoThreads(const std::function<void(int)> &body)
{
	std::barrier start(2);
	const auto run = [&](int number) {
		start.arrive_and_wait();
		body(number);
	};
	std::thread other(run, 1);
	run(0);
	other.join();
}

bool IsBuiltin(const std::string &name)
{
	return name == kProfiles[0] || name == kProfiles[1];
}

// One of the two threads, which calls everything that is exported, on the same files as the other one.
class Caller {
public:
	Caller(int number, const kit::TempDir &dir)
		: name(kProfiles[number]), index(number), own(dir.Path(std::to_string(number))),
		  shared(dir.Path("shared"))
	{
	}

	void CallAll(int round) const
	{
		UseSystemAccess();
		UseConfigurationFile();
		ChangeConfiguration(std::to_string(round));
		UseCatalogue();
		ApplyProfiles();
	}

private:
	void UseSystemAccess() const
	{
		EXPECT_EQ(CreateRunLockTunedDir(), 0);
		EXPECT_EQ(CreateRunTunedDir(), 0);
		EXPECT_EQ(CheckOrCreateDir(kConfigDir.c_str(), true), 1);
		EXPECT_EQ(CheckFileExist(shared.c_str()), 1);
		EXPECT_EQ(TuneParameterWrite(shared.c_str(), kSwappiness[index], 2), 0);
	}

	void UseConfigurationFile() const
	{
		char path[1024];
		EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), true), 1);
		const int fd = TuneLockConfig(index);
		EXPECT_GE(fd, 0);
		EXPECT_NE(VUNKCFileUnlockByFile(fd), 0);

		VUNKSZHASH *hash = VUNKCSzHashAlloc(1024);
		EXPECT_EQ(TuneGetConfigHashFromFile(path, &hash), 0);
		EXPECT_EQ(TunedConfigGet(&hash), 0);
		EXPECT_EQ(TuneConfigIsValid(hash), 1);
		EXPECT_TRUE(IsBuiltin(VUNKCSzHashGetValue(hash, "profile")));
		EXPECT_EQ(TuneSetConfigHashToFile(own.c_str(), hash), 0);
		VUNKCSzHashFree(hash);
	}

	// What the other thread sets at the same moment can be lost, and so can this; the file stays whole and
	// complete.
	void ChangeConfiguration(const std::string &value) const
	{
		const std::string key = "key" + std::to_string(index);
		EXPECT_EQ(TuneSetKeyValueToConfig(key.c_str(), value.c_str()), 0);
		EXPECT_EQ(TuneSetConfigProfile(name), 0);
		VUNKSZHASH *hash = VUNKCSzHashAlloc(1024);
		EXPECT_EQ(VUNKCSzHashSetValue(&hash, "lock", value.c_str()), 0);
		EXPECT_EQ(TuneSetHashToConfig(hash), 0);
		VUNKCSzHashFree(hash);
		Json::Value object;
		EXPECT_EQ(TunedConfigGetToJson(object), 0);
		EXPECT_GE(object.size(), 5u);
		EXPECT_TRUE(IsBuiltin(object["profile"].asString()));
	}

	void UseCatalogue() const
	{
		std::vector<Profile> profiles;
		EXPECT_EQ(TuneProfileListWithVector(profiles), 0);
		EXPECT_EQ(profiles.size(), 2u);
		char path[1024];
		EXPECT_EQ(TuneGetProfileConfig(name, path, sizeof(path)), 0);
		EXPECT_EQ(path, kit::kShippedDir + "/" + name);
		VUNKSZLIST *names = VUNKCSzListAlloc(1024);
		EXPECT_EQ(TuneProfileList(&names), 0);
		EXPECT_EQ(ZEVOProfileList(&names), 0);
		EXPECT_EQ(names->nItem, 4);
		VUNKCSzListFree(names);
	}

	void ApplyProfiles() const
	{
		EXPECT_EQ(ZEVOSetProfile(index), 0);
		EXPECT_EQ(ZEVOSetCustomProfile(name), 0);
		char current[64] = "";
		EXPECT_EQ(ZEVOGetCurrentProfile(current, sizeof(current)), 0);
		EXPECT_TRUE(IsBuiltin(current)) << current;
		EXPECT_EQ(ZEVORunCurrentProfile(), 0);
		EXPECT_EQ(TuneApplyProfile(name), 0);
		EXPECT_EQ(TuneApplyGlobalProfile(), 0);
	}

	const char *const name;
	const int index;
	const std::string own;
	const std::string shared;
};

class Threads : public kit::LabTest {
protected:
	Threads()
	{
		// The folders are there, as making one at the same moment as somebody else is a failure.
		for (const std::string &path : {kConfigDir, kLockDir, std::string("/run/zevotuned")})
			fs::create_directory(path);
	}

	kit::Journal journal;
};

TEST_F(Threads, CallEverythingAtTheSameTime)
{
	for (const int i : {0, 1})
		kit::Install(kit::kShippedDir, kProfiles[i],
		             "[main]\nname=" + std::string(kProfiles[i]) +
		                     "\n[sysctl]\nvm.swappiness=" + kSwappiness[i] + "\n");
	kit::Install(kit::kShippedGlobalDir, "all", "[main]\nname=all\n[sysctl]\nvm.vfs_cache_pressure=50\n");
	const kit::TempDir dir;
	for (const char *file : {"0", "1", "shared"})
		kit::WriteFile(dir.Path(file), "");

	InTwoThreads([&](int number) {
		const Caller caller(number, dir);
		for (int round = 0; round < kRounds; ++round)
			caller.CallAll(round);
	});

	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(kit::Names(kConfigDir), std::set<std::string>{"config"});
	EXPECT_EQ(kit::Sysctl("vm.vfs_cache_pressure"), "50");
	for (const std::string &value : {kit::Sysctl("vm.swappiness"), kit::ReadFile(dir.Path("shared"))})
		EXPECT_TRUE(value == kSwappiness[0] || value == kSwappiness[1]) << value;
}

TEST_F(Threads, CompleteTheConfigurationAtTheSameTime)
{
	for (int round = 0; round < kRounds; ++round) {
		fs::remove(kit::kConfigFile);
		InTwoThreads([](int) {
			VUNKSZHASH *hash = VUNKCSzHashAlloc(1024);
			EXPECT_EQ(TunedConfigGet(&hash), 0);
			EXPECT_EQ(TuneConfigIsValid(hash), 1);
			EXPECT_STREQ(VUNKCSzHashGetValue(hash, "profile"), "performance_throughput");
			VUNKCSzHashFree(hash);
		});
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(Threads, HaveTheirOwnErrors)
{
	const std::string file = kConfigDir + "/file";
	kit::WriteFile(file, "");
	InTwoThreads([&](int number) {
		for (int round = 0; round < 20 * kRounds; ++round) {
			if (number == 0) {
				EXPECT_EQ(CheckOrCreateDir(file.c_str(), true), -1);
				EXPECT_EQ(VUNKCErrGet(), 0xA000);
			} else {
				EXPECT_EQ(ZEVOSetCustomProfile(nullptr), -1);
				EXPECT_EQ(VUNKCErrGet(), 0xD00);
				EXPECT_STREQ(VUNKCErrorGetFile(), "tune.cpp");
			}
		}
	});
	EXPECT_EQ(journal.Lines(), Lines(20 * kRounds, "tune.cpp Invaild Argument (__null != szProfile)=[0]\n"));
}

} // namespace
