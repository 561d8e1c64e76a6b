#include "answers.h"

#include "kit/faults.h"
#include "kit/files.h"

#include <zevostorage/flash_cache.h>

#include <cerrno>
#include <filesystem>

using namespace answers;

namespace fs = std::filesystem;

namespace {

const std::string kFile = ZEVO_FLASH_CACHE_FILE;
const std::string kUuid = "0b7d9a3e-5f12-4c8a-9d3b-6a1e2f3c4d5e";
const std::string kDeclared = "[first]\nvolume = /volume1\nid = ssd_1\nmode = 4\nflags = 0x6\nsize = 256000000000\n"
			      "reference = vg1-cache\n";

/// As Failed(), with the line where there is one: "failed 0x1500 /usr/zevo/etc/flash_cache.conf:3".
std::string FailedAt()
{
	const std::string line = Failed();
	return VUNKCErrorGetLine() != 0 && *VUNKCErrorGetFile() == '/'
	               ? line + ":" + std::to_string(VUNKCErrorGetLine())
	               : line;
}

/// "4 ssd_1 vg1-cache 256000000000 0x06", "none" or a failure.
std::string CacheOf(const ZEVOSPACEINFO *space)
{
	ZEVOFLASHCACHECONFIG untouched = {};
	ZEVOFLASHCACHECONFIG *cache = &untouched;
	SetOldCode();
	const int result = ZEVOFlashCacheConfigTmpGet(space, ZEVO_FLASH_CACHE_OF_SPACE, &cache);
	EXPECT_EQ(cache != &untouched, result == 1);
	if (result < 0)
		return FailedAt();
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	if (result == 0)
		return "none";
	unsigned flags = 0x7777;
	EXPECT_EQ(ZEVOFlashCacheSupportFlagsGet(cache, &flags), 0);
	const std::string line = std::to_string(cache->iMode) + " " + cache->szId + " " + cache->szReference + " " +
	                         std::to_string(cache->ullSizeByte) + " " + Hex(flags, 2);
	ZEVOFlashCacheConfigFree(cache);
	return line;
}

std::string CacheOf(const std::string &volPath)
{
	const SpaceList list;
	const ZEVOSPACEINFO *const space = list.Find(volPath);
	return space == nullptr ? "no such space" : CacheOf(space);
}

std::string CanPin(const std::string &volPath)
{
	SetOldCode();
	const int result = ZEVOFlashCachePinIsVolumeSupport(volPath.c_str());
	if (VUNKCErrGet() == kOldCode)
		return std::to_string(result);
	EXPECT_EQ(result, -1);
	return FailedAt();
}

std::string LayerOf(const std::string &volPath, size_t size = 64)
{
	const std::string before(64, '~');
	std::string out = before;
	SetOldCode();
	if (ZEVOVSpaceLayerPathGet(1, volPath.c_str(), out.data(), size) != 0) {
		EXPECT_EQ(out, before) << "changed by a call that failed";
		return Failed();
	}
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	return out.c_str();
}

std::string Replaced(std::string text, const std::string &what, const std::string &by)
{
	return text.replace(text.find(what), what.size(), by);
}

/// An ext4 on a disk as /volume1, another on a device-mapper device as /volume2.
class DeclaredCaches : public StorageTest {
protected:
	DeclaredCaches()
	{
		machine.Disk("sda");
		machine.Disk("sdb");
		machine.Dm("dm-3", "vg1-volume2", "LVM-2", {"sdb"}, {"0 2048 linear 8:16 0"});
		machine.Mount("/dev/sda", "/volume1", "ext4");
		machine.Mount("/dev/mapper/vg1-volume2", "/volume2", "ext4");
	}

	static std::string With(const std::string &text, const std::string &volPath = "/volume1")
	{
		kit::WriteFile(kFile, text);
		return CacheOf(volPath);
	}
};

/// Caches that the kernel has.
class RealCaches : public StorageTest {
protected:
	RealCaches()
	{
		for (const char *disk : {"sda", "sdb", "sdc", "sdd"})
			machine.Disk(disk);
	}

