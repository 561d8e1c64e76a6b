#include <zevotuned/config.h>

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/real.h"

#include <vunkcore/vunkcore.h>

#include <json/value.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using Pairs = std::map<std::string, std::string>;

const std::string kDir = "/usr/zevo/etc/zevotuned";
const std::string kLockDir = "/run/lock/zevotuned";

// Lines that several functions log, the last ones with the error of a kit::Fault.
const std::string kNoFolder = "utils.cpp Failed to create zevotuned config directory [" + kDir + "] ";
const std::string kNotFound = "utils.cpp Failed to get zevotuned config.";
const std::string kMissing = "utils.cpp Failed to file not exist [" + kit::kConfigFile + "][0x0000 :0]";
const std::string kUpgrade = "utils.cpp Failed to initial & upgrade zevotuned config.";
const std::string kFault = "[0xFA17 fault:1]";
const std::string kNoHash = "utils.cpp Failed to VUNKCSzHashAlloc()." + kFault;
const std::string kNotLocked = "utils.cpp Failed to TuneLockConfig shared of zevotuned config" + kFault;
const std::string kNotRead = "utils.cpp Failed to get file [" + kit::kConfigFile + "] to hash" + kFault;
const std::string kNotWritten = "utils.cpp Failed to set hash to file [" + kit::kConfigFile + "]" + kFault;

const Pairs kDefaults = {
	{"profile", "performance_throughput"},
	{"lock", "false"},
	{"btrfs_metadata_cache_on", "true"},
	{"btrfs_metadata_cache_space_usage_limit", "100"},
	{"btrfs_metadata_cache_read_throttle_wait_mult", "0"},
};

Pairs DefaultsAnd(const Pairs &others)
{
	Pairs pairs = others;
	pairs.insert(kDefaults.begin(), kDefaults.end());
	return pairs;
}

class TestHash {
public:
	explicit TestHash(const Pairs &pairs = {}) : hash(VUNKCSzHashAlloc(1024))
	{
		for (const auto &[key, value] : pairs)
			EXPECT_EQ(VUNKCSzHashSetValue(&hash, key.c_str(), value.c_str()), 0);
	}
	~TestHash() { VUNKCSzHashFree(hash); }
	TestHash(const TestHash &) = delete;
	TestHash &operator=(const TestHash &) = delete;

	VUNKSZHASH *Get() const { return hash; }
	VUNKSZHASH **Address() { return &hash; }

	Pairs All() const
	{
		Pairs pairs;
		VUNKSZLIST *keys = VUNKCSzListAlloc(1024);
		EXPECT_GE(VUNKCSzHashEnumKey(hash, &keys), 0);
		for (int i = 0; i < keys->nItem; ++i)
			pairs[VUNKCSzListGet(keys, i)] = VUNKCSzHashGetValue(hash, VUNKCSzListGet(keys, i));
		VUNKCSzListFree(keys);
		return pairs;
	}

private:
	VUNKSZHASH *hash;
};

Pairs PairsIn(const std::string &path)
{
	TestHash hash;
	EXPECT_GE(VUNKCFileGetPair(path.c_str(), hash.Address()), 0);
	return hash.All();
}

Pairs FilePairs()
{
	return PairsIn(kit::kConfigFile);
}

Json::Value AsJson(const Pairs &pairs)
{
	Json::Value object(Json::objectValue);
	for (const auto &[key, value] : pairs)
		object[key] = value;
	return object;
}

mode_t ModeOf(const std::string &path)
{
	struct stat status = {};
	EXPECT_EQ(lstat(path.c_str(), &status), 0);
	return status.st_mode & 07777;
}

ino_t InodeOf(const std::string &path)
{
	struct stat status = {};
	EXPECT_EQ(lstat(path.c_str(), &status), 0);
	return status.st_ino;
}

// What happens, once, when the library judges a hash: after its first reading of the file, before it completes it.
std::function<void()> whenJudged;

// Where the modes of the locks taken are written down.
std::vector<BOOL> *lockModes = nullptr;

// Does something else at the very moment that only another process could choose.
class Meanwhile {
public:
	explicit Meanwhile(const std::function<void()> &action) { whenJudged = action; }
	~Meanwhile() { whenJudged = nullptr; }
	Meanwhile(const Meanwhile &) = delete;
	Meanwhile &operator=(const Meanwhile &) = delete;
};

class LockModes {
public:
	LockModes() { lockModes = &modes; }
	~LockModes() { lockModes = nullptr; }
	LockModes(const LockModes &) = delete;
	LockModes &operator=(const LockModes &) = delete;

	std::vector<BOOL> modes;
};

// Another process that holds the configuration's lock exclusively.
class LockHolder {
public:
	LockHolder()
	{
		int ready[2];
		if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(release, O_CLOEXEC) != 0)
			throw std::runtime_error("no pipe");
		holder = fork();
		if (holder == 0) {
			close(release[1]);
			const int fd = open(kit::kConfigLock.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
			char byte = 0;
			if (fd < 0 || flock(fd, LOCK_EX) != 0 || write(ready[1], &byte, 1) != 1)
				_exit(1);
			_exit(read(release[0], &byte, 1) == 0 ? 0 : 1);
		}
		close(ready[1]);
		char byte;
		EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the lock is not held";
		close(ready[0]);
		close(release[0]);
	}
	~LockHolder()
	{
		close(release[1]);
		EXPECT_EQ(waitpid(holder, nullptr, 0), holder);
	}
	LockHolder(const LockHolder &) = delete;
	LockHolder &operator=(const LockHolder &) = delete;

private:
	int release[2];
	pid_t holder;
};

bool LockIsFree(int operation)
{
	const int fd = open(kit::kConfigLock.c_str(), O_RDONLY | O_CLOEXEC);
	EXPECT_GE(fd, 0);
	const bool isFree = flock(fd, operation | LOCK_NB) == 0;
	close(fd);
	return isFree;
}

struct Failure {
	const char *function; // whose nth call fails
	int nth;
	Lines lines;
	int code = kit::kFaultCode; // on the error stack afterwards
};

class ConfigStore : public kit::LabTest {
protected:
	ConfigStore() { VUNKCErrSetEx(0, "", 0); }

	static void WriteConfig(std::string_view text) { kit::WriteFile(kit::kConfigFile, text); }

	static std::string Config() { return kit::ReadFile(kit::kConfigFile); }

