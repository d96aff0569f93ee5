// Runs the platform tests. Defined here so the binary links whether or not the test
// helper also links gtest's own main (the linker then takes this one).
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
