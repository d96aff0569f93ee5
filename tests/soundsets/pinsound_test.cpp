#include <gtest/gtest.h>

#include <filesystem>

#include "storage_fixture.h"

namespace korvo {
namespace {

using test::LogCapture;
using test::SetFixture;

TEST(PinsoundScan, DirectoryNamesGiveIdAndName) {
  SetFixture f;
  for (const char* d : {"music/0x1F-Theme", "sfx/32-Boom loud" /* the name ends at the first blank */,
                        "sfx/12-" /* no name */, "sfx/13" /* no "-" */, "sfx/4294967295-Max" /* not an id */,
                        "sfx/Foo-1", "Music/40-Wrong" /* type directories match exactly */, "system/41-NotScanned",
                        "voice/0x2a-Hello"})
    f.sound(d);
  ASSERT_EQ(f.load(), 0);
  EXPECT_EQ(f.idx.samplesMap().mapSize(), 3);
  AudioSample* theme = f.idx.getSampleForId(31);
  ASSERT_TRUE(theme && f.idx.getSampleForId(32) && f.idx.getSampleForId(42));
  EXPECT_EQ(test::traits(theme), (test::Traits{MUSIC, 50, 100, "Theme"}));
  EXPECT_EQ(theme->magic, 0u);
  EXPECT_EQ(theme->basepath, f.dir("music/0x1F-Theme").string());
  EXPECT_EQ(f.idx.getSampleForId(32)->name, "Boom");
  EXPECT_EQ(f.idx.getSampleForId(42)->type, VOICE);
  EXPECT_EQ(f.idx.hashOfAllIds(), 31u + 32u + 42u);
  EXPECT_EQ(f.idx.scrambledIds(), 0);
  // The set lists exactly the map's records, in the map's order.
  ASSERT_EQ(f.set.samples.size(), 3u);
  auto keys = f.idx.samplesMap().keys();
  for (std::size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(f.set.samples[i]->id, keys[i]);
}

TEST(PinsoundScan, AudioFilesAndSmallFiles) {
  SetFixture f;
  f.s.preloadThreshold = 150;
  f.idx.setGainByType(SFX, 80);
  f.file("sfx/serial.txt", "T1\n");
  f.sound("voice/6-b");
  f.file("voice/GAIN.txt", "10");
  f.sound("sfx/1-Files", {"._01.ogg", "01.OGG", "01.flac", "b.wav", "c.mp3"}, 200);
  f.sound("sfx/2-Serial", {});
  f.file("sfx/2-Serial/SERIAL.txt", "S1 S2 \t\r\nsecond line\n");
  f.sound("sfx/3-Empty", {"notes.txt"});
  std::vector<std::string> eleven;
  for (char c = 'a'; c < 'a' + 11; ++c) eleven.push_back(std::string(1, c) + ".ogg");
  f.sound("sfx/4-Many", eleven, 10);
  f.file("sfx/4-Many/dontpreload", "");
  f.sound("jingle/5-Tuned", {"a.ogg"}, 100);
  f.file("jingle/5-Tuned/Gain.TXT", " 10\n");
  f.file("jingle/5-Tuned/ducking.txt", "40");
  f.file("jingle/5-Tuned/shaker.TXT", "100, 50;100 x\nignored 7\n");
  LogCapture cap;
  ASSERT_EQ(f.load(), 0);
  EXPECT_TRUE(cap.contains("Found sound directory, but no sound file: " + f.dir("sfx/3-Empty").string()));
  EXPECT_EQ(f.idx.getSampleForId(3), nullptr);
  AudioSample *files = f.idx.getSampleForId(1), *serial = f.idx.getSampleForId(2), *many = f.idx.getSampleForId(4),
              *tuned = f.idx.getSampleForId(5);
  ASSERT_TRUE(files && serial && many && tuned);
  ASSERT_EQ(files->samples.size(), 2u);  // b.wav and c.mp3 only
  EXPECT_EQ(files->chunk.size(), 2u);
  EXPECT_EQ(files->size, 200u);
  EXPECT_TRUE(files->preload);  // larger than the threshold
  EXPECT_TRUE(files->gaindefault && files->duckingdefault);
  EXPECT_EQ(test::traits(files), (test::Traits{SFX, 50, 80, "Files"}));  // the sfx defaults
  EXPECT_TRUE(serial->samples.empty());
  EXPECT_EQ(serial->serialcmd, "S1 S2");
  EXPECT_EQ(many->samples.size(), 10u);
  EXPECT_FALSE(many->preload);
  EXPECT_EQ(test::traits(tuned), (test::Traits{JINGLE, 33, 40, "Tuned"}));
  EXPECT_FALSE(tuned->gaindefault || tuned->duckingdefault);
  EXPECT_FALSE(tuned->preload);  // not above the threshold
  EXPECT_EQ(tuned->shakersequence, (std::vector<uint32_t>{100, 50, 100, 0}));
  // Type directories hold a gain and a serial command of their own.
  EXPECT_EQ(f.idx.gainByType(SFX), 80);  // no file: the old value survives the 0..30 round trip
  EXPECT_EQ(f.idx.gainByType(VOICE), 33);
  EXPECT_EQ(f.idx.serialCmdByType(SFX), "T1");
  EXPECT_EQ(f.idx.serialCmdByType(VOICE), "");
}

TEST(PinsoundScan, GainFileScaleAndBadContent) {
  SetFixture f;
  // Gain files hold 0..30; text keeps the default value but counts as set.
  const std::pair<const char*, unsigned> cases[] = {{"30", 100}, {"45", 100}, {"-3", 0},    {"15", 50},
                                                    {"0", 0},    {"loud", 50}, {"99999999999999", 100}};
  for (unsigned id = 1; id <= std::size(cases); ++id) {
    f.sound("sfx/" + std::to_string(id) + "-g");
    f.file("sfx/" + std::to_string(id) + "-g/gain.txt", cases[id - 1].first);
  }
  LogCapture cap;
  ASSERT_EQ(f.load(), 0);
  for (unsigned id = 1; id <= std::size(cases); ++id) {
    EXPECT_EQ(f.idx.getSampleForId(id)->gain, cases[id - 1].second) << cases[id - 1].first;
    EXPECT_FALSE(f.idx.getSampleForId(id)->gaindefault) << cases[id - 1].first;
  }
  EXPECT_TRUE(cap.contains("no number in " + f.dir("sfx/6-g/gain.txt").string()));
}

TEST(PinsoundScan, NumberedFilesReidDuplicatesCollapseAndAVanishedSetIsEmpty) {
  SetFixture f;
  f.sound("sfx/12-boom", {"200-boom.ogg"});
  f.sound("sfx/13-plain", {"01.ogg"});
  f.sound("sfx/7-first");
  f.sound("voice/0x7-second");
  ASSERT_EQ(f.load(), 0);
  EXPECT_EQ(f.idx.getSampleForId(12), nullptr);
  ASSERT_NE(f.idx.getSampleForId(200), nullptr);
  EXPECT_EQ(f.idx.getSampleForId(200)->magic, 12u);
  EXPECT_EQ(f.idx.haveFilenameNumbers(), 1);
  EXPECT_EQ(f.idx.hashOfAllIds(), 12u + 13u + 7u + 7u);  // directory ids, not file numbers
  EXPECT_EQ(f.idx.samplesMap().mapSize(), 3);  // 200, 13 and one 7
  EXPECT_EQ(f.set.samples.size(), 3u);
  std::filesystem::remove_all(f.set.basedir);
  EXPECT_EQ(f.load(), 0);
  EXPECT_EQ(f.idx.samplesMap().mapSize(), 0);
  EXPECT_TRUE(f.set.samples.empty());
}

TEST(PinsoundScrambled, MappingInSetRemapsAndIsCopied) {
  SetFixture none;
  none.sound("sfx/900001-x");
  LogCapture cap;
  EXPECT_EQ(none.load(), 1);
  EXPECT_TRUE(cap.contains("looks like a scrambled soundset is used, but no mapping provided"));
  EXPECT_EQ(none.idx.scrambledIds(), 1);

  SetFixture f;
  f.sound("sfx/900123-x");
  f.sound("sfx/900124-y");
  f.sound("music/5-unmapped");
  f.file("config.mellosnd", "# mapping\n1F 900123\n20 900124\nvendor=3\n");
  ASSERT_EQ(f.load(1), 0);
  ASSERT_TRUE(f.idx.getSampleForId(31) && f.idx.getSampleForId(0x20));
  EXPECT_EQ(f.idx.getSampleForId(31)->magic, 900123u);
  EXPECT_EQ(f.idx.hashingIsUsed(), 1);
  EXPECT_TRUE(cap.contains("unmapped sample 0000000005"));
  const uint32_t hash = 900123u + 900124u + 5u;
  EXPECT_EQ(f.idx.hashOfAllIds(), hash);
  EXPECT_TRUE(std::filesystem::exists(f.tmp / "configs" / (std::to_string(hash) + ".mellosnd")));
  EXPECT_EQ(f.idx.configFileToWrite(), "config.mellosnd");
  // Without its mapping file the set finds the copy by the id hash; its edits then go
  // to a configuration file of its own.
  std::filesystem::remove(f.dir("config.mellosnd"));
  SampleIndex again(f.s);
  again.setConfigsDir(f.idx.configsDir());
  ASSERT_EQ(again.initSamples(f.set, 0), 0);
  ASSERT_NE(again.getSampleForId(31), nullptr);
  EXPECT_EQ(again.getSampleForId(31)->magic, 900123u);
  EXPECT_EQ(again.configFileToWrite(), "config.ini");
  // A set whose files carry their ids needs no mapping.
  SetFixture g;
  g.sound("sfx/900300-x", {"77-x.ogg"});
  EXPECT_EQ(g.load(), 0);
  EXPECT_NE(g.idx.getSampleForId(77), nullptr);
}

}  // namespace
}  // namespace korvo