	// Calls a function with a hash of its own once for each failure. It fails, and leaves the file as it was.
	void ExpectFailures(const std::vector<Failure> &failures, const std::function<int(VUNKSZHASH **)> &call)
	{
		const std::string before = "# mine\nprofile=mine\n";
		for (const Failure &failure : failures) {
			SCOPED_TRACE(std::string(failure.function) + " " + std::to_string(failure.nth));
			WriteConfig(before);
			TestHash hash;
			VUNKCErrSetEx(0, "", 0);
			journal.Clear();
			{
				const kit::Fault fault(failure.function, failure.nth);
				EXPECT_EQ(call(hash.Address()), -1);
				EXPECT_TRUE(fault.Struck());
			}
			EXPECT_EQ(journal.Lines(), failure.lines);
			EXPECT_EQ(VUNKCErrGet(), failure.code);
			EXPECT_EQ(Config(), before);
			EXPECT_EQ(kit::Names(kDir), std::set<std::string>{"config"});
		}
	}

	void ExpectNoLines()
	{
		EXPECT_EQ(journal.Lines(), Lines{});
		journal.Clear();
	}

	kit::Journal journal;
};

TEST_F(ConfigStore, RefusesMissingArguments)
{
	char path[64] = "as it was";
	Json::Value object;
	TestHash hash;
	VUNKSZHASH *null = nullptr;
	const std::string file = kit::kConfigFile;
	const struct {
		const char *condition;
		std::function<int()> call;
	} cases[] = {
		{"__null != szConfig", [] { return TuneGetOrCreateConfig(nullptr, 0, true); }},
		{"0 < cbConfig", [&] { return TuneGetOrCreateConfig(path, 0, true); }},
		{"__null != szPath", [] { return TuneGetConfigHashFromFile(nullptr, nullptr); }},
		{"__null != ppshHash", [&] { return TuneGetConfigHashFromFile(file.c_str(), nullptr); }},
		{"NULL != *ppshHash", [&] { return TuneGetConfigHashFromFile(file.c_str(), &null); }},
		{"__null != szPath", [] { return TuneSetConfigHashToFile(nullptr, nullptr); }},
		{"NULL != pshHash", [&] { return TuneSetConfigHashToFile(file.c_str(), nullptr); }},
		{"__null != pshHash", [] { return TuneConfigIsValid(nullptr); }},
		{"__null != ppshHash", [] { return TunedConfigGet(nullptr); }},
		{"NULL != *ppshHash", [&] { return TunedConfigGet(&null); }},
		{"__null != pshHashNew", [] { return TuneSetHashToConfig(nullptr); }},
		{"__null != szKey", [] { return TuneSetKeyValueToConfig(nullptr, nullptr); }},
		{"NULL != szValue", [] { return TuneSetKeyValueToConfig("profile", nullptr); }},
		{"__null != szProfile", [] { return TuneSetConfigProfile(nullptr); }},
	};
	for (const auto &[condition, call] : cases) {
		SCOPED_TRACE(condition);
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
		EXPECT_EQ(call(), -1);
		EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Invaild Argument (" + std::string(condition) + ")=[0]\n"});
		EXPECT_EQ(VUNKCErrGet(), 0xD00);
		EXPECT_STREQ(VUNKCErrorGetFile(), "utils.cpp");
		EXPECT_GT(VUNKCErrorGetLine(), 0);
	}
	EXPECT_STREQ(path, "as it was");
	EXPECT_FALSE(fs::exists(kDir));
	EXPECT_FALSE(fs::exists(kLockDir));
}

// TuneLockConfig

TEST_F(ConfigStore, SharesTheLockAmongReadersOnly)
{
	const int fd = TuneLockConfig(0);
	ASSERT_GE(fd, 0);
	EXPECT_TRUE(LockIsFree(LOCK_SH));
	EXPECT_FALSE(LockIsFree(LOCK_EX));
	EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
	EXPECT_NE(VUNKCFileUnlockByFile(fd), 0);
	EXPECT_TRUE(LockIsFree(LOCK_EX));
	ExpectNoLines();
}

TEST_F(ConfigStore, SharesTheLockOfAWriterWithNobody)
{
	for (const BOOL exclusive : {1, 2, -1}) {
		const int fd = TuneLockConfig(exclusive);
		ASSERT_GE(fd, 0);
		EXPECT_FALSE(LockIsFree(LOCK_SH)) << exclusive;
		EXPECT_NE(VUNKCFileUnlockByFile(fd), 0);
	}
	ExpectNoLines();
}

TEST_F(ConfigStore, MakesTheFolderOfTheLockOnDemand)
{
	ASSERT_FALSE(fs::exists(kLockDir));
	const int fd = TuneLockConfig(0);
	EXPECT_NE(VUNKCFileUnlockByFile(fd), 0);
	EXPECT_EQ(ModeOf(kLockDir), 0755u);
	EXPECT_EQ(kit::Names(kLockDir), std::set<std::string>{"config.lock"});
}

