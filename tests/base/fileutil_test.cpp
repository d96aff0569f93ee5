// The crash-safe writer's temporaries: one naming scheme, and a clean-up at start that
// removes what interrupted writes left and nothing else.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

#include "base/fileutil.h"
#include "support/testutil.h"

namespace fs = std::filesystem;
using namespace korvo;

namespace {

TEST(Temporaries, TheWritersNamesAreRecognisedAndNothingElse) {
  const std::string tmpl = temporaryNameFor("/base/set/va.ini");
  EXPECT_EQ(tmpl, "/base/set/va.ini.tmpXXXXXX");
  EXPECT_TRUE(isOwnTemporary("va.ini.tmpa1B2c3"));
  EXPECT_TRUE(isOwnTemporary("demo.xsnd.tmpZZZZZZ"));
  for (const char* other : {"va.ini", "notes.tmp", ".tmpabcdef", "x.tmpabcde", "x.tmpabc-ef", "x.tmpabcdefg",
                            "dir/x.tmpabcdef", "x.TMPabcdef"})
    EXPECT_FALSE(isOwnTemporary(other)) << other;
}

TEST(Temporaries, StaleOnesAreRemovedDownToTheGivenDepthOnly) {
  test::TempDir base;
  // What power cuts left: beside va.ini, in a set, in a sound's directory.
  const fs::path leftovers[] = {base / "va.ini.tmpAbC123", base / "set1" / "config.ini.tmp000001",
                                base / "set1" / "sfx" / "10-beep" / "beep.txt.tmpqwerty",
                                base / ".upload.tmpU1p2L3",                    // a cut upload
                                base / ".unpack.tmpZ1p2Z3" / "set2" / "music" / "1.ogg"};  // a cut unpack
  for (const auto& p : leftovers) test::writeFile(p, std::string(1000, 'x'));
  // What must stay: real files, look-alikes, a visible directory with a temporary's name, and
  // a temporary deeper than the clean-up looks.
  const fs::path keep[] = {base / "va.ini", base / "set1" / "notes.tmp", base / "set1" / "x.tmpab",
                           base / "a" / "b" / "c" / "d" / "deep.tmpABCDEF"};
  for (const auto& p : keep) test::writeFile(p, "keep");
  fs::create_directories(base / "odd.tmpDIRDIR");

  test::LogCapture cap;
  EXPECT_EQ(removeStaleTemporaries(base.str(), 3), 5);
  for (const auto& p : leftovers) EXPECT_FALSE(fs::exists(p)) << p;
  EXPECT_FALSE(fs::exists(base / ".unpack.tmpZ1p2Z3"));
  for (const auto& p : keep) EXPECT_TRUE(fs::exists(p)) << p;
  EXPECT_TRUE(fs::is_directory(base / "odd.tmpDIRDIR"));
  EXPECT_TRUE(cap.contains("removed stale temporary file " + (base / "va.ini.tmpAbC123").string()));
  EXPECT_EQ(removeStaleTemporaries((base / "missing").string(), 3), 0);
}

TEST(Temporaries, TheAtomicWriterLeavesNoneBehind) {
  test::TempDir dir;
  const std::string target = (dir / "va.ini").string();
  ASSERT_EQ(writeFileAtomic(target, "volume=10\n"), 0);
  ASSERT_EQ(writeFileAtomic(target, "volume=11\n"), 0);
  for (const auto& e : fs::directory_iterator(dir.path()))
    EXPECT_FALSE(isOwnTemporary(e.path().filename().string())) << e.path();
  EXPECT_EQ(test::readFile(target), "volume=11\n");
}

}  // namespace