	/// dm-0 on sdc, cached on sdb (1 GiB).
	void DmCache(const std::string &parameters, const std::string &uuid = "DM-UUID")
	{
		const Strings targets = {"0 2048 cache 8:0 8:16 8:32 128 " + parameters};
		const auto found = machine.deviceMapper.tables.find("253:0");
		if (found != machine.deviceMapper.tables.end())
			found->second.targets = targets;
		else
			machine.Dm("dm-0", "cached", uuid, {"sda", "sdb", "sdc"}, targets);
	}
	std::string CacheOn(const std::string &device)
	{
		machine.SetMountLines({});
		machine.Mount("/dev/" + device, "/volume1", "ext4");
		return CacheOf("/volume1");
	}
};

const std::string kDmCache = " ssd_1638419234 cached 1073741824 0x00";
const std::string kBcache = " ssd_232922823 9c0e0fbb-8a3c-4c0a-9d8b-sdb 1073741824 0x00";

} // namespace

TEST_F(DeclaredCaches, AreNoneWithoutAFile)
{
	EXPECT_EQ(CacheOf("/volume1"), "none");
	EXPECT_EQ(CacheOf("/volume2"), "none");
	EXPECT_EQ(CanPin("/volume1"), "0");
}

TEST_F(DeclaredCaches, AreNoneInAFileThatDeclaresNone)
{
	EXPECT_EQ(With(""), "none");
	EXPECT_EQ(With("# nothing\n\n; yet\n"), "none");
}

TEST_F(DeclaredCaches, AreFoundByTheVolume)
{
	EXPECT_EQ(With(kDeclared), "4 ssd_1 vg1-cache 256000000000 0x06");
	EXPECT_EQ(CacheOf("/volume2"), "none");
}

TEST_F(DeclaredCaches, AreFoundByEitherNameOfTheDevice)
{
	for (const char *device : {"/dev/dm-3", "/dev/mapper/vg1-volume2"}) {
		const std::string text = Replaced(kDeclared, "volume = /volume1", std::string("device = ") + device);
		EXPECT_EQ(With(text, "/volume2"), "4 ssd_1 vg1-cache 256000000000 0x06") << device;
		EXPECT_EQ(CacheOf("/volume1"), "none") << device;
	}
}

TEST_F(DeclaredCaches, AreOneForEachSpace)
{
	const std::string second = "[second]\nreference=r\nsize=1\nflags=4\nmode=1\nid=ssd_2\ndevice=/dev/dm-3\n";
	EXPECT_EQ(With(kDeclared + second), "4 ssd_1 vg1-cache 256000000000 0x06");
	EXPECT_EQ(CacheOf("/volume2"), "1 ssd_2 r 1 0x04");
}

TEST_F(DeclaredCaches, OfVolumesThatAreNotMountedConcernNoOther)
{
	EXPECT_EQ(With(Replaced(kDeclared, "/volume1", "/volume9")), "none");
}

TEST_F(DeclaredCaches, CanHaveEveryValueOfTheirRanges)
{
	for (const std::string mode : {"0", "1", "2", "3", "4", "5", "6"})
		EXPECT_EQ(With(Replaced(kDeclared, "mode = 4", "mode = " + mode)),
		          mode + " ssd_1 vg1-cache 256000000000 0x06");
	for (const auto &[flags, expected] : std::map<std::string, std::string>{
		     {"0", "0x00"}, {"2", "0x02"}, {"4", "0x04"}, {"6", "0x06"}, {"0x0", "0x00"}, {"0X6", "0x06"}})
		EXPECT_EQ(With(Replaced(kDeclared, "0x6", flags)), "4 ssd_1 vg1-cache 256000000000 " + expected);
	for (const std::string id : {"ssd_0", "ssd_2147483647"})
		EXPECT_EQ(With(Replaced(kDeclared, "ssd_1", id)), "4 " + id + " vg1-cache 256000000000 0x06");
	for (const std::string size : {"1", "18446744073709551615"})
		EXPECT_EQ(With(Replaced(kDeclared, "256000000000", size)), "4 ssd_1 vg1-cache " + size + " 0x06");
	for (const std::string &reference : {std::string("x"), std::string(256, 'r'), std::string("a b/c=d")})
		EXPECT_EQ(With(Replaced(kDeclared, "vg1-cache", reference)),
		          "4 ssd_1 " + reference + " 256000000000 0x06");
}

TEST_F(DeclaredCaches, AreWrittenAsInEverySectionFile)
{
	EXPECT_EQ(With("\xEF\xBB\xBF# caches\n\n  [ a name ] "
	               "\n\tvolume=\"/volume1\"\r\nid=\"ssd_1\"\n;x\nmode=4\nflags=6\n"
	               "size=\"5\"\nreference=\" r \""),
	          "4 ssd_1  r  5 0x06");
}