TEST_F(ConfigStore, FailsToLockWithoutALine)
{
	{
		const kit::Fault fault("VUNKCFileLockTimeByFile");
		EXPECT_EQ(TuneLockConfig(0), -1);
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
	fs::remove_all(kLockDir);
	{
		const kit::PathFault fault("mkdir", kLockDir, EROFS);
		EXPECT_EQ(TuneLockConfig(0), -1);
		EXPECT_EQ(VUNKCErrGet(), 0xC00);
	}
	kit::WriteFile(kLockDir, "not a folder");
	EXPECT_EQ(TuneLockConfig(1), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xA000);
	ExpectNoLines();
}

TEST_F(ConfigStore, ReadsUnderTheSharedLockAndWritesUnderTheExclusiveOne)
{
	LockModes locks;
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	EXPECT_EQ(locks.modes, (std::vector<BOOL>{0, 0, 1, 0})) << "read, read again to complete, written, read back";
	locks.modes.clear();
	EXPECT_EQ(TuneSetKeyValueToConfig("foo", "bar"), 0);
	EXPECT_EQ(locks.modes, (std::vector<BOOL>{0, 1}));
}

TEST_F(ConfigStore, GivesUpWhenAnotherProcessKeepsTheLockForFiveSeconds)
{
	WriteConfig("profile=mine\n");
	fs::create_directory(kLockDir);
	const LockHolder holder;
	TestHash readHash, gotHash;
	const TestHash writtenHash(Pairs{{"profile", "other"}});

	struct Outcome {
		int result;
		int code;
		std::chrono::duration<double> waited;
	};
	const auto timed = [](const std::function<int()> &call) {
		return std::async(std::launch::async, [call] {
			const auto start = std::chrono::steady_clock::now();
			const int result = call();
			return Outcome{result, VUNKCErrGet(), std::chrono::steady_clock::now() - start};
		});
	};
	// At the same time, as each takes its five seconds.
	std::future<Outcome> calls[] = {
		timed([] { return TuneLockConfig(0); }),
		timed([&] { return TuneGetConfigHashFromFile(kit::kConfigFile.c_str(), readHash.Address()); }),
		timed([&] { return TuneSetConfigHashToFile(kit::kConfigFile.c_str(), writtenHash.Get()); }),
		timed([&] { return TunedConfigGet(gotHash.Address()); }),
	};
	for (std::future<Outcome> &call : calls) {
		const Outcome outcome = call.get();
		EXPECT_EQ(outcome.result, -1);
		EXPECT_EQ(outcome.code, VUNKC_ERR_TIMEOUT);
		EXPECT_GE(outcome.waited.count(), 5);
		EXPECT_LT(outcome.waited.count(), 60);
	}
	const std::string line = "utils.cpp Failed to TuneLockConfig shared of zevotuned config[0x0E00 lock_file.cpp]";
	EXPECT_EQ(journal.Lines(), (Lines{line, line, line}));
	EXPECT_EQ(readHash.All(), Pairs{});
	EXPECT_EQ(gotHash.All(), Pairs{});
	EXPECT_EQ(Config(), "profile=mine\n");
}

// TuneGetOrCreateConfig

TEST_F(ConfigStore, MakesTheFolderAndAnEmptyFile)
{
	char path[1024];
	EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), true), 1);
	EXPECT_EQ(path, kit::kConfigFile);
	EXPECT_EQ(Config(), "");
	EXPECT_EQ(ModeOf(kDir), 0755u);
	EXPECT_EQ(ModeOf(kit::kConfigFile), 0644u);
	ExpectNoLines();
}

TEST_F(ConfigStore, MakesFolderAndFileLessTheUmask)
{
	umask(027);
	char path[1024];
	EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), true), 1);
	EXPECT_EQ(ModeOf(kDir), 0750u);
	EXPECT_EQ(ModeOf(kit::kConfigFile), 0640u);
}

TEST_F(ConfigStore, MakesNothingUnlessAskedTo)
{
	char path[1024];
	EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), false), 0);
	EXPECT_EQ(path, kit::kConfigFile);
	EXPECT_FALSE(fs::exists(kDir));
	fs::create_directory(kDir);
	EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), false), 0);
	EXPECT_EQ(kit::Names(kDir), std::set<std::string>{});
	EXPECT_EQ(VUNKCErrGet(), 0);
	ExpectNoLines();
}

TEST_F(ConfigStore, FindsAFileThatIsThereAndLeavesItAlone)
{
	WriteConfig("profile=mine\n");
	char path[1024];
	for (const bool create : {false, true})
		EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), create), 1);
	EXPECT_EQ(Config(), "profile=mine\n");
	ExpectNoLines();
}

// For the library the file is missing when it looks for it and there when it makes it.
TEST_F(ConfigStore, KeepsAFileThatAnotherProcessMakesBetweenTheLookAndTheCreation)
{
	WriteConfig("profile=theirs\n");
	const kit::PathFault notYetThere("stat", kit::kConfigFile, ENOENT);
	char path[1024];
	EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), true), 1);
	EXPECT_EQ(Config(), "profile=theirs\n");
	ExpectNoLines();
}

TEST_F(ConfigStore, LooksAtTheCutPathWhenTheBufferIsShort)
{
	char path[16] = "###############";
	EXPECT_EQ(TuneGetOrCreateConfig(path, 10, true), -1);
	EXPECT_STREQ(path, "/usr/zevo");
	EXPECT_STREQ(path + 10, "#####") << "written behind the buffer";
	EXPECT_EQ(VUNKCErrGet(), 0xC000);
	EXPECT_STREQ(VUNKCErrorGetFile(), "utils.cpp");
	ExpectNoLines();

	EXPECT_EQ(TuneGetOrCreateConfig(path, 1, false), 0);
	EXPECT_STREQ(path, "");
	ExpectNoLines();
	EXPECT_EQ(TuneGetOrCreateConfig(path, 1, true), 0) << "a file without a name cannot be made";
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to create []\n[0xC000 utils.cpp]"});
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
}

TEST_F(ConfigStore, TakesABufferThatThePathJustFitsInto)
{
	std::vector<char> path(kit::kConfigFile.size() + 1);
	EXPECT_EQ(TuneGetOrCreateConfig(path.data(), path.size(), true), 1);
	EXPECT_EQ(path.data(), kit::kConfigFile);
	EXPECT_EQ(kit::Names(kDir), std::set<std::string>{"config"});
}

TEST_F(ConfigStore, LogsAFileThatCannotBeMadeWithTheErrorThatStoodBefore)
{
	const kit::PathFault fault("open", kit::kConfigFile, EROFS);
	char path[1024];
	VUNKCErrSetEx(0x1234, "before.cpp", 7);
	EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), true), 0);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to create [" + kit::kConfigFile + "]\n[0x1234 before.cpp]"});
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
	EXPECT_STREQ(VUNKCErrorGetFile(), "utils.cpp");

	VUNKCErrSetEx(0, "", 0);
	journal.Clear();
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to create [" + kit::kConfigFile + "]\n[0x0000 :0]",
	                                  kNotFound + "[0x0C00 utils.cpp]"}));
}

TEST_F(ConfigStore, RefusesAFolderInPlaceOfTheFile)
{
	fs::create_directories(kit::kConfigFile);
	char path[1024];
	for (const bool create : {false, true}) {
		VUNKCErrSetEx(0, "", 0);
		EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), create), -1);
		EXPECT_EQ(VUNKCErrGet(), 0xC000);
		ExpectNoLines();
	}
	TestHash hash;
	const Lines found = {kNotFound + "[0xC000 utils.cpp]"};
	EXPECT_EQ(TunedConfigGet(hash.Address()), -1);
	EXPECT_EQ(journal.Lines(), found);
	EXPECT_EQ(hash.All(), Pairs{});
	journal.Clear();
	EXPECT_EQ(TuneSetHashToConfig(hash.Get()), -1);
	EXPECT_EQ(journal.Lines(), found);
	EXPECT_TRUE(fs::is_directory(kit::kConfigFile));
}

