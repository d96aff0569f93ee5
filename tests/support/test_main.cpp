#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
  // Values already in the environment win, so a developer can point a run elsewhere.
  setenv("SDL_AUDIODRIVER", "dummy", 0);
  setenv("KORVO_SOURCE_DIR", KORVO_TEST_SOURCE_DIR, 0);
  setenv("KORVO_BINARY_DIR", KORVO_TEST_BINARY_DIR, 0);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