// A cache that is overlooked keeps its pins.
TEST_F(DeclaredCaches, AreAFailureForEveryVolumeWhenALineIsWrong)
{
	struct Wrong {
		std::string what; // of kDeclared
		std::string by;
		int line;
	};
	const std::vector<Wrong> wrongs = {
		// not a line of a section file, or outside of a section
		{"mode = 4", "mode", 4},
		{"mode = 4", "[mode", 4},
		{"[first]", "", 2},
		{"[first]\n", "id = ssd_3\n[first]\n", 1},
		// keys
		{"mode = 4", "Mode = 4", 4},
		{"mode = 4", "mode = 4\nspeed = 1", 5},
		{"mode = 4", "mode = 4\nmode = 4", 5},
		{"id = ssd_1", "id = ssd_1\nvolume = /volume1", 4},
		{"id = ssd_1", "id = ssd_1\ndevice = /dev/sda", 4},
		{"id = ssd_1\n", "", 1},
		{"mode = 4\n", "", 1},
		{"flags = 0x6\n", "", 1},
		{"size = 256000000000\n", "", 1},
		{"reference = vg1-cache\n", "", 1},
		{"volume = /volume1\n", "", 1},
		// values
		{"= /volume1", "=", 2},
		{"= /volume1", "= volume1", 2},
		{"= /volume1", "= /volume1/", 2},
		{"= /volume1", "= //volume1", 2},
		{"= /volume1", "= /./volume1", 2},
		{"= /volume1", "= /volume1/..", 2},
		{"volume = /volume1", "device =", 2},
		{"volume = /volume1", "device = sda", 2},
		{"volume = /volume1", "device = /volume1", 2},
		{"volume = /volume1", "device = /dev/", 2},
		{"volume = /volume1", "device = /dev/../sda", 2},
		{"ssd_1", "", 3},
		{"ssd_1", "ssd_", 3},
		{"ssd_1", "1", 3},
		{"ssd_1", "SSD_1", 3},
		{"ssd_1", "ssd_-1", 3},
		{"ssd_1", "ssd_+1", 3},
		{"ssd_1", "ssd_ 1", 3},
		{"ssd_1", "ssd_0x1", 3},
		{"ssd_1", "ssd_1x", 3},
		{"ssd_1", "ssd_2147483648", 3},
		{"ssd_1", "ssd_99999999999999999999", 3},
		{"mode = 4", "mode =", 4},
		{"mode = 4", "mode = 7", 4},
		{"mode = 4", "mode = -1", 4},
		{"mode = 4", "mode = 0x4", 4},
		{"mode = 4", "mode = 4 # back", 4},
		{"mode = 4", "mode = 4294967300", 4},
		{"0x6", "", 5},
		{"0x6", "0x", 5},
		{"0x6", "0x0x6", 5},
		{"0x6", "1", 5},
		{"0x6", "8", 5},
		{"0x6", "0x6g", 5},
		{"0x6", "-6", 5},
		{"0x6", "0x-6", 5},
		{"0x6", "0x100000006", 5},
		{"256000000000", "", 6},
		{"256000000000", "0", 6},
		{"256000000000", "-1", 6},
		{"256000000000", "0x10", 6},
		{"256000000000", "1.5", 6},
		{"256000000000", "256G", 6},
		{"256000000000", "18446744073709551616", 6},
		{"vg1-cache", "", 7},
		{"vg1-cache", "\"\"", 7},
		{"vg1-cache", std::string(257, 'r'), 7},
		{"vg1-cache", std::string("a\0b", 3), 7},
	};
	for (const Wrong &wrong : wrongs) {
		const std::string expected = "failed 0x1500 " + kFile + ":" + std::to_string(wrong.line);
		EXPECT_EQ(With(Replaced(kDeclared, wrong.what, wrong.by)), expected) << wrong.by;
		EXPECT_EQ(CacheOf("/volume2"), expected) << wrong.by;
		EXPECT_EQ(CanPin("/volume2"), expected) << wrong.by;
	}
}