TEST_F(ConfigStore, RefusesAFileInPlaceOfTheFolder)
{
	kit::WriteFile(kDir, "not a folder");
	char path[1024];
	EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), false), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xA000);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to get zevotuned config directory [0xA000 utils.cpp]"});
	journal.Clear();
	EXPECT_EQ(TuneGetOrCreateConfig(path, sizeof(path), true), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xA000);
	EXPECT_EQ(journal.Lines(), Lines{kNoFolder + "[0xA000 utils.cpp]"});
	EXPECT_EQ(kit::ReadFile(kDir), "not a folder");
}

// TuneGetConfigHashFromFile and TuneSetConfigHashToFile

TEST_F(ConfigStore, AddsTheFilesPairsToWhatTheHashHolds)
{
	const kit::TempDir dir;
	const std::string file = dir.Path("pairs");
	kit::WriteFile(file, "a=\"new\"\nc=\"added\"\n");
	TestHash hash(Pairs{{"a", "old"}, {"b", "kept"}});
	EXPECT_EQ(TuneGetConfigHashFromFile(file.c_str(), hash.Address()), 0);
	EXPECT_EQ(hash.All(), (Pairs{{"a", "new"}, {"b", "kept"}, {"c", "added"}}));

	kit::WriteFile(file, "");
	EXPECT_EQ(TuneGetConfigHashFromFile(file.c_str(), hash.Address()), 0);
	EXPECT_EQ(hash.All(), (Pairs{{"a", "new"}, {"b", "kept"}, {"c", "added"}}));
	ExpectNoLines();
}

TEST_F(ConfigStore, MakesAHashTheWholeContentOfAFile)
{
	const kit::TempDir dir;
	const std::string file = dir.Path("pairs");
	kit::WriteFile(file, "# old\na=old\n");
	EXPECT_EQ(TuneSetConfigHashToFile(file.c_str(), TestHash(Pairs{{"b", "new"}}).Get()), 0);
	EXPECT_EQ(PairsIn(file), (Pairs{{"b", "new"}}));
	EXPECT_EQ(TuneSetConfigHashToFile(file.c_str(), TestHash().Get()), 0);
	EXPECT_EQ(kit::ReadFile(file), "");
	ExpectNoLines();
}

TEST_F(ConfigStore, NeitherReadsNorWritesWhatIsNoRegularFile)
{
	const kit::TempDir dir;
	TestHash hash(Pairs{{"a", "1"}});
	for (const std::string &path : {dir.Path("missing"), dir.Path()}) {
		const Lines lines = {"utils.cpp Failed to file not exist [" + path + "][0x0000 :0]"};
		EXPECT_EQ(TuneGetConfigHashFromFile(path.c_str(), hash.Address()), -1);
		EXPECT_EQ(journal.Lines(), lines);
		journal.Clear();
		EXPECT_EQ(TuneSetConfigHashToFile(path.c_str(), hash.Get()), -1);
		EXPECT_EQ(journal.Lines(), lines);
		journal.Clear();
	}
	EXPECT_EQ(kit::Names(dir.Path()), std::set<std::string>{});
	EXPECT_EQ(hash.All(), (Pairs{{"a", "1"}}));
	EXPECT_FALSE(fs::exists(kLockDir)) << "locked for nothing";
}

TEST_F(ConfigStore, LogsAFailedReadingOfAFile)
{
	ExpectFailures({{"VUNKCFileLockTimeByFile", 1, {kNotLocked}}, {"VUNKCFileGetPair", 1, {kNotRead}}},
	               [](VUNKSZHASH **hash) { return TuneGetConfigHashFromFile(kit::kConfigFile.c_str(), hash); });
}

TEST_F(ConfigStore, LogsAFailedWritingOfAFileAndSaysSharedOfTheExclusiveLock)
{
	ExpectFailures({{"VUNKCFileLockTimeByFile", 1, {kNotLocked}}, {"VUNKCFileSetPair", 1, {kNotWritten}}},
	               [](VUNKSZHASH **hash) { return TuneSetConfigHashToFile(kit::kConfigFile.c_str(), *hash); });
}

TEST_F(ConfigStore, KeepsTheResultWhenUnlockingFails)
{
	const std::string line = "utils.cpp fail to VUNKCFileUnlockByFile of zevotuned config[0xFA17 fault:1]";
	const char *file = kit::kConfigFile.c_str();
	TestHash hash(Pairs{{"a", "1"}});
	WriteConfig("profile=mine\n");
	{
		const kit::Fault fault("VUNKCFileUnlockByFile");
		EXPECT_EQ(TuneGetConfigHashFromFile(file, hash.Address()), 0);
	}
	EXPECT_EQ(hash.All(), (Pairs{{"a", "1"}, {"profile", "mine"}}));
	{
		const kit::Fault fault("VUNKCFileUnlockByFile");
		EXPECT_EQ(TuneSetConfigHashToFile(file, hash.Get()), 0);
	}
	EXPECT_EQ(FilePairs(), (Pairs{{"a", "1"}, {"profile", "mine"}}));
	EXPECT_EQ(journal.Lines(), (Lines{line, line}));

	journal.Clear();
	WriteConfig("not a pair\n");
	const kit::Fault fault("VUNKCFileUnlockByFile");
	EXPECT_EQ(TuneGetConfigHashFromFile(file, hash.Address()), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to get file [" + kit::kConfigFile + "] to hash[0x1500 " +
	                                          kit::kConfigFile + ":1]",
	                                  line}));
}

// TuneConfigIsValid

TEST_F(ConfigStore, IsValidWithAllFiveKeysOnly)
{
	EXPECT_EQ(TuneConfigIsValid(TestHash(kDefaults).Get()), 1);
	EXPECT_EQ(TuneConfigIsValid(TestHash().Get()), 0);
	for (const auto &[key, value] : kDefaults) {
		Pairs pairs = DefaultsAnd({{"foo", "bar"}});
		pairs.erase(key);
		EXPECT_EQ(TuneConfigIsValid(TestHash(pairs).Get()), 0) << key;
	}
	EXPECT_EQ(VUNKCErrGet(), 0);
	ExpectNoLines();
}

