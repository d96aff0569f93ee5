#include "soundsets/unzip.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/log.h"
#include "support/testutil.h"
#include "support/zip_builder.h"

namespace korvo {
namespace {

namespace fs = std::filesystem;

using test::makeZip;

std::vector<std::string> treeOf(const fs::path& root) {
  std::vector<std::string> out;
  for (auto& e : fs::recursive_directory_iterator(root)) out.push_back(e.path().lexically_relative(root).string());
  std::sort(out.begin(), out.end());
  return out;
}

TEST(Zip, PackThenUnpackKeepsTheTreeSkippingHiddenDirectories) {
  test::TempDir tmp;
  fs::path src = tmp / "set";
  test::writeFile(src / "music/1-theme/a.ogg", "AAAA");
  test::writeFile(src / "sfx/2-boom/b.ogg", std::string(100000, 'b'));  // many 100-byte blocks
  test::writeFile(src / ".hidden-file", "h");
  test::writeFile(src / ".git/config", "secret");
  fs::create_directories(src / "empty");
  std::string archive = (tmp / "set.zip").string();
  ASSERT_EQ(pack_zip(archive.c_str(), src.c_str()), 0);

  fs::path out = tmp / "out";
  fs::create_directories(out);
  ASSERT_EQ(unzip(archive.c_str(), out.c_str()), UNZIP_OK);
  EXPECT_EQ(treeOf(out), (std::vector<std::string>{".hidden-file", "empty", "music", "music/1-theme",
                                                   "music/1-theme/a.ogg", "sfx", "sfx/2-boom", "sfx/2-boom/b.ogg"}));
  EXPECT_EQ(test::readFile(out / "sfx/2-boom/b.ogg"), std::string(100000, 'b'));
  EXPECT_EQ(fs::status(out / "music/1-theme/a.ogg").permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
  // Entries without directory entries get their parents made.
  makeZip(archive = (tmp / "a.zip").string(), {{"music/1-a/x.ogg", "xx"}});
  ASSERT_EQ(unzip(archive.c_str(), (tmp / "t").c_str()), UNZIP_OK);
  EXPECT_EQ(test::readFile(tmp / "t/music/1-a/x.ogg"), "xx");
  // Packing never overwrites an existing archive.
  const std::string existing = test::readFile(archive);
  test::LogCapture cap;
  EXPECT_NE(pack_zip(archive.c_str(), src.c_str()), 0);
  EXPECT_TRUE(cap.contains("open zip archive:"));
  EXPECT_EQ(test::readFile(archive), existing);
}

TEST(ZipBadInput, EntriesLeavingTheTargetAreRefusedBeforeAnythingIsWritten) {
  for (std::string evil : {"../evil.txt", "/tmp/korvo-abs-evil.txt", "ok/../../evil.txt", ".."}) {
    test::TempDir tmp;
    std::string archive = (tmp / "evil.zip").string();
    makeZip(archive, {{"good.txt", "fine"}, {evil, "pwned"}});
    fs::path target = tmp / "deep/target";
    fs::create_directories(target);
    test::LogCapture cap;
    EXPECT_EQ(unzip(archive.c_str(), target.c_str()), UNZIP_DEST_CREATE) << evil;
    EXPECT_TRUE(cap.contains("leaves the target directory")) << evil;
    EXPECT_TRUE(treeOf(target).empty()) << evil;
    EXPECT_FALSE(fs::exists(tmp / "deep/evil.txt"));
    EXPECT_FALSE(fs::exists(tmp / "evil.txt"));
    EXPECT_FALSE(fs::exists("/tmp/korvo-abs-evil.txt"));
  }
}

TEST(ZipBadInput, NotAnArchiveAndDamagedEntries) {
  test::TempDir tmp;
  test::writeFile(tmp / "junk.zip", "this is not a zip archive at all");
  test::LogCapture cap;
  EXPECT_EQ(unzip((tmp / "junk.zip").c_str(), tmp.str().c_str()), UNZIP_ARCHIVE);
  EXPECT_TRUE(cap.contains("can't open zip archive `"));
  // Damage the stored bytes of the second entry: its checksum fails.
  std::string archive = (tmp / "crc.zip").string();
  makeZip(archive, {{"a.txt", "first file"}, {"b.txt", std::string(5000, 'z')}});
  std::string bytes = test::readFile(archive);
  auto at = bytes.find("b.txt");
  ASSERT_NE(at, std::string::npos);
  bytes[at + 5 + 10] = static_cast<char>(bytes[at + 5 + 10] ^ 0x55);
  test::writeFile(archive, bytes);
  fs::path target = tmp / "t";
  fs::create_directories(target);
  test::writeFile(target / "b.txt", "keep me");
  EXPECT_EQ(unzip(archive.c_str(), target.c_str()), UNZIP_ENTRY_READ);
  EXPECT_TRUE(cap.contains("zip corrupt?"));
  // Nothing of a failed unpack stays: not the entry before the damaged one, not the
  // staging directory.
  EXPECT_EQ(treeOf(target), (std::vector<std::string>{"b.txt"}));
  EXPECT_EQ(test::readFile(target / "b.txt"), "keep me");
  EXPECT_EQ(treeOf(tmp.path()), (std::vector<std::string>{"crc.zip", "junk.zip", "t", "t/b.txt"}));
  // The same into a target that does not exist yet: it is not made.
  EXPECT_EQ(unzip(archive, (tmp / "fresh").string()), UNZIP_ENTRY_READ);
  EXPECT_FALSE(fs::exists(tmp / "fresh"));
}

TEST(ZipBadInput, LinksInTheTargetAreNeitherFollowedNorReplaced) {
  test::TempDir tmp, elsewhere;
  fs::path target = tmp / "sets";
  test::writeFile(target / "keep.txt", "mine");
  test::writeFile(elsewhere / "secret.txt", "theirs");
  fs::create_directory_symlink(elsewhere.path(), target / "linked");
  fs::create_symlink(elsewhere / "secret.txt", target / "secret.txt");
  const std::string archive = (tmp / "a.zip").string();
  for (const char* entry : {"linked/music/1-a/x.ogg", "secret.txt", "linked"}) {
    makeZip(archive, {{"new/a.ogg", "A"}, {entry, "pwned"}});
    test::LogCapture cap;
    EXPECT_EQ(unzip(archive, target.string()), UNZIP_DEST_CREATE) << entry;
    EXPECT_TRUE(cap.contains("symbolic link")) << entry;
    EXPECT_EQ(treeOf(target), (std::vector<std::string>{"keep.txt", "linked", "secret.txt"})) << entry;
    EXPECT_EQ(treeOf(elsewhere.path()), std::vector<std::string>{"secret.txt"});
    EXPECT_EQ(test::readFile(elsewhere / "secret.txt"), "theirs");
  }
  // A file where the target has a directory is refused the same way.
  makeZip(archive, {{"new/a.ogg", "A"}, {"keep.txt/x", "x"}});
  EXPECT_EQ(unzip(archive, target.string()), UNZIP_DEST_CREATE);
  EXPECT_FALSE(fs::exists(target / "new"));
  // A clean archive merges: existing files stay, same names are replaced.
  makeZip(archive, {{"new/a.ogg", "A"}, {"keep.txt", "replaced"}});
  ASSERT_EQ(unzip(archive, target.string()), UNZIP_OK);
  EXPECT_EQ(test::readFile(target / "new/a.ogg"), "A");
  EXPECT_EQ(test::readFile(target / "keep.txt"), "replaced");
  EXPECT_EQ(treeOf(tmp.path()), (std::vector<std::string>{"a.zip", "sets", "sets/keep.txt", "sets/linked",
                                                          "sets/new", "sets/new/a.ogg", "sets/secret.txt"}));
}

TEST(ZipPaths, RefusesAbsoluteAndClimbingNamesOnly) {
  for (const char* ok : {"a/b.ogg", "a..b/c", "./a"}) EXPECT_TRUE(isContainedPath(ok)) << ok;
  for (const char* bad : {"/etc/passwd", "a/../../b", "a/.."}) EXPECT_FALSE(isContainedPath(bad)) << bad;
}

}  // namespace
}  // namespace korvo