TEST_F(DeclaredCaches, AreAFailureWhenALaterSectionIsWrong)
{
	const std::string file = "failed 0x1500 " + kFile;
	const std::string second = Replaced(Replaced(kDeclared, "first", "second"), "/volume1", "/volume2");
	EXPECT_EQ(With(kDeclared + Replaced(second, "mode = 4\n", "")), file + ":8");
	EXPECT_EQ(With(kDeclared + Replaced(second, "ssd_1", "ssd_x")), file + ":10");
	EXPECT_EQ(With(Replaced(kDeclared, "mode = 4\n", "") + second), file + ":1");
	EXPECT_EQ(With(kDeclared + Replaced(second, "second", "first")), file + ":8");      // the same name
	EXPECT_EQ(With(kDeclared + Replaced(second, "/volume2", "/volume1")), file + ":9"); // the same space
	EXPECT_EQ(With(kDeclared + "[empty]\n"), file + ":8");
	EXPECT_EQ(With(kDeclared + second), "4 ssd_1 vg1-cache 256000000000 0x06");
}

TEST_F(DeclaredCaches, AreAFailureForTheSpaceThatTwoOfThemMean)
{
	const auto second = [](const std::string &name, const std::string &space) {
		return Replaced(Replaced(kDeclared, "first", name), "volume = /volume1", space);
	};
	EXPECT_EQ(With(kDeclared + second("second", "device = /dev/sda")), "failed 0x1500 " + kFile + ":9");
	EXPECT_EQ(CacheOf("/volume2"), "none");
	const std::string both = second("a", "device = /dev/dm-3") + second("b", "device = /dev/mapper/vg1-volume2");
	EXPECT_EQ(With(both, "/volume2"), "failed 0x1500 " + kFile + ":9");
	EXPECT_EQ(CanPin("/volume2"), "failed 0x1500 " + kFile + ":9");
	EXPECT_EQ(CacheOf("/volume1"), "none");
}

TEST_F(DeclaredCaches, AreAFailureWhenTheFileCannotBeRead)
{
	fs::create_directories(kFile);
	EXPECT_EQ(CacheOf("/volume1"), "failed 0x0A00 " + kFile);
	EXPECT_EQ(CanPin("/volume1"), "failed 0x0A00 " + kFile);
	fs::remove(kFile);
	const kit::PathFault fault("open", kFile, EACCES);
	EXPECT_EQ(CacheOf("/volume1"), "failed 0x0900 " + kFile);
}

TEST_F(DeclaredCaches, CountInPlaceOfRealOnes)
{
	machine.Disk("sdc");
	machine.Disk("sdd");
	machine.Bcache("bcache0", "sdc", "sdd");
	machine.Mount("/dev/bcache0", "/volume3", "ext4");
	EXPECT_TRUE(CacheOf("/volume3").ends_with("-sdd 1073741824 0x00")) << CacheOf("/volume3");
	EXPECT_EQ(With(Replaced(kDeclared, "/volume1", "/volume3"), "/volume3"), "4 ssd_1 vg1-cache 256000000000 0x06");
	EXPECT_EQ(With(Replaced(Replaced(kDeclared, "/volume1", "/volume3"), "mode = 4", "mode = 6"), "/volume3"),
	          "6 ssd_1 vg1-cache 256000000000 0x06");
	EXPECT_EQ(With("[broken]\n", "/volume3"), "failed 0x1500 " + kFile + ":1");
}

TEST_F(DeclaredCaches, CanPinWithBothFlagsInEveryModeButRemoved)
{
	for (const char *mode : {"0", "1", "2", "3", "4", "5"}) {
		kit::WriteFile(kFile, Replaced(kDeclared, "mode = 4", std::string("mode = ") + mode));
		EXPECT_EQ(CanPin("/volume1"), "1") << mode;
		EXPECT_EQ(CanPin("/volume2"), "0") << mode;
	}
	kit::WriteFile(kFile, Replaced(kDeclared, "mode = 4", "mode = 6"));
	EXPECT_EQ(CanPin("/volume1"), "0");
	for (const char *flags : {"0", "2", "4"}) {
		kit::WriteFile(kFile, Replaced(kDeclared, "0x6", flags));
		EXPECT_EQ(CanPin("/volume1"), "0") << flags;
	}
}

TEST_F(DeclaredCaches, OfAPathWhereNoVolumeIsCannotBeFoundOut)
{
	kit::WriteFile(kFile, Replaced(kDeclared, "/volume1", "/volume9"));
	EXPECT_EQ(CanPin("/volume9"), "failed 0x2100 /volume9");
	EXPECT_EQ(CanPin(""), "failed 0x2100");
}