TEST_F(ConfigStore, IsValidWhateverTheValuesAndTheOtherKeys)
{
	Pairs pairs;
	for (const auto &[key, value] : kDefaults)
		pairs[key] = "";
	EXPECT_EQ(TuneConfigIsValid(TestHash(pairs).Get()), 1);
	pairs["lock"] = "perhaps";
	pairs["btrfs_metadata_cache_space_usage_limit"] = "much";
	pairs["foo"] = "bar";
	EXPECT_EQ(TuneConfigIsValid(TestHash(pairs).Get()), 1);
}

// TunedConfigGet

TEST_F(ConfigStore, StartsWithTheDefaultsOnAFreshSystemAndWritesThemOnce)
{
	const kit::Fault secondWriting("VUNKCFileSetPair", 2);
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	EXPECT_EQ(hash.All(), kDefaults);
	EXPECT_EQ(FilePairs(), kDefaults);
	EXPECT_EQ(kit::Names(kDir), std::set<std::string>{"config"});
	EXPECT_FALSE(secondWriting.Struck());
	EXPECT_EQ(VUNKCErrGet(), 0);
	ExpectNoLines();
}

TEST_F(ConfigStore, MakesTheLastFolderOnly)
{
	fs::remove_all("/usr/zevo/etc");
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), -1);
	EXPECT_EQ(journal.Lines(), (Lines{kNoFolder + "[0x0C00 utils.cpp]", kNotFound + "[0x0C00 utils.cpp]"}));
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
	EXPECT_FALSE(fs::exists("/usr/zevo/etc"));
}

TEST_F(ConfigStore, AddsWhatIsMissingAndKeepsWhatIsThere)
{
	WriteConfig("profile=performance_latency\n");
	const Pairs complete = DefaultsAnd({{"profile", "performance_latency"}});
	TestHash first;
	EXPECT_EQ(TunedConfigGet(first.Address()), 0);
	EXPECT_EQ(first.All(), complete);
	EXPECT_EQ(FilePairs(), complete);

	const kit::Fault writing("VUNKCFileSetPair");
	TestHash second;
	EXPECT_EQ(TunedConfigGet(second.Address()), 0);
	EXPECT_EQ(second.All(), complete);
	EXPECT_FALSE(writing.Struck());
	ExpectNoLines();
}

TEST_F(ConfigStore, AddsEachMissingKeyOnItsOwnAndKeepsEmptyValues)
{
	for (const auto &[missing, value] : kDefaults) {
		SCOPED_TRACE(missing);
		Pairs others = {{"foo", "bar"}};
		std::string text = "foo=bar\n";
		for (const auto &[key, ignored] : kDefaults)
			if (key != missing) {
				others[key] = "";
				text += key + "=\n";
			}
		WriteConfig(text);
		TestHash hash;
		EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
		EXPECT_EQ(hash.All(), DefaultsAnd(others));
		EXPECT_EQ(FilePairs(), DefaultsAnd(others));
	}
	ExpectNoLines();
}

TEST_F(ConfigStore, NeverRewritesACompleteFileWhateverItsValues)
{
	const std::string text = "# by hand\nbtrfs_metadata_cache_space_usage_limit = much\nprofile =\nlock = perhaps\n"
				 "btrfs_metadata_cache_on = TRUE\nbtrfs_metadata_cache_read_throttle_wait_mult = -1\n";
	WriteConfig(text);
	const ino_t inode = InodeOf(kit::kConfigFile);
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	EXPECT_EQ(hash.All()["btrfs_metadata_cache_space_usage_limit"], "much");
	EXPECT_EQ(hash.All()["profile"], "");
	EXPECT_EQ(Config(), text);
	EXPECT_EQ(InodeOf(kit::kConfigFile), inode);
	ExpectNoLines();
}

TEST_F(ConfigStore, CountsTheKeysThatTheCallersHashBringsAlong)
{
	WriteConfig("profile=mine\n");
	TestHash hash(kDefaults);
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	EXPECT_EQ(hash.All(), DefaultsAnd({{"profile", "mine"}}));
	EXPECT_EQ(Config(), "profile=mine\n");
	ExpectNoLines();
}

TEST_F(ConfigStore, SeesWhatOthersChangeAtTheNextCall)
{
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	WriteConfig(Config() + "profile=theirs\n");
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	EXPECT_EQ(hash.All(), DefaultsAnd({{"profile", "theirs"}}));
}

TEST_F(ConfigStore, WritesNothingWhenAnotherProcessHasCompletedTheFileFirst)
{
	WriteConfig("");
	std::string theirs = "# theirs\n";
	for (const auto &[key, value] : kDefaults)
		theirs += key + "=theirs\n";
	const kit::Fault writing("VUNKCFileSetPair");
	const Meanwhile meanwhile([&] { WriteConfig(theirs); });
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	EXPECT_EQ(Config(), theirs);
	EXPECT_FALSE(writing.Struck());
	for (const auto &[key, value] : hash.All())
		EXPECT_EQ(value, "theirs") << key;
	ExpectNoLines();
}

TEST_F(ConfigStore, KeepsWhatAnotherProcessHasSetBeforeTheCompletion)
{
	WriteConfig("profile=old\n");
	const Meanwhile meanwhile([] { WriteConfig("profile=theirs\nlock=true\nfoo=bar\n"); });
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	const Pairs complete = DefaultsAnd({{"profile", "theirs"}, {"lock", "true"}, {"foo", "bar"}});
	EXPECT_EQ(FilePairs(), complete);
	EXPECT_EQ(hash.All(), complete);
}

TEST_F(ConfigStore, FailsWhenTheFileIsReplacedByAFolderBeforeTheCompletion)
{
	WriteConfig("profile=mine\n");
	const Meanwhile meanwhile([] {
		fs::remove(kit::kConfigFile);
		fs::create_directory(kit::kConfigFile);
	});
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), -1);
	EXPECT_EQ(journal.Lines(), (Lines{kNotFound + "[0xC000 utils.cpp]", kUpgrade + "[0xC000 utils.cpp]"}));
}

TEST_F(ConfigStore, IsCompletedByManyProcessesAtTheSameMoment)
{
	// The folders are there, as making one at the same moment as somebody else is a failure.
	fs::create_directory(kDir);
	fs::create_directory(kLockDir);
	for (int round = 0; round < 20; ++round) {
		fs::remove(kit::kConfigFile);
		int start[2];
		ASSERT_EQ(pipe2(start, O_CLOEXEC), 0);
		std::vector<pid_t> children;
		for (int i = 0; i < 4; ++i) {
			children.push_back(fork());
			ASSERT_GE(children.back(), 0);
			if (children.back() != 0)
				continue;
			close(start[1]);
			char byte;
			TestHash hash;
			const bool started = read(start[0], &byte, 1) == 0;
			const bool done = TunedConfigGet(hash.Address()) == 0;
			_exit(started && done && hash.All() == kDefaults ? 0 : 1);
		}
		close(start[0]);
		close(start[1]);
		for (const pid_t child : children) {
			int status = -1;
			EXPECT_EQ(waitpid(child, &status, 0), child);
			EXPECT_EQ(status, 0);
		}
		EXPECT_EQ(FilePairs(), kDefaults);
	}
}

