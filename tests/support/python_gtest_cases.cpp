// The entry point of a test library loaded by python_gtest_main.

#include <gtest/gtest.h>

extern "C" __attribute__((visibility("default"))) int sarvode_run_tests(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