TEST_F(DeclaredCaches, CannotBeFoundOutWhenSpacesCannotBeListed)
{
	const kit::Fault fault("ZEVOSpaceInfoEnum");
	SetOldCode();
	EXPECT_EQ(ZEVOFlashCachePinIsVolumeSupport("/volume1"), -1);
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
}

TEST_F(DeclaredCaches, RefuseArgumentsThatAreNullOrOutOfRange)
{
	kit::WriteFile(kFile, kDeclared);
	const SpaceList list;
	ZEVOFLASHCACHECONFIG *cache = nullptr;
	ASSERT_EQ(ZEVOFlashCacheConfigTmpGet(list.Find("/volume1"), ZEVO_FLASH_CACHE_OF_SPACE, &cache), 1);
	ZEVOFLASHCACHECONFIG untouched = {};
	ZEVOFLASHCACHECONFIG *other = &untouched;
	unsigned flags = 0x7777;
	char out[64] = "before";
	const std::vector<std::pair<int, std::function<int()>>> calls = {
		{-1, [&] { return ZEVOFlashCacheConfigTmpGet(nullptr, 2, &other); }},
		{-1, [&] { return ZEVOFlashCacheConfigTmpGet(list.First(), 1, &other); }},
		{-1, [&] { return ZEVOFlashCacheConfigTmpGet(list.First(), 3, &other); }},
		{-1, [&] { return ZEVOFlashCacheConfigTmpGet(list.First(), 2, nullptr); }},
		{-1, [&] { return ZEVOFlashCacheSupportFlagsGet(nullptr, &flags); }},
		{-1, [&] { return ZEVOFlashCacheSupportFlagsGet(cache, nullptr); }},
		{-1, [&] { return ZEVOFlashCachePinIsVolumeSupport(nullptr); }},
		{-1, [&] { return ZEVOVSpaceLayerPathGet(0, "/volume2", out, sizeof(out)); }},
		{-1, [&] { return ZEVOVSpaceLayerPathGet(2, "/volume2", out, sizeof(out)); }},
		{-1, [&] { return ZEVOVSpaceLayerPathGet(1, nullptr, out, sizeof(out)); }},
		{-1, [&] { return ZEVOVSpaceLayerPathGet(1, "/volume2", nullptr, sizeof(out)); }},
	};
	for (size_t i = 0; i < calls.size(); ++i) {
		SetOldCode();
		EXPECT_EQ(calls[i].second(), calls[i].first) << i;
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT) << i;
	}
	EXPECT_EQ(other, &untouched);
	EXPECT_EQ(flags, 0x7777U);
	EXPECT_STREQ(out, "before");
	ZEVOFlashCacheConfigFree(cache);
	ZEVOFlashCacheConfigFree(nullptr);
}

TEST(RecordedCaches, AreThoseOfDeviceMapper)
{
	kit::FreshMachine();
	const kit::Machine machine = kit::Machine::Recorded("dm-cache");
	EXPECT_EQ(CacheOf("/volume1"), "4 ssd_1204735638 vg0-data 268435456 0x00");
	EXPECT_EQ(CacheOf("/volume2"), "1 ssd_1315383142 vg0-media 125829120 0x00");
	EXPECT_EQ(CacheOf("/volume3"), "4 ssd_737433935 vg0-logs 134217728 0x00");
	EXPECT_EQ(CacheOf("/volume4"), "none"); // a thin pool
	EXPECT_EQ(CacheOf("/volume5"), "none"); // a mirror
	EXPECT_EQ(CacheOf("/"), "none");
	for (const char *volume : {"/volume1", "/volume2", "/volume3", "/volume4"})
		EXPECT_EQ(CanPin(volume), "0") << volume;
}

// Without a UUID they are known by their names. The table has the mode as it was written, in whatever case, or none.
TEST(RecordedCaches, AreThoseOfDeviceMapperThatWereMadeByHand)
{
	kit::FreshMachine();
	const kit::Machine machine = kit::Machine::Recorded("dm-cache-by-hand");
	EXPECT_EQ(CacheOf("/volume1"), "4 ssd_1404976999 plain 67108864 0x00");
	EXPECT_EQ(CacheOf("/volume2"), "1 ssd_2106574970 through 83886080 0x00");
	EXPECT_EQ(CacheOf("/volume3"), "4 ssd_1538531746 back 100663296 0x00");
	EXPECT_EQ(CacheOf("/volume4"), "5 ssd_756567562 pass-by 117440512 0x00");
	EXPECT_EQ(CacheOf("/"), "none");
	for (const char *volume : {"/volume1", "/volume2", "/volume3", "/volume4"})
		EXPECT_EQ(CanPin(volume), "0") << volume;
}

