#include "kit/lab.h"

namespace {

constexpr int kSkipped = 77;

} // namespace

// A program of which a test was skipped does not count as passed: its exit status is that of a skip.
int main(int argc, char **argv)
{
	testing::InitGoogleTest(&argc, argv);
	kit::RequireLab();
	const int result = RUN_ALL_TESTS();
	const bool skipped = testing::UnitTest::GetInstance()->skipped_test_count() > 0;
	return result == 0 && skipped ? kSkipped : result;
}
