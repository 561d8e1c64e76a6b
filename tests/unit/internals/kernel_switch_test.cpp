#include "btrfs_metadata_cache/kernel_switch.h"

#include "kit/faults.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/pin_volume.h"

#include <vunkcore/error.h>
#include <zevostorage/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

class KernelSwitch : public kit::LabTest {
protected:
	KernelSwitch() { VUNKCErrSetEx(0, "", 0); }

	int Set(bool on) const { return TuneBtrfsVolumeMetadataCacheEnable(volume.kPath, on); }

	kit::PinVolume volume;
	kit::Writes writes;
	kit::Journal journal;
};

TEST_F(KernelSwitch, IsWrittenAsOneDigit)
{
	EXPECT_EQ(Set(true), 0);
	EXPECT_EQ(Set(false), 0);
	EXPECT_EQ(Set(false), 0);
	EXPECT_EQ(writes.Lines(), (Lines{volume.kSwitch + ": 1", volume.kSwitch + ": 0", volume.kSwitch + ": 0"}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(KernelSwitch, IsThatOfTheVolumesUuid)
{
	const std::string other = "/sys/fs/btrfs/22222222-0000-4000-8000-0000000000aa";
	kit::WriteFile(other + "/metadata_cache_enable", "");
	volume.storage.volumes[0].uuid = "22222222-0000-4000-8000-0000000000aa";
	EXPECT_EQ(Set(true), 0);
	EXPECT_EQ(writes.Lines(), Lines{other + "/metadata_cache_enable: 1"});
	EXPECT_EQ(kit::ReadFile(volume.kSwitch), "0\n");
	std::filesystem::remove_all(other);
}

TEST_F(KernelSwitch, FailsOnAKernelWithoutIt)
{
	std::filesystem::remove(volume.kSwitch);
	EXPECT_EQ(Set(true), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp TuneParameterWrite Can't open file " + volume.kSwitch +
	                                 ", errno:No such file or directory[0x0000 :0]"});
	EXPECT_EQ(errno, ENOENT);
	EXPECT_FALSE(std::filesystem::exists(volume.kSwitch)); // a file there would be no switch
}

TEST_F(KernelSwitch, FailsWhereItCannotBeWritten)
{
	const kit::Fault fault("VUNKCWrite");
	EXPECT_EQ(Set(true), -1);
	ASSERT_EQ(journal.Lines().size(), 1u);
	EXPECT_EQ(journal.Lines()[0].find("utils.cpp TuneParameterWrite Failed to set parameter [" + volume.kSwitch +
	                                  " 1], errno:"),
	          0u);
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
}

TEST_F(KernelSwitch, IsNoneOfWhatIsNotBtrfs)
{
	volume.storage.volumes[0].type = ZEVO_FS_BTRFS + 1;
	VUNKCErrSetEx(0x1234, "before", 1);
	EXPECT_EQ(Set(true), -1);
	EXPECT_EQ(VUNKCErrGet(), ZEVO_ERR_NOT_BTRFS);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(writes.Lines(), Lines{});
}

TEST_F(KernelSwitch, FailsWithoutAUuidAndNotAsIfThereWereNoBtrfs)
{
	for (const char *function : {"ZEVOGetFSType", "ZEVOFSGetBTRFSUuid"}) {
		SCOPED_TRACE(function);
		journal.Clear();
		VUNKCErrSetEx(ZEVO_ERR_NOT_BTRFS, "before", 1); // left by another call
		const kit::Fault fault(function);
		EXPECT_EQ(Set(true), -1);
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Failed to get UUID from [" +
		                                 std::string(volume.kPath) + "]\n[0xFA17 fault:1]"});
		EXPECT_EQ(writes.Lines(), Lines{});
	}
}

} // namespace