TEST(RecordedCaches, AreThoseOfBcache)
{
	kit::FreshMachine();
	const kit::Machine machine = kit::Machine::Recorded("bcache");
	EXPECT_EQ(CacheOf("/volume1"), "4 ssd_1397382243 08dd4441-d359-4a65-8a29-c65e28c3d614 1073741824 0x00");
	EXPECT_EQ(CacheOf("/volume2"), "none"); // its backing device has no cache
	EXPECT_EQ(CacheOf("/volume3"), "none"); // lies on the SSD alone
	EXPECT_EQ(CanPin("/volume1"), "0");
}

TEST(RecordedCaches, AreNoneOnOtherMachines)
{
	kit::FreshMachine();
	for (const std::string &name : kit::Machine::Recordings()) {
		if (name == "dm-cache" || name == "dm-cache-by-hand" || name == "bcache")
			continue;
		const kit::Machine machine = kit::Machine::Recorded(name);
		const SpaceList list;
		for (const ZEVOSPACEINFO *space = list.First(); space != nullptr; space = space->pNext)
			EXPECT_EQ(CacheOf(space), "none") << name << " " << space->szVolPath;
	}
}

TEST_F(RealCaches, OfDeviceMapperHaveTheModeOfTheirFeatures)
{
	for (const auto &[parameters, mode] : std::map<std::string, std::string>{
		     {"0 smq 0", "4"}, // the kernel's default
		     {"1 writeback smq 0", "4"},
		     {"1 writethrough smq 0", "1"},
		     {"1 passthrough smq 0", "5"},
		     {"2 metadata2 WriteThrough smq 0", "1"},
		     {"3 metadata2 passthrough no_discard_passdown mq 2 sequential_threshold 1024", "5"},
		     {"1 metadata2 writethrough 0", "4"}}) { // that one is the name of a policy
		DmCache(parameters);
		EXPECT_EQ(CacheOn("dm-0"), mode + kDmCache) << parameters;
	}
}

TEST_F(RealCaches, OfDeviceMapperWithoutFeaturesAreNotUnderstood)
{
	for (const char *parameters : {"", "x smq 0", "-1 smq 0", "2 writeback"}) {
		DmCache(parameters);
		EXPECT_EQ(CacheOn("dm-0"), "failed 0x2200 /sys/class/block/dm-0") << parameters;
		EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdc"})) << parameters; // does not take them
	}
}

TEST_F(RealCaches, OfAWritecacheWriteBack)
{
	machine.Dm("dm-0", "cached", "DM-UUID", {"sda", "sdb"}, {"0 2048 writecache s 8:0 8:16 4096 0"});
	EXPECT_EQ(CacheOn("dm-0"), "4" + kDmCache);
}

TEST_F(RealCaches, OfDeviceMapperWithoutAUuidAreKnownByTheirName)
{
	DmCache("1 writeback smq 0", "");
	EXPECT_EQ(CacheOn("dm-0"), "4 ssd_1719355411 cached 1073741824 0x00");
}

TEST_F(RealCaches, OfBcacheHaveTheModeThatIsChosen)
{
	machine.Bcache("bcache0", "sda", "sdb");
	const std::string file = "/sys/class/block/sda/bcache/cache_mode";
	for (const auto &[text, mode] :
	     std::map<std::string, std::string>{{"[writethrough] writeback writearound none\n", "1"},
	                                        {"writethrough [writeback] writearound none\n", "4"},
	                                        {"writethrough writeback [writearound] none\n", "5"},
	                                        {"writethrough writeback writearound [none]\n", "5"}}) {
		kit::WriteFile(file, text);
		EXPECT_EQ(CacheOn("bcache0"), mode + kBcache) << text;
	}
	for (const char *text : {"", "writethrough writeback\n", "[else]\n", "]writeback[\n", "[writeback\n"}) {
		kit::WriteFile(file, text);
		EXPECT_EQ(CacheOn("bcache0"), "failed 0x2200 " + file) << text;
	}
}