TEST_F(ConfigStore, ReplacesALinkByAFileAndNeverWritesThroughIt)
{
	const std::string target = "/usr/zevo/etc/elsewhere";
	kit::WriteFile(target, "profile=linked\n");
	fs::create_directory(kDir);
	fs::create_symlink(target, kit::kConfigFile);
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	EXPECT_EQ(hash.All(), DefaultsAnd({{"profile", "linked"}}));
	EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kit::kConfigFile)));
	EXPECT_EQ(FilePairs(), hash.All());
	EXPECT_EQ(kit::ReadFile(target), "profile=linked\n");
	ExpectNoLines();
}

TEST_F(ConfigStore, LeavesALinkToACompleteFileAlone)
{
	const std::string target = "/usr/zevo/etc/elsewhere";
	std::string text;
	for (const auto &[key, value] : kDefaults)
		text += key + "=linked\n";
	kit::WriteFile(target, text);
	fs::create_directory(kDir);
	fs::create_symlink(target, kit::kConfigFile);
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	EXPECT_EQ(hash.All()["profile"], "linked");
	EXPECT_TRUE(fs::is_symlink(kit::kConfigFile));
}

TEST_F(ConfigStore, CompletesAFileBehindADanglingLink)
{
	fs::create_directory(kDir);
	fs::create_symlink("/usr/zevo/etc/elsewhere", kit::kConfigFile);
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	EXPECT_EQ(hash.All(), kDefaults);
	EXPECT_EQ(FilePairs(), kDefaults);
	EXPECT_FALSE(fs::is_symlink(kit::kConfigFile));
}

TEST_F(ConfigStore, KeepsOwnerAndModeOfTheFile)
{
	WriteConfig("profile=mine\n");
	ASSERT_EQ(chown(kit::kConfigFile.c_str(), 12, 34), 0);
	ASSERT_EQ(chmod(kit::kConfigFile.c_str(), 0600), 0);
	TestHash hash;
	EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
	struct stat status = {};
	ASSERT_EQ(stat(kit::kConfigFile.c_str(), &status), 0);
	EXPECT_EQ(status.st_uid, 12u);
	EXPECT_EQ(status.st_gid, 34u);
	EXPECT_EQ(status.st_mode & 07777, 0600u);
	EXPECT_EQ(FilePairs(), DefaultsAnd({{"profile", "mine"}}));
}

TEST_F(ConfigStore, LogsTheWholeChainWhenGettingFails)
{
	const auto notSet = [](const std::string &key) {
		return "utils.cpp Failed to set hash key [" + key + "][0xFA17 fault:1]";
	};
	ExpectFailures(
		{
			// Finding and reading the file.
			{"stat", 1, {kNoFolder + "[0x0C00 utils.cpp]", kNotFound + "[0x0C00 utils.cpp]"}, 0xC00},
			{"stat", 3, {kMissing}, 0},
			{"VUNKCFileLockTimeByFile", 1, {kNotLocked}},
			{"VUNKCFileGetPair", 1, {kNotRead}},
			// Completing it.
			{"stat",
	                 5,
	                 {kNoFolder + "[0x0C00 utils.cpp]", kNotFound + "[0x0C00 utils.cpp]",
	                  kUpgrade + "[0x0C00 utils.cpp]"},
	                 0xC00},
			{"VUNKCSzHashAlloc", 1, {kNoHash, kUpgrade + kFault}},
			{"stat", 7, {kMissing, kUpgrade + "[0x0000 :0]"}, 0},
			{"VUNKCFileLockTimeByFile", 2, {kNotLocked, kUpgrade + kFault}},
			{"VUNKCFileGetPair", 2, {kNotRead, kUpgrade + kFault}},
			{"VUNKCSzHashSetValue", 1, {notSet("lock"), kUpgrade + kFault}},
			{"VUNKCSzHashSetValue", 2, {notSet("btrfs_metadata_cache_on"), kUpgrade + kFault}},
			{"VUNKCSzHashSetValue",
	                 3,
	                 {notSet("btrfs_metadata_cache_space_usage_limit"), kUpgrade + kFault}},
			{"VUNKCSzHashSetValue",
	                 4,
	                 {notSet("btrfs_metadata_cache_read_throttle_wait_mult"), kUpgrade + kFault}},
			{"VUNKCFileLockTimeByFile", 3, {kNotLocked, kUpgrade + kFault}},
			{"VUNKCFileSetPair", 1, {kNotWritten, kUpgrade + kFault}},
		},
		[](VUNKSZHASH **hash) { return TunedConfigGet(hash); });
}

TEST_F(ConfigStore, NamesTheDefaultProfileWhenItCannotBeSet)
{
	WriteConfig("");
	TestHash hash;
	const kit::Fault fault("VUNKCSzHashSetValue");
	EXPECT_EQ(TunedConfigGet(hash.Address()), -1);
	EXPECT_EQ(journal.Lines(),
	          (Lines{"utils.cpp Failed to set hash key [profile] value [performance_throughput][0xFA17 fault:1]",
	                 kUpgrade + kFault}));
	EXPECT_EQ(Config(), "");
}

TEST_F(ConfigStore, LeavesTheCompletedFileWhenItCannotBeReadBack)
{
	const struct {
		const char *function;
		int nth;
		std::string line;
	} cases[] = {
		{"stat", 11, kMissing},
		{"VUNKCFileLockTimeByFile", 4, kNotLocked},
		{"VUNKCFileGetPair", 3, kNotRead},
	};
	for (const auto &[function, nth, line] : cases) {
		SCOPED_TRACE(function);
		WriteConfig("profile=mine\n");
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
		TestHash hash;
		const kit::Fault fault(function, nth);
		EXPECT_EQ(TunedConfigGet(hash.Address()), -1);
		EXPECT_EQ(journal.Lines(), Lines{line});
		EXPECT_EQ(FilePairs(), DefaultsAnd({{"profile", "mine"}}));
	}
}

