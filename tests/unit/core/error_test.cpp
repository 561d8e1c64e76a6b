#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

namespace {

class ErrorStack : public testing::Test {
protected:
	ErrorStack() { VUNKCErrSetEx(0, "", 0); }
};

TEST_F(ErrorStack, IsEmptyInANewThreadAndItsFileIsNeverNull)
{
	VUNKCErrSetEx(5, "here.cpp", 7);
	std::thread([] {
		EXPECT_EQ(VUNKCErrGet(), 0);
		EXPECT_STREQ(VUNKCErrorGetFile(), "");
		EXPECT_EQ(VUNKCErrorGetLine(), 0);
		VUNKCErrSetEx(6, "there.cpp", 8);
	}).join();
	EXPECT_EQ(VUNKCErrGet(), 5);
	EXPECT_STREQ(VUNKCErrorGetFile(), "here.cpp");
	EXPECT_EQ(VUNKCErrorGetLine(), 7);
}

TEST_F(ErrorStack, HoldsTheLastCodeThatWasSet)
{
	VUNKCErrSetEx(VUNKC_ERR_SYNTAX, "/etc/file", 12);
	VUNKCErrSetEx(VUNKC_ERR_TIMEOUT, "lock.cpp", 3);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_TIMEOUT);
	EXPECT_STREQ(VUNKCErrorGetFile(), "lock.cpp");
	EXPECT_EQ(VUNKCErrorGetLine(), 3);
	VUNKCErrSetEx(0, nullptr, 0);
	EXPECT_EQ(VUNKCErrGet(), 0);
	EXPECT_STREQ(VUNKCErrorGetFile(), "");
}

TEST_F(ErrorStack, CopiesTheFileAndLeavesErrnoAlone)
{
	std::string file = "a.cpp";
	errno = ENOSPC;
	VUNKCErrSetEx(1, file.c_str(), 1);
	EXPECT_EQ(errno, ENOSPC);
	file = "b.cpp";
	EXPECT_STREQ(VUNKCErrorGetFile(), "a.cpp");
	VUNKCErrSetEx(2, VUNKCErrorGetFile(), 2); // its own text
	EXPECT_STREQ(VUNKCErrorGetFile(), "a.cpp");
}

TEST_F(ErrorStack, KeepsTheEndOfALongFile)
{
	const std::string path = std::string(3000, 'x') + "/end.cpp";
	VUNKCErrSetEx(1, path.c_str(), 1);
	EXPECT_EQ(VUNKCErrorGetFile(), path.substr(path.size() - 1023));
}

} // namespace
