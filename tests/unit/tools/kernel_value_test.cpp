#include "kernel_value.h"

#include "numbers.h"

#include "kit/files.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kDisk = "zevotest"; // made up, in the lab's own /sys

TEST(SysctlPath, TakesDotsOrSlashesAsTheSeparator)
{
	EXPECT_EQ(SysctlPath("vm.swappiness"), "/proc/sys/vm/swappiness");
	EXPECT_EQ(SysctlPath("vm/swappiness"), "/proc/sys/vm/swappiness");
	EXPECT_EQ(SysctlPath("net.ipv4.conf.eth0/1.forwarding"), "/proc/sys/net/ipv4/conf/eth0.1/forwarding");
	EXPECT_EQ(SysctlPath("net/ipv4/conf/eth0.1/forwarding"), "/proc/sys/net/ipv4/conf/eth0.1/forwarding");
	EXPECT_EQ(SysctlPath("name"), "/proc/sys/name");
}

TEST(SameValue, IsOneThatTheKernelTakesForTheSame)
{
	const auto isSame = [](std::string_view a, std::string_view b) {
		return IsSameValue("/proc/sys/kernel/x", a, b);
	};
	EXPECT_TRUE(isSame("4 4 1 7", " 4\t4\t1\t7\n"));
	EXPECT_TRUE(isSame("16", "0x10"));
	EXPECT_TRUE(isSame("8", "010"));
	EXPECT_TRUE(isSame("", " \n"));
	EXPECT_TRUE(isSame("mq-deadline", "mq-deadline"));
	EXPECT_FALSE(isSame("1", "1 1"));
	EXPECT_FALSE(isSame("10", "010"));
	EXPECT_FALSE(isSame("a", "b"));
	EXPECT_FALSE(isSame("0", ""));
	EXPECT_FALSE(isSame("99999999999999999999", "99999999999999999998"));
}

TEST(SameValue, GoesByHowTheTunablesSchedulerReadsNumbers)
{
	const std::string folder = "/sys/block/sda/queue/iosched/";
	for (const char *decimal : {"slice_idle", "back_seek_max", "read_lat_nsec"}) {
		EXPECT_TRUE(IsSameValue(folder + decimal, "10", "010")) << decimal;
		EXPECT_FALSE(IsSameValue(folder + decimal, "8", "010")) << decimal;
		EXPECT_FALSE(IsSameValue(folder + decimal, "16", "0x10")) << decimal;
	}
	EXPECT_FALSE(IsSameValue(folder + "fifo_batch", "10", "010"));
	EXPECT_TRUE(IsSameValue(folder + "fifo_batch", "8", "010"));
	EXPECT_TRUE(IsSameValue(folder + "fifo_batch", "16", "0x10"));
}

TEST(OtherOfPair, IsBytesForARatioAndARatioForBytes)
{
	EXPECT_EQ(OtherOfPair("/proc/sys/vm/dirty_ratio"), "/proc/sys/vm/dirty_bytes");
	EXPECT_EQ(OtherOfPair("/proc/sys/vm/dirty_bytes"), "/proc/sys/vm/dirty_ratio");
	EXPECT_EQ(OtherOfPair("/proc/sys/vm/dirty_background_ratio"), "/proc/sys/vm/dirty_background_bytes");
	EXPECT_EQ(OtherOfPair("/proc/sys/vm/swappiness"), "");
}

TEST(OtherOfPair, IsMicrosecondsForMillisecondsAndMillisecondsForMicroseconds)
{
	const std::string folder = "/sys/block/sda/queue/iosched/";
	EXPECT_EQ(OtherOfPair(folder + "slice_idle"), folder + "slice_idle_us");
	EXPECT_EQ(OtherOfPair(folder + "slice_idle_us"), folder + "slice_idle");
	EXPECT_EQ(OtherOfPair(folder + "back_seek_max"), "");
	EXPECT_EQ(OtherOfPair("/sys/block/sda/queue/slice_idle"), "");
}

TEST(SchedulerPathOf, IsOfTunablesOnly)
{
	EXPECT_EQ(SchedulerPathOf("/sys/block/sda/queue/iosched/quantum"), "/sys/block/sda/queue/scheduler");
	EXPECT_EQ(SchedulerPathOf("/sys/block/sda/queue/scheduler"), "");
	EXPECT_EQ(SchedulerPathOf(""), "");
}

TEST(KernelValueOf, AFileIsOneLine)
{
	const kit::TempDir dir;
	kit::WriteFile(dir.Path("a"), "4\t4\t1\t7\n");
	EXPECT_EQ(ReadKernelValue(dir.Path("a")).text, "4 4 1 7");
	kit::WriteFile(dir.Path("a"), "");
	EXPECT_EQ(ReadKernelValue(dir.Path("a")).text, "");
}