TEST_F(ConfigStore, RefusesAFileThatItCannotUnderstandAndLeavesIt)
{
	const std::string text = "profile=mine\nnot a pair\n";
	WriteConfig(text);
	const std::string place = "[0x1500 " + kit::kConfigFile + ":2]";
	const std::string line = "utils.cpp Failed to get file [" + kit::kConfigFile + "] to hash" + place;
	TestHash hash(Pairs{{"a", "1"}});
	EXPECT_EQ(TunedConfigGet(hash.Address()), -1);
	EXPECT_EQ(TuneSetHashToConfig(hash.Get()), -1);
	EXPECT_EQ(TuneSetConfigProfile("other"), -1);
	Json::Value object;
	EXPECT_EQ(TunedConfigGetToJson(object), -1);
	EXPECT_EQ(journal.Lines(), (Lines{line, line, line, line, "utils.cpp Failed to TunedConfigGet." + place}));
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_SYNTAX);
	EXPECT_EQ(VUNKCErrorGetLine(), 2);
	EXPECT_TRUE(object.isNull());
	EXPECT_EQ(Config(), text);
}

// TuneSetHashToConfig, TuneSetKeyValueToConfig and TuneSetConfigProfile

TEST_F(ConfigStore, MergesNewPairsIntoTheFile)
{
	WriteConfig("profile=old\nfoo=bar\n");
	const Pairs added = {{"profile", "new"}, {"lock", "true"}};
	const TestHash hash(added);
	EXPECT_EQ(TuneSetHashToConfig(hash.Get()), 0);
	EXPECT_EQ(FilePairs(), (Pairs{{"profile", "new"}, {"lock", "true"}, {"foo", "bar"}}))
		<< "no defaults are added";
	EXPECT_EQ(hash.All(), added);
	ExpectNoLines();
}

TEST_F(ConfigStore, RewritesTheFileWithItsOwnPairsForAnEmptyHash)
{
	WriteConfig("profile = mine\nfoo = bar\n");
	const ino_t inode = InodeOf(kit::kConfigFile);
	EXPECT_EQ(TuneSetHashToConfig(TestHash().Get()), 0);
	EXPECT_EQ(FilePairs(), (Pairs{{"profile", "mine"}, {"foo", "bar"}}));
	EXPECT_NE(InodeOf(kit::kConfigFile), inode) << "not written";
	ExpectNoLines();
}

TEST_F(ConfigStore, MakesAnEmptyFileForAnEmptyHash)
{
	const kit::Fault secondWriting("VUNKCFileSetPair", 2);
	EXPECT_EQ(TuneSetHashToConfig(TestHash().Get()), 0);
	EXPECT_EQ(Config(), "");
	TestHash other;
	EXPECT_EQ(TuneSetHashToConfig(other.Get()), -1) << "the first call wrote, so that this writing is the second";
	EXPECT_TRUE(secondWriting.Struck());
}

TEST_F(ConfigStore, AddsAKeyOfItsOwnAndExportsItWithTheFive)
{
	EXPECT_EQ(TuneSetKeyValueToConfig("foo", "bar"), 0);
	EXPECT_EQ(FilePairs(), (Pairs{{"foo", "bar"}}));
	Json::Value object;
	EXPECT_EQ(TunedConfigGetToJson(object), 0);
	EXPECT_EQ(object, AsJson(DefaultsAnd({{"foo", "bar"}})));
	EXPECT_EQ(object.size(), 6u);
	ExpectNoLines();
}

TEST_F(ConfigStore, RecordsAProfileThatNobodyHasInstalled)
{
	WriteConfig("foo=bar\nprofile=old\n");
	EXPECT_EQ(TuneSetConfigProfile("no such profile"), 0);
	EXPECT_EQ(FilePairs(), (Pairs{{"profile", "no such profile"}, {"foo", "bar"}}));
	EXPECT_EQ(TuneSetConfigProfile(""), 0);
	EXPECT_EQ(FilePairs(), (Pairs{{"profile", ""}, {"foo", "bar"}}));
	ExpectNoLines();
}

TEST_F(ConfigStore, GivesEveryValueWithoutANewlineBackAsItWasSet)
{
	const std::string values[] = {
		"",           " ",
		" both ",     "\tx\r",
		"a=b",        "=",
		"\"",         "\"\"",
		"\"quoted\"", "it's \"so\"",
		"#x",         ";x",
		"[x]",        "a\\nb",
		"%s%n",       "Gr\u00F6\u00DFe \u20AC",
		"\xFF\xFE",   std::string(100000, 'x'),
	};
	for (const std::string &value : values) {
		SCOPED_TRACE(value.substr(0, 100));
		EXPECT_EQ(TuneSetKeyValueToConfig("foo", value.c_str()), 0);
		TestHash hash;
		EXPECT_EQ(TunedConfigGet(hash.Address()), 0);
		EXPECT_EQ(hash.All(), DefaultsAnd({{"foo", value}}));
		Json::Value object;
		EXPECT_EQ(TunedConfigGetToJson(object), 0);
		EXPECT_EQ(object["foo"].asString(), value);
	}
	ExpectNoLines();
}

TEST_F(ConfigStore, RefusesWhatTheFileCannotHoldAndLeavesItAsItWas)
{
	const std::string text = "# mine\nprofile=mine\n";
	WriteConfig(text);
	const Pairs refused[] = {
		{{"foo", "two\nlines"}}, {{"foo", "\n"}}, {{"", "x"}},   {{"a=b", "x"}}, {{"a\nb", "x"}},
		{{" a", "x"}},           {{"a ", "x"}},   {{"#a", "x"}}, {{";a", "x"}},  {{"[a]", "x"}},
	};
	const Lines lines = {"utils.cpp Failed to set hash to file [" + kit::kConfigFile + "][0x1700 pair_file.cpp]"};
	for (const Pairs &pairs : refused) {
		const auto &[key, value] = *pairs.begin();
		SCOPED_TRACE(key + "=" + value);
		journal.Clear();
		EXPECT_EQ(TuneSetKeyValueToConfig(key.c_str(), value.c_str()), -1);
		EXPECT_EQ(journal.Lines(), lines);
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_NOT_STORABLE);
		journal.Clear();
		Pairs several = pairs;
		several["good"] = "pair";
		EXPECT_EQ(TuneSetHashToConfig(TestHash(several).Get()), -1);
		EXPECT_EQ(journal.Lines(), lines);
		EXPECT_EQ(Config(), text);
	}
	EXPECT_EQ(kit::Names(kDir), std::set<std::string>{"config"});
	journal.Clear();
	EXPECT_EQ(TuneSetConfigProfile("two\nlines"), -1);
	EXPECT_EQ(journal.Lines(), lines);
	EXPECT_EQ(Config(), text);
}

