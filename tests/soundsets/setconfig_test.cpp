#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "storage_fixture.h"

namespace korvo {
namespace {

using test::LogCapture;
using test::readFile;
using test::SetFixture;
namespace fs = std::filesystem;

TEST(SetConfig, FilesOverrideInOrderAndScaleGains) {
  SetFixture f;
  f.idx.setGainByType(VOICE, 20);  // left by a previous set, already percent
  f.file("config.ini", "gain_music=15\ngain_sfx = 60\nducking_voice=50\nattract_timeout=9\nshaker_enabled=1\n");
  f.file("config.mellosnd", "gain_sfx=3\nfade_sfx_on_music_change_time=700\n");
  f.idx.readSoundConfig(f.set);
  EXPECT_EQ(f.idx.gainByType(MUSIC), 50);
  EXPECT_EQ(f.idx.gainByType(SFX), 10);      // the second file wins, then 3 * 100 / 30
  EXPECT_EQ(f.idx.gainByType(VOICE), 20);    // not named: untouched, not converted again
  EXPECT_EQ(f.idx.duckingByType(VOICE), 50);
  EXPECT_EQ(f.idx.duckingIsActive(), 1);
  EXPECT_EQ(f.s.attractTimeOut + f.s.shakerEnabled, 10);
  EXPECT_EQ(f.s.fadeSfxOnMusicChangeTime, 700);
  EXPECT_EQ(f.s.fadeSfxOnMusicChange, 0);  // "..._time" is another key
  EXPECT_EQ(f.set.gains[MUSIC], 50u);
  EXPECT_EQ(f.idx.configFileToWrite(), "config.mellosnd");
  EXPECT_EQ(f.idx.configBase(), f.set.basedir);
  // Other set types hold percent; without files the tables stay.
  SetFixture alt, none;
  alt.set.type = ALTSOUND;
  alt.file("config.ini", "gain_music=15\n");
  none.idx.setGainByType(SFX, 70);
  for (SetFixture* g : {&alt, &none}) {
    g->idx.readSoundConfig(g->set);
    EXPECT_EQ(g->idx.configFileToWrite(), "config.ini");
  }
  EXPECT_EQ(alt.idx.gainByType(MUSIC), 15);
  EXPECT_EQ(none.idx.gainByType(SFX), 70);
}

TEST(SetConfig, BadLinesAreIgnoredAndTheVendorWaitsForCaptureToStop) {
  SetFixture f;
  f.file("config.ini",
         "gain_sfx=loud\nducking_voice=150\ngain_music=-4\nvendor=42\n\x01\xff garbage\ngain_sfx2=9\n"
         "preload=1\nvendor=1\nducking_music=70");
  bool captureRuns = true;
  f.idx.hooks().captureStarted = [&] { return captureRuns; };
  LogCapture cap;
  f.idx.readSoundConfig(f.set);
  EXPECT_EQ(f.idx.gainByType(SFX), 50);
  EXPECT_EQ(f.idx.gainByType(MUSIC), 50);
  EXPECT_EQ(f.idx.duckingByType(VOICE), 65);
  EXPECT_EQ(f.idx.duckingByType(MUSIC), 70);  // last line without its line end
  EXPECT_EQ(f.s.preloadThreshold, 1);
  EXPECT_EQ(f.s.protocol.load(), DATAEAST);
  EXPECT_TRUE(cap.contains("value of gain_sfx is not a number"));
  EXPECT_TRUE(cap.contains("value 150 of ducking_voice out of range"));
  EXPECT_TRUE(cap.contains("value 42 of vendor out of range"));
  captureRuns = false;
  f.idx.readSoundConfig(f.set);
  EXPECT_EQ(f.s.protocol.load(), WPC);
}

TEST(SetConfig, TypeTablesWriteBackAndUpdateDefaultSounds) {
  SetFixture f;
  f.sound("sfx/1-default");
  f.sound("sfx/2-own");
  f.file("sfx/2-own/gain.txt", "20");
  f.file("config.ini", "# mine\ngain_sfx=30\ngain_sfx2=1\n");
  int volumeCalls = 0;
  f.idx.hooks().reapplyVolume = [&] { ++volumeCalls; };
  ASSERT_EQ(f.load(), 0);

  EXPECT_EQ(f.idx.setGainByType(SFX, 50), 0);
  EXPECT_EQ(readFile(f.dir("config.ini")), "# mine\ngain_sfx=15\ngain_sfx=15\n");
  EXPECT_EQ(f.idx.getSampleForId(1)->gain, 50u);
  EXPECT_EQ(f.idx.getSampleForId(2)->gain, 66u);
  EXPECT_EQ(volumeCalls, 1);

  LogCapture cap;
  EXPECT_EQ(f.idx.setGainByType(SFX, 101) + f.idx.setGainByType(7, 10) + f.idx.setDuckingByType(-1, 10), 3);
  EXPECT_TRUE(cap.contains("setDuckingByType not valid: type=-1, ducking=10"));
  EXPECT_EQ(readFile(f.dir("config.ini")), "# mine\ngain_sfx=15\ngain_sfx=15\n");

  for (int t = 0; t < kAudioTypeCount; ++t) EXPECT_EQ(f.idx.setDuckingByType(t, 100), 0);
  EXPECT_EQ(f.idx.duckingIsActive(), 0);
  EXPECT_EQ(f.idx.getSampleForId(1)->ducking, 100u);
  EXPECT_NE(readFile(f.dir("config.ini")).find("ducking_voice=100\n"), std::string::npos);
  EXPECT_EQ(f.idx.setDuckingByType(VOICE, 60), 0);
  EXPECT_EQ(f.idx.duckingIsActive(), 1);
}

TEST(SetConfig, EditsNeverReachThePreviousSetsFile) {
  SetFixture f;
  f.sound("sfx/1-a");
  f.file("config.ini", "gain_sfx=15\n");
  ASSERT_EQ(f.load(), 0);
  SoundSet box;
  box.type = XSNDFILE;
  box.basedir = (f.tmp / "vanished.xsnd").string();
  LogCapture cap;
  EXPECT_EQ(f.idx.initSamples(box, 0), 0);
  EXPECT_EQ(f.idx.samplesMap().mapSize(), 0);
  EXPECT_EQ(f.idx.setGainByType(SFX, 90), 0);
  EXPECT_TRUE(cap.contains("config filename is empty for param gain_sfx. can't update."));
  EXPECT_EQ(readFile(f.dir("config.ini")), "gain_sfx=15\n");
}

TEST(SetConfig, UpdateConfigCreatesAppendsAndReplaces) {
  test::TempDir tmp;
  updateConfig(tmp.str(), "config.ini", "gain_music", 12);
  EXPECT_EQ(readFile(tmp / "config.ini"), "# file was auto created by VELT!Audio\ngain_music=12\n");
  test::writeFile(tmp / "config.ini", "a=1\r\nb=2");
  updateConfig(tmp.str(), "config.ini", "c", 3);
  EXPECT_EQ(readFile(tmp / "config.ini"), "a=1\r\nb=2\nc=3\n");
  updateConfig(tmp.str(), "config.ini", "b", 4);
  EXPECT_EQ(readFile(tmp / "config.ini"), "a=1\r\nb=4\nc=3\n");
  // Only the configuration file is ever in the directory: no temporary is left behind.
  EXPECT_EQ(test::namesIn(tmp.path()), std::vector<std::string>{"config.ini"});
}

TEST(SetConfig, PerSoundEditsOfPinsoundSets) {
  SetFixture f;
  f.sound("sfx/1-a");
  f.file("sfx/1-a/GAIN.TXT", "20");
  f.file("sfx/1-a/Serial.Txt", "old");
  ASSERT_EQ(f.load(), 0);
  AudioSample* s = f.idx.getSampleForId(1);

  EXPECT_EQ(f.idx.updateGainForSample(1, "100"), 0);
  EXPECT_EQ(readFile(f.dir("sfx/1-a/GAIN.TXT")), "30");  // the file as found is rewritten
  EXPECT_EQ(s->gain, 100u);
  EXPECT_EQ(f.idx.updateGainForSample(1, "50"), 0);
  EXPECT_FALSE(fs::exists(f.dir("sfx/1-a/GAIN.TXT")));
  EXPECT_TRUE(s->gaindefault);
  EXPECT_EQ(f.idx.updateGainForSample(1, "250"), 0);
  EXPECT_EQ(s->gain, 100u);
  EXPECT_EQ(f.idx.updateGainForSample(1, "loud"), 1);
  EXPECT_EQ(s->gain, 100u);

  EXPECT_EQ(f.idx.updateDuckingForSample(1, "-20"), 0);
  EXPECT_EQ(readFile(f.dir("sfx/1-a/ducking.txt")), "-20");  // as received, stored clamped
  EXPECT_EQ(s->ducking, 0u);
  EXPECT_FALSE(s->duckingdefault);
  EXPECT_EQ(f.idx.updateDuckingForSample(1, "150"), 0);  // clamped to 100: no ducking, no file
  EXPECT_FALSE(fs::exists(f.dir("sfx/1-a/ducking.txt")));

  EXPECT_EQ(f.idx.updateSerialCmdForSample(1, "A B  "), 0);
  EXPECT_EQ(s->serialcmd, "A B");
  EXPECT_FALSE(fs::exists(f.dir("sfx/1-a/serial.txt")));  // one file, under its own name
  EXPECT_EQ(f.idx.updateSerialCmdForSample(1, nullptr), 0);
  EXPECT_EQ(s->serialcmd, "");
  EXPECT_FALSE(fs::exists(f.dir("sfx/1-a/Serial.Txt")));

  EXPECT_EQ(f.idx.updateShakerCmdForSample(1, "10;20"), 0);
  EXPECT_EQ(s->shakersequence, (std::vector<uint32_t>{10, 20}));

  // Name and preload live only in table sets; the result codes differ per edit.
  EXPECT_EQ(f.idx.updateNameForSample(1, "x"), 2);
  EXPECT_EQ(f.idx.updateNameForSample(1, nullptr), 1);
  EXPECT_EQ(f.idx.updateNameForSample(99, "x"), 0);
  EXPECT_EQ(f.idx.updatePreloadForSample(1, "true"), 2);
  EXPECT_EQ(f.idx.updatePreloadForSample(99, "true"), 1);
  EXPECT_EQ(f.idx.updateGainForSample(99, "10"), 1);
}

TEST(SetConfig, PerSoundEditsOfAltsoundSetsGoToTheTable) {
  SetFixture f;
  f.set.type = ALTSOUND;
  f.file("altsound.csv",
         "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME,GROUP,SHAKER,SERIAL,PRELOAD,STOPCMD\n"
         "0x0009,2,80,50,0,0,\"old\",\"intro.ogg\",2,,,0,\n");
  f.file("intro.ogg", std::string(100, 'x'));
  ASSERT_EQ(f.load(), 0);
  AudioSample* s = f.idx.getSampleForId(9);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(f.idx.updateGainForSample(9, "70"), 0);
  EXPECT_EQ(f.idx.updateDuckingForSample(9, "150"), 0);
  EXPECT_EQ(s->ducking, 100u);  // clamped on this path too
  EXPECT_EQ(f.idx.updateNameForSample(9, "Intro"), 0);
  EXPECT_EQ(f.idx.updatePreloadForSample(9, "TRUE"), 0);
  EXPECT_EQ(f.idx.updateShakerCmdForSample(9, "5;6"), 0);
  EXPECT_EQ(f.idx.updateSerialCmdForSample(9, "S9"), 0);
  EXPECT_EQ(f.idx.updateTypeForSample(9, VOICE), 0);
  EXPECT_TRUE(fs::is_empty(f.dir("music")));  // no per-sound files for table sets

  // What was edited is what the table now says.
  SampleIndex again(f.s);
  ASSERT_EQ(again.initSamples(f.set, 0), 0);
  AudioSample* r = again.getSampleForId(9);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(std::tie(r->gain, r->ducking, r->name, r->preload, r->serialcmd, r->type, r->samples),
            std::tie(s->gain, s->ducking, s->name, s->preload, s->serialcmd, s->type, s->samples));
  EXPECT_EQ(std::tie(r->gain, r->name, r->type), std::make_tuple(70u, std::string("Intro"), VOICE));
  EXPECT_EQ(r->shakersequence, (std::vector<uint32_t>{5, 6}));

  // An edit the table refuses leaves the record as it was.
  fs::remove(f.dir("altsound.csv"));
  EXPECT_NE(f.idx.updateNameForSample(9, "Gone"), 0);
  EXPECT_EQ(s->name, "Intro");
}

TEST(SetConfig, ShakerTextWithoutNumbers) {
  std::vector<uint32_t> seq;
  EXPECT_EQ(parseShakerSequence(" ,;\t", seq), 0);
  EXPECT_EQ(parseShakerSequence("-5", seq), 1);
  EXPECT_EQ(seq, (std::vector<uint32_t>{0}));
  EXPECT_EQ(countElements("a,,b;c", ",;"), 3);
}

}  // namespace
}  // namespace korvo
