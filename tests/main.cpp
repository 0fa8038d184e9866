// main() of the GoogleTest programs. A program that skipped a test ends with 77, so that ctest reports it as skipped
// rather than passed.
#include <gmock/gmock.h>

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  const int result = RUN_ALL_TESTS();
  const bool skipped = testing::UnitTest::GetInstance()->skipped_test_count() > 0;
  return result == 0 && skipped ? 77 : result;
}