TEST(KernelValueOf, WhatIsNoFileHasAReasonInItsPlace)
{
	const kit::TempDir dir;
	EXPECT_EQ(ReadKernelValue(dir.Path("gone")), (KernelValue{std::nullopt, "this kernel does not have it"}));
	EXPECT_EQ(ReadKernelValue(dir.Path()).why, "Is a directory");
	ASSERT_EQ(mkfifo(dir.Path("fifo").c_str(), 0600), 0);
	EXPECT_EQ(ReadKernelValue(dir.Path("fifo")).text, std::nullopt); // and nobody waits for a writer
}

TEST(KernelValueOf, WhatOthersMayNotReadSaysSo)
{
	const kit::TempDir dir;
	kit::WriteFile(dir.Path("secret"), "1");
	std::filesystem::permissions(dir.Path(), std::filesystem::perms(0755));
	std::filesystem::permissions(dir.Path("secret"), std::filesystem::perms(0600));
	ASSERT_EQ(seteuid(65534), 0);
	const KernelValue value = ReadKernelValue(dir.Path("secret"));
	ASSERT_EQ(seteuid(0), 0);
	EXPECT_EQ(value, (KernelValue{std::nullopt, "only root can read it"}));
}

TEST(KernelValueOf, WhatFailsWhenItIsReadSaysWhy)
{
	EXPECT_EQ(ReadKernelValue("/proc/self/mem"), (KernelValue{std::nullopt, "Input/output error"}));
	EXPECT_EQ(ReadKernelValue("/dev/zero"), (KernelValue{std::nullopt, "Invalid argument"}));
	EXPECT_EQ(ReadKernelValue("/proc/version/x"), (KernelValue{std::nullopt, "this kernel does not have it"}));
	EXPECT_EQ(ReadKernelValue(""), (KernelValue{std::nullopt, "this kernel does not have it"}));
}

TEST(KernelValueOf, OfSchedulersTheOneInBracketsIsSelected)
{
	const std::string path = "/sys/block/" + std::string(kDisk) + "/queue/scheduler";
	const std::pair<const char *, const char *> rows[] = {{"none [mq-deadline] kyber\n", "mq-deadline"},
	                                                      {"[none]\n", "none"},
	                                                      {"none\n", "none"},
	                                                      {"", ""},
	                                                      {"[none", "[none"},
	                                                      {"none] [kyber]", "kyber"}};
	for (const auto &[text, selected] : rows) {
		kit::WriteFile(path, text);
		EXPECT_EQ(ReadKernelValue(path).text, selected) << text;
	}
	const kit::TempDir dir;
	kit::WriteFile(dir.Path("queue/scheduler"), "none [kyber]\n");
	EXPECT_EQ(ReadKernelValue(dir.Path("queue/scheduler")).text, "none [kyber]"); // of no disk
	std::filesystem::remove_all("/sys/block/" + std::string(kDisk));
}

TEST(KindsOfPaths, AreToldByTheirNames)
{
	EXPECT_TRUE(IsSysctlPath("/proc/sys/vm/swappiness"));
	EXPECT_FALSE(IsSysctlPath("/proc/sysrq-trigger"));
	EXPECT_FALSE(IsSysctlPath("proc/sys/vm"));
	EXPECT_TRUE(IsSchedulerPath("/sys/block/sda/queue/scheduler"));
	EXPECT_FALSE(IsSchedulerPath("/sys/class/block/sda/queue/scheduler"));
	EXPECT_FALSE(IsSchedulerPath("/sys/block/sda/queue/schedulers"));
}

TEST(Attribute, OfAnyLengthEndsSomewhere)
{
	const kit::TempDir dir;
	kit::WriteFile(dir.Path("long"), std::string(200000, 'x'));
	EXPECT_EQ(ReadAttribute(dir.Path("long"))->size(), 65536U);
	kit::WriteFile(dir.Path("page"), std::string(4096, 'x'));
	EXPECT_EQ(ReadAttribute(dir.Path("page"))->size(), 4096U);
}

TEST(Numbers, AreWhatTheKernelTakesForNumbers)
{
	for (const char *text : {"0", "1", "-1", "0x1F", "017", "99999999999999999999"})
		EXPECT_TRUE(IsInteger(text)) << text;
	for (const char *text : {"", "-", "+1", " 1", "1 ", "1a", "0x", "--1", "a"})
		EXPECT_FALSE(IsInteger(text)) << text;
	EXPECT_TRUE(IsWholeNumber("18446744073709551615"));
	for (const char *text : {"18446744073709551616", "-1", "", "0x1", "1 "})
		EXPECT_FALSE(IsWholeNumber(text)) << text;
}

} // namespace