TEST_F(ConfigStore, LogsTheWholeChainWhenMergingFails)
{
	TestHash added(Pairs{{"foo", "bar"}});
	ExpectFailures(
		{
			{"VUNKCSzHashAlloc", 1, {kNoHash}},
			{"VUNKCSzListAlloc", 1, {"utils.cpp Failed to VUNKCSzListAlloc().[0xFA17 fault:1]"}},
			{"stat", 1, {kNoFolder + "[0x0C00 utils.cpp]", kNotFound + "[0x0C00 utils.cpp]"}, 0xC00},
			{"stat", 3, {kMissing}, 0},
			{"VUNKCFileLockTimeByFile", 1, {kNotLocked}},
			{"VUNKCFileGetPair", 1, {kNotRead}},
			{"VUNKCSzHashEnumKey", 1, {"utils.cpp Failed to get hash enum key from hash.[0xFA17 fault:1]"}},
			{"VUNKCSzHashSetValue",
	                 1,
	                 {"utils.cpp Failed to set key(foo) value(bar) to hash.[0xFA17 fault:1]"}},
			{"VUNKCFileLockTimeByFile", 2, {kNotLocked}},
			{"VUNKCFileSetPair", 1, {kNotWritten}},
		},
		[&](VUNKSZHASH **) { return TuneSetHashToConfig(added.Get()); });
	EXPECT_EQ(added.All(), (Pairs{{"foo", "bar"}}));
}

TEST_F(ConfigStore, LogsTheWholeChainWhenSettingAKeyFails)
{
	const auto failures = [&](const std::string &key, const std::string &value) {
		return std::vector<Failure>{
			{"VUNKCSzHashAlloc", 1, {kNoHash}},
			{"VUNKCSzHashSetValue",
		         1,
		         {"utils.cpp Failed to set hash key [" + key + "] value [" + value + "][0xFA17 fault:1]"}},
			{"VUNKCSzHashAlloc", 2, {kNoHash}},
			{"VUNKCSzHashSetValue",
		         2,
		         {"utils.cpp Failed to set key(" + key + ") value(" + value + ") to hash.[0xFA17 fault:1]"}},
			{"VUNKCFileSetPair", 1, {kNotWritten}},
		};
	};
	ExpectFailures(failures("foo", "bar"), [](VUNKSZHASH **) { return TuneSetKeyValueToConfig("foo", "bar"); });
	ExpectFailures(failures("profile", "other"), [](VUNKSZHASH **) { return TuneSetConfigProfile("other"); });
}

// TunedConfigGetToJson

TEST_F(ConfigStore, ExportsEveryValueAsAString)
{
	Json::Value object;
	EXPECT_EQ(TunedConfigGetToJson(object), 0);
	EXPECT_TRUE(object.isObject()) << "null becomes an object";
	EXPECT_EQ(object, AsJson(kDefaults));
	EXPECT_TRUE(object["lock"].isString());
	EXPECT_TRUE(object["btrfs_metadata_cache_space_usage_limit"].isString());
	EXPECT_EQ(FilePairs(), kDefaults) << "the file is made and completed";
	ExpectNoLines();
}

TEST_F(ConfigStore, ExportsIntoAnObjectWithoutClearingIt)
{
	Json::Value object;
	object["other"] = 7;
	object["lock"] = true;
	object["profile"]["nested"] = "gone";
	EXPECT_EQ(TunedConfigGetToJson(object), 0);
	Json::Value expected = AsJson(kDefaults);
	expected["other"] = 7;
	EXPECT_EQ(object, expected);
}

TEST_F(ConfigStore, RefusesToExportIntoAnythingButAnObject)
{
	Json::Value array(Json::arrayValue);
	array.append("x");
	for (const Json::Value &value : {array, Json::Value("text"), Json::Value(5), Json::Value(true)}) {
		SCOPED_TRACE(value.toStyledString());
		journal.Clear();
		Json::Value before = value;
		EXPECT_EQ(TunedConfigGetToJson(before), -1);
		EXPECT_EQ(before, value);
		EXPECT_EQ(before.type(), value.type());
		EXPECT_EQ(VUNKCErrGet(), 0xD00);
		EXPECT_EQ(journal.Lines(),
		          (std::vector<std::string>{
				  "utils.cpp Invaild Argument (jsConfig.isNull() || jsConfig.isObject())=[0]\n"}));
	}
}

TEST_F(ConfigStore, LogsTheWholeChainWhenExportingFails)
{
	Json::Value object;
	object["other"] = 7;
	const Json::Value before = object;
	const auto call = [&](VUNKSZHASH **) { return TunedConfigGetToJson(object); };
	const std::string notGot = "utils.cpp Failed to TunedConfigGet.[0xFA17 fault:1]";
	ExpectFailures(
		{
			{"VUNKCSzHashAlloc", 1, {kNoHash}},
			{"VUNKCSzListAlloc", 1, {"utils.cpp VUNKCSzListAlloc failed"}},
			{"VUNKCFileGetPair", 1, {kNotRead, notGot}},
			{"VUNKCSzHashAlloc", 2, {kNoHash, kUpgrade + kFault, notGot}},
		},
		call);
	EXPECT_EQ(object, before);

	journal.Clear();
	const kit::Fault fault("VUNKCSzHashEnumKey");
	EXPECT_EQ(TunedConfigGetToJson(object), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to enum hash key"});
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	EXPECT_EQ(object, before);
}

} // namespace

// These stand before the library's own; its calls of its exported functions come by here.

int TuneConfigIsValid(VUNKSZHASH *pshHash)
{
	static const auto real = kit::Real<int(VUNKSZHASH *)>("_Z17TuneConfigIsValidP10VUNKSZHASH");
	if (whenJudged)
		std::exchange(whenJudged, nullptr)();
	return real(pshHash);
}

int TuneLockConfig(BOOL blExclusive)
{
	static const auto real = kit::Real<int(BOOL)>("_Z14TuneLockConfigi");
	if (lockModes != nullptr)
		lockModes->push_back(blExclusive);
	return real(blExclusive);
}
