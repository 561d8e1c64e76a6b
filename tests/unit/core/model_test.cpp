#include "kit/files.h"

#include <vunkcore/error.h>
#include <vunkcore/model.h>

#include <gtest/gtest.h>

#include <filesystem>

#include <sys/stat.h>

namespace {

class Model : public testing::Test {
protected:
	void SetUp() override
	{
		if (!std::filesystem::exists("/run/zevotuned-lab"))
			GTEST_SKIP() << "writes to " VUNKC_MODEL_FILE "; runs inside of tests/lab/enter only";
		VUNKCErrSetEx(0x1234, "before", 5);
	}
	void TearDown() override
	{
		if (IsSkipped())
			return;
		std::filesystem::remove_all(VUNKC_MODEL_FILE);
		EXPECT_EQ(VUNKCErrGet(), 0x1234);
		EXPECT_STREQ(VUNKCErrorGetFile(), "before");
		EXPECT_EQ(VUNKCErrorGetLine(), 5);
	}

	static int With(std::string_view text)
	{
		kit::WriteFile(VUNKC_MODEL_FILE, text);
		return VUNKCSupportRAID();
	}
};

TEST_F(Model, SupportsRaidWhenItSaysYes)
{
	EXPECT_EQ(With("support_raid=yes\n"), 1);
	EXPECT_EQ(With("other=\"1\"\nsupport_raid=\"yes\"\n"), 1);
}

TEST_F(Model, AnyOtherValueMeansNo)
{
	for (const char *value : {"no", "", "YES", "Yes", "yes ,", "1", "true", "yess"})
		EXPECT_EQ(With(std::string("support_raid=\"") + value + "\"\n"), 0) << value;
}

TEST_F(Model, AMissingKeyMeansNo)
{
	EXPECT_EQ(With(""), 0);
	EXPECT_EQ(With("SUPPORT_RAID=yes\nsupport_raid2=yes\n"), 0);
}

TEST_F(Model, AMissingFileMeansNo)
{
	std::filesystem::remove_all(VUNKC_MODEL_FILE);
	EXPECT_EQ(VUNKCSupportRAID(), 0);
}

TEST_F(Model, AnUnreadableFileMeansNo)
{
	EXPECT_EQ(With("support_raid=yes\nnonsense\n"), 0);
	std::filesystem::remove(VUNKC_MODEL_FILE);
	std::filesystem::create_directories(VUNKC_MODEL_FILE);
	EXPECT_EQ(VUNKCSupportRAID(), 0);
}

} // namespace
