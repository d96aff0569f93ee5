#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "soundsets/catalogue.h"
#include "storage_fixture.h"

namespace korvo {
namespace {

using test::LogCapture;
using test::TempDir;
using test::writeFile;
namespace fs = std::filesystem;

TEST(Catalogue, FindsSetsByTypeInDirectoryOrder) {
  TempDir base;
  for (const char* f : {"a.xsnd", ".hidden.xsnd", "c.XSND", "readme.txt", "both/altsound.csv"}) writeFile(base / f, "x");
  for (const char* d : {"b/music", "both/music", "notaset/sfx", ".trash/music"}) fs::create_directories(base / d);
  SoundSetCatalogue cat;
  cat.searchSoundSets(base.str());
  ASSERT_EQ(cat.maxSoundSets, 3);
  // Directory order is the file system's: compare with a plain listing.
  std::vector<std::string> expectedOrder;
  for (auto& e : fs::directory_iterator(base.path())) {
    std::string n = e.path().filename().string();
    if (n == "a.xsnd" || n == "b" || n == "both") expectedOrder.push_back(n);
  }
  for (int i = 1; i <= 3; ++i) {
    const SoundSet* s = cat.get(i);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->name, expectedOrder[static_cast<std::size_t>(i - 1)]);
    EXPECT_EQ(s->basedir, base.str() + "/" + s->name);
    EXPECT_EQ(s->type, s->name == "a.xsnd" ? XSNDFILE : s->name == "b" ? PINSOUND : ALTSOUND);
  }
  EXPECT_FALSE(cat.isValidSoundSetIndex(0) || cat.isValidSoundSetIndex(4));
  EXPECT_EQ(cat.get(0), nullptr);
  EXPECT_EQ(cat.clampIndex(7), 3);
  EXPECT_EQ(cat.clampIndex(-2), 1);
}

TEST(Catalogue, AltSoundTablesAreFoundUnderEveryNameAndCase) {
  TempDir base;
  for (const char* f : {"upper/G-SOUND.CSV", "lower/g-sound.csv", "mixed/AltSound.csv", "plain/altsound.csv",
                        "inionly/altsound.ini", "inionly/readme.csv"})
    writeFile(base / f, "ID\n");
  SoundSetCatalogue cat;
  cat.searchSoundSets(base.str());
  std::set<std::string> names;
  for (int i = 1; i <= cat.maxSoundSets; ++i) {
    EXPECT_EQ(cat.get(i)->type, ALTSOUND) << cat.get(i)->name;
    names.insert(cat.get(i)->name);
  }
  EXPECT_EQ(names, (std::set<std::string>{"upper", "lower", "mixed", "plain"}));
  // A listed pack also loads under its upper-case table name.
  writeFile(base / "upper/G-SOUND.CSV", "ID,TYPE,GAIN,DUCKING_PROFILE,FNAME\n0x05,callout,50,0,A.OGG\n");
  writeFile(base / "upper/a.ogg", "x");
  for (int i = 1; i <= cat.maxSoundSets; ++i) {
    if (cat.get(i)->name != "upper") continue;
    Settings s;
    SampleIndex idx(s);
    ASSERT_EQ(idx.initSamples(*cat.get(i), 0), 0);
    ASSERT_NE(idx.getSampleForId(5), nullptr);
    EXPECT_EQ(idx.getSampleForId(5)->type, VOICE);
    EXPECT_EQ(idx.getSampleForId(5)->samples, std::vector<std::string>{base.str() + "/upper/a.ogg"});
  }
}

TEST(Catalogue, AtMostTenAndUnreadableBase) {
  TempDir base;
  for (int i = 0; i < 11; ++i) fs::create_directories(base / ("set" + std::to_string(i)) / "music");
  SoundSetCatalogue cat;
  cat.searchSoundSets(base.str());
  EXPECT_EQ(cat.maxSoundSets, 10);
  LogCapture cap;
  cat.searchSoundSets(base.str() + "/vanished");
  EXPECT_EQ(cat.maxSoundSets, 0);
  EXPECT_TRUE(cap.contains("failed open dir " + base.str() + "/vanished"));
  EXPECT_EQ(cat.clampIndex(3), 1);
}

TEST(Catalogue, RemoveByTypeNeverFollowingALink) {
  TempDir base, elsewhere;
  writeFile(base / "pin/music/1-a/a.ogg", "x");
  writeFile(base / "box.xsnd", "x");
  writeFile(base / "alt/altsound.csv", "ID\n");
  writeFile(elsewhere / "music/1-a/a.ogg", "keep");
  fs::create_directory_symlink(elsewhere.path(), base / "linked");
  SoundSetCatalogue cat;
  std::vector<int> switched;
  cat.switchToSoundSet = [&](int n) { switched.push_back(n); };
  cat.searchSoundSets(base.str());
  ASSERT_EQ(cat.maxSoundSets, 4);
  auto numberOf = [&](const std::string& name) {
    for (int i = 1; i <= cat.maxSoundSets; ++i)
      if (cat.get(i)->name == name) return i;
    return 0;
  };
  EXPECT_EQ(cat.removeSoundSet(0, base.str()), 1);
  EXPECT_EQ(cat.removeSoundSet(5, base.str()), 1);
  EXPECT_TRUE(switched.empty());

  EXPECT_EQ(cat.removeSoundSet(numberOf("alt"), base.str()), 0);
  EXPECT_TRUE(fs::exists(base / "alt/altsound.csv"));  // a table set's files stay
  EXPECT_EQ(cat.maxSoundSets, 3);
  EXPECT_EQ(numberOf("alt"), 0);
  EXPECT_NE(cat.get(3), nullptr);  // renumbered without a gap
  EXPECT_EQ(cat.removeSoundSet(numberOf("box.xsnd"), base.str()), 0);
  EXPECT_FALSE(fs::exists(base / "box.xsnd"));
  EXPECT_EQ(cat.removeSoundSet(numberOf("pin"), base.str()), 0);
  EXPECT_FALSE(fs::exists(base / "pin"));
  EXPECT_EQ(cat.removeSoundSet(numberOf("linked"), base.str()), 0);
  EXPECT_FALSE(fs::exists(base / "linked"));
  EXPECT_TRUE(fs::exists(elsewhere / "music/1-a/a.ogg"));
  EXPECT_EQ(switched, (std::vector<int>{1, 1, 1, 1}));
}

TEST(IdMapping, LinesPlainFilesGzipAndDamagedGzip) {
  TempDir dir;
  Settings s;
  SampleIndex idx(s);
  const std::pair<const char*, int> lines[] = {{"1F 900123", 1}, {"# 1F 900124", 0}, {"1F", -1},
                                               {"zz 900125", -1}, {"gain_music=10", 0}, {"20 900123", 1}};
  for (auto [line, rc] : lines) EXPECT_EQ(idx.handleLine(line), rc) << line;
  EXPECT_EQ(idx.hashesMap().mapSize(), 1);
  EXPECT_EQ(*idx.hashesMap().mapGet1(900123), 0x20u);  // a later line replaces

  writeFile(dir / "config.mellosnd", "1F 900123\r\njunk line\r\n\r\n#2 3\r\n2a 900124");
  LogCapture cap;
  EXPECT_EQ(idx.loadHashMapping(dir.str()), 1);
  EXPECT_EQ(idx.hashesMap().mapSize(), 2);
  EXPECT_EQ(*idx.hashesMap().mapGet1(900124), 0x2Au);
  EXPECT_TRUE(cap.contains("line 2 is not a mapping, ignored"));
  EXPECT_TRUE(cap.contains("loaded 2 hashes"));
  test::writeGzip(dir / "4711.mellosnd", "0a 1\n0b 2\n");
  EXPECT_EQ(idx.loadHashMappingByName(dir.str(), "4711.mellosnd"), 1);
  EXPECT_EQ(idx.hashesMap().mapSize(), 2);  // the previous mapping is gone
  EXPECT_EQ(*idx.hashesMap().mapGet1(2), 0x0Bu);
  writeFile(dir / "5.mellosnd", "0c 3\n");  // named by a number, yet not gzip: still read
  EXPECT_EQ(idx.loadHashMappingByName(dir.str(), "5.mellosnd"), 1);
  EXPECT_EQ(idx.hashesMap().mapSize(), 1);
  EXPECT_EQ(idx.loadHashMappingByName(dir.str(), "none.mellosnd"), 0);
  EXPECT_EQ(idx.hashesMap().mapSize(), 0);
  EXPECT_TRUE(cap.contains("no hashes found in '" + dir.str() + "/none.mellosnd'"));
  // A damaged stream is refused calmly.
  test::writeGzip(dir / "6.mellosnd", std::string(5000, '\n') + "0d 4\n");
  std::string bytes = test::readFile(dir / "6.mellosnd");
  bytes.resize(bytes.size() / 2);
  bytes.back() ^= 0x55;
  writeFile(dir / "6.mellosnd", bytes);
  EXPECT_EQ(idx.loadHashMappingByName(dir.str(), "6.mellosnd"), 1);
  EXPECT_EQ(idx.hashesMap().mapSize(), 0);
}

TEST(MoveSound, RefusesWhatWouldLoseOrMisplaceData) {
  test::SetFixture f;
  f.sound("sfx/1-a");
  f.sound("voice/1-a", {"other.ogg"});  // the target already exists
  f.sound("jingle/2-b");
  ASSERT_EQ(f.load(), 0);
  AudioSample* s = f.idx.getSampleForId(1);
  AudioType before = s->type;
  EXPECT_EQ(f.idx.moveSoundToGroup(1, before == VOICE ? SFX : VOICE), 1);
  EXPECT_EQ(s->type, before);
  EXPECT_TRUE(fs::exists(f.dir("sfx/1-a/a.ogg")));
  EXPECT_TRUE(fs::exists(f.dir("voice/1-a/other.ogg")));
  EXPECT_EQ(f.idx.moveSoundToGroup(2, SYSTEM), 1);
  EXPECT_TRUE(fs::exists(f.dir("jingle/2-b")));
  EXPECT_EQ(f.idx.moveSoundToGroup(2, JINGLE), 0);  // unchanged: nothing to do
  EXPECT_EQ(f.idx.moveSoundToGroup(3, JINGLE), 1);
  f.idx.setSetType(XSNDFILE);
  EXPECT_EQ(f.idx.moveSoundToGroup(2, MUSIC), 0);
  EXPECT_TRUE(fs::exists(f.dir("jingle/2-b")));
}

TEST(MoveSound, TypeChangeMovesTheDirectoryUnderABasePathHoldingATypeWord) {
  test::SetFixture f;
  f.set.basedir = (f.tmp / "music" / "sfx-pack").string();
  f.sound("sfx/3-c", {"a.ogg", "b.ogg"});
  fs::create_directories(f.dir("music"));
  ASSERT_EQ(f.load(), 0);
  ASSERT_EQ(f.idx.updateTypeForSample(3, MUSIC), 0);
  AudioSample* s = f.idx.getSampleForId(3);
  EXPECT_EQ(s->type, MUSIC);
  EXPECT_EQ(s->basepath, f.set.basedir + "/music/3-c");
  EXPECT_EQ(s->samples[1], f.dir("music/3-c/b.ogg").string());
  EXPECT_TRUE(fs::exists(f.dir("music/3-c/a.ogg")));
  EXPECT_FALSE(fs::exists(f.dir("sfx/3-c")));
  // Other storage types cannot change a type; unknown sounds are refused.
  EXPECT_EQ(f.idx.updateTypeForSample(5, VOICE), 1);
  f.idx.setSetType(ZIPFILE);
  EXPECT_EQ(f.idx.updateTypeForSample(3, VOICE), 2);
  EXPECT_EQ(s->type, MUSIC);
}

}  // namespace
}  // namespace korvo