TEST_F(RealCaches, OfBcacheCountWhileTheyAreAttached)
{
	machine.Bcache("bcache0", "sda", "sdb");
	const std::string folder = "/sys/class/block/sda/bcache/";
	for (const char *state : {"clean", "dirty", "inconsistent"}) {
		kit::WriteFile(folder + "state", std::string(state) + "\n");
		EXPECT_EQ(CacheOn("bcache0"), "1" + kBcache) << state;
	}
	kit::WriteFile(folder + "state", "no cache\n");
	EXPECT_EQ(CacheOn("bcache0"), "none");
	kit::WriteFile(folder + "state", "clean\n");
	fs::remove(folder + "cache");
	EXPECT_EQ(CacheOn("bcache0"), "none");
	machine.Bcache("bcache1", "sdc", "");
	EXPECT_EQ(CacheOn("bcache1"), "none");
	machine.Bcache("bcache2", "", "sdd"); // a volume in the cache itself
	EXPECT_EQ(CacheOn("bcache2"), "none");
}

TEST_F(RealCaches, OfBcacheAreAsLargeAsAllDevicesOfTheSet)
{
	machine.Bcache("bcache0", "sda", "sdb");
	const std::string set = "/sys/fs/bcache/9c0e0fbb-8a3c-4c0a-9d8b-sdb/";
	fs::create_symlink(fs::read_symlink(set + "cache0"), set + "cache1");
	fs::create_directory(set + "cache_available_percent");
	fs::create_directory(set + "cache");
	EXPECT_EQ(CacheOn("bcache0"), Replaced("1" + kBcache, "1073741824", "2147483648"));
}

TEST_F(RealCaches, StandAnywhereBelowTheVolume)
{
	machine.Partition("sdc", 1);
	machine.Bcache("bcache0", "sdc1", "sdb");
	machine.Dm("dm-0", "vg1-volume1", "LVM-1", {"bcache0"}, {"0 2048 linear " + machine.Number("bcache0") + " 0"});
	machine.Dm("dm-1", "crypt", "CRYPT-1", {"dm-0"}, {"0 2048 crypt aes 0 0 253:0 0"});
	EXPECT_EQ(CacheOn("dm-1"), "1" + kBcache);
	machine.Md("md0", "raid1", {"sdd", "dm-1"});
	EXPECT_EQ(CacheOn("md0"), "1" + kBcache);
}

TEST_F(RealCaches, OfABtrfsStandBelowAnyOfItsDevices)
{
	DmCache("1 writethrough smq 0");
	machine.Btrfs(kUuid, {"sdd", "dm-0"});
	machine.Mount("/dev/sdd", "/volume1", "btrfs");
	EXPECT_EQ(CacheOf("/volume1"), "1" + kDmCache);
}

TEST_F(RealCaches, CountByTheFirstOnTheWayDown)
{
	machine.Bcache("bcache0", "sdc", "sdd");
	machine.Dm("dm-0", "cached", "DM-UUID", {"sda", "sdb", "bcache0"},
	           {"0 2048 cache 8:0 8:16 " + machine.Number("bcache0") + " 128 1 writethrough smq 0"});
	EXPECT_EQ(CacheOn("dm-0"), "1" + kDmCache);
}

TEST_F(RealCaches, AreNotThoseOfTheirOwnCacheDevices)
{
	machine.Partition("sdb", 1);
	machine.Bcache("bcache0", "sda", "sdd");
	machine.Dm("dm-0", "wide", "DM-1", {"sdb1"}, {"0 2048 linear 8:17 0"});
	machine.Dm("dm-1", "cached", "DM-UUID", {"sdc", "bcache0", "dm-0"},
	           {"0 2048 writecache s 253:0 " + machine.Number("bcache0") + " 4096 0"});
	// The cache device of dm-1 is cached itself, which concerns nobody.
	EXPECT_TRUE(CacheOn("dm-1").ends_with(" cached 1048576 0x00")) << CacheOn("dm-1");
}

TEST_F(RealCaches, WhoseDeviceIsGoneAreNone)
{
	DmCache("1 writethrough smq 0");
	machine.Remove("sdb");
	EXPECT_EQ(CacheOn("dm-0"), "none");
}

TEST_F(RealCaches, WhoseSizeIsNoNumberAreAFailure)
{
	DmCache("1 writethrough smq 0");
	for (const char *size : {"", "x", "-1", "12 ", "99999999999999999999", "36028797018963968"}) {
		kit::WriteFile("/sys/class/block/sdb/size", size);
		EXPECT_EQ(CacheOn("dm-0"), "failed 0x2200 /sys/class/block/sdb/size") << size;
	}
	kit::WriteFile("/sys/class/block/sdb/size", "36028797018963967\n");
	EXPECT_EQ(CacheOn("dm-0"), "1 ssd_1638419234 cached 18446744073709551104 0x00");
}

