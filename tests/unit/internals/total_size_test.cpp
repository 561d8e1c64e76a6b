// What only an answer that no kernel gives shows. The exported function is tested in
// unit/library/metadata_size_test.cpp.

#include "kit/fake_btrfs.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>
#include <zevotuned/metadata_cache.h>

#include <gtest/gtest.h>

namespace {

using Lines = std::vector<std::string>;

class TotalSizeTest : public kit::LabTest {
protected:
	TotalSizeTest() { VUNKCErrSetEx(0, "", 0); }

	/// Fails with these lines and leaves the number alone.
	void ExpectFailure(const Lines &lines)
	{
		journal.Clear();
		unsigned long long size = 17;
		EXPECT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(folder.Path().c_str(), &size), -1);
		EXPECT_EQ(size, 17u);
		EXPECT_EQ(journal.Lines(), lines);
	}

	void ExpectTooLarge()
	{
		ExpectFailure({"btrfs_metadata_cache.cpp Failed to get space info with [" + folder.Path() +
		               "] slots [" + std::to_string(btrfs.spaces.size()) + "], errno[75]"});
	}

	/// The kernel says that it has so many spaces when it is first asked.
	void Announce(uint64_t spaces)
	{
		btrfs.afterwards = [spaces](unsigned long, void *argument) {
			auto *const words = static_cast<uint64_t *>(argument);
			if (words[0] == 0)
				words[1] = spaces;
		};
	}

	kit::TempDir folder;
	kit::FakeBtrfs btrfs;
	kit::Journal journal;
};

TEST_F(TotalSizeTest, MoreSpacesThanThereCanBeFailWithoutALine)
{
	btrfs.spaces = {{4, 1, 0}};
	// More than there are bytes; as many as make the size of the request a small number again; more than there can be.
	for (const uint64_t spaces : {UINT64_MAX, UINT64_MAX / 24, UINT64_MAX / 24 + 1, uint64_t{4097}}) {
		VUNKCErrSetEx(0, "", 0);
		Announce(spaces);
		ExpectFailure({});
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_NO_MEMORY);
	}
	EXPECT_EQ(btrfs.requests.size(), 4u); // none with slots
}

TEST_F(TotalSizeTest, SizesThatNoNumberHoldsFail)
{
	btrfs.spaces = {{4 | 32, 1ULL << 63, 0}};
	ExpectTooLarge();
	btrfs.spaces = {{4, 1, 0}, {2, UINT64_MAX, 0}};
	ExpectTooLarge();
	btrfs.spaces = {{4, UINT64_MAX - 16, 0}}; // with what stood in the number before
	ExpectTooLarge();
}

TEST_F(TotalSizeTest, TheLargestNumberIsNoFailure)
{
	btrfs.spaces = {{4, UINT64_MAX - 17, 0}};
	unsigned long long size = 17;
	EXPECT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(folder.Path().c_str(), &size), 0);
	EXPECT_EQ(size, UINT64_MAX);
}

} // namespace