TEST_F(RealCaches, AreAFailureWhenTheDeviceMapperDoesNotAnswer)
{
	DmCache("1 writethrough smq 0");
	machine.deviceMapper.error = EIO;
	EXPECT_EQ(CacheOn("dm-0"), "failed 0x0A00 /dev/mapper/control");
	machine.deviceMapper.error = 0;
	machine.deviceMapper.exists = false;
	EXPECT_EQ(CacheOn("dm-0"), "failed 0x0900 /dev/mapper/control");
	EXPECT_EQ(CanPin("/volume1"), "0"); // no real one can, whatever it is
}

TEST_F(RealCaches, OfASpaceWhoseDevicesAreGoneAreNone)
{
	DmCache("1 writethrough smq 0");
	machine.Mount("/dev/dm-0", "/volume1", "ext4");
	const SpaceList list;
	machine.Remove("dm-0");
	EXPECT_EQ(CacheOf(list.First()), "none");
}

TEST_F(RealCaches, LayersAreTheVirtualDevicesThatAreMounted)
{
	machine.Partition("sda", 1);
	machine.Bcache("bcache0", "sda", "sdb");
	machine.Bcache("bcache1", "", "sdb");
	machine.Dm("dm-3", "vg1-volume1", "LVM-1", {"sdc"}, {"0 2048 linear 8:32 0"});
	machine.Md("md2", "raid1", {"sdd"});
	machine.Partition("md2", 1);
	for (const char *device : {"bcache0", "bcache1", "dm-3", "md2"}) {
		machine.SetMountLines({});
		machine.Mount(std::string("/dev/") + device, "/volume1", "ext4");
		EXPECT_EQ(LayerOf("/volume1"), std::string("/dev/") + device);
	}
	for (const char *device : {"sda", "sda1", "sdc", "md2p1"}) {
		machine.SetMountLines({});
		machine.Mount(std::string("/dev/") + device, "/volume1", "ext4");
		EXPECT_EQ(LayerOf("/volume1"), "failed 0x0600 /volume1") << device;
	}
	machine.SetMountLines({});
	EXPECT_EQ(LayerOf("/volume1"), "failed 0x0600 /volume1");
}

TEST_F(RealCaches, LayersAreKnownByTheKernelsName)
{
	machine.Dm("dm-3", "vg1-volume1", "LVM-1", {"sdc"}, {"0 2048 linear 8:32 0"});
	machine.Mount("/dev/mapper/vg1-volume1", "/volume1", "ext4");
	EXPECT_EQ(LayerOf("/volume1"), "/dev/dm-3");
	EXPECT_EQ(LayerOf("/volume1", 10), "/dev/dm-3");
	for (const size_t size : {9, 1, 0}) {
		EXPECT_EQ(LayerOf("/volume1", size), "failed 0x0D00") << size;
	}
	const kit::Fault fault("ZEVOSpaceInfoEnum");
	EXPECT_EQ(LayerOf("/volume1"), "failed 0xFA17");
}

TEST(ModelWithPins, IsEveryOneThatDoesNotSayNo)
{
	kit::FreshMachine();
	SetOldCode();
	EXPECT_EQ(ModelSupportPin(), 1);
	for (const char *text : {"", "support_pin=yes\n", "support_pin=\n", "support_pin=NO\n", "support_pin=0\n",
	                         "SUPPORT_PIN=no\n", "support_raid=no\n", "support_pin=no\nnonsense\n"}) {
		kit::WriteFile("/usr/zevo/etc/model.conf", text);
		EXPECT_EQ(ModelSupportPin(), 1) << text;
	}
	for (const char *text : {"support_pin=no\n", "support_pin=\"no\"\n", "support_raid=yes\nsupport_pin = no"}) {
		kit::WriteFile("/usr/zevo/etc/model.conf", text);
		EXPECT_EQ(ModelSupportPin(), 0) << text;
	}
	fs::remove("/usr/zevo/etc/model.conf");
	fs::create_directory("/usr/zevo/etc/model.conf");
	EXPECT_EQ(ModelSupportPin(), 1);
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
}
