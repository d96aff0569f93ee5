// The sample pool and sound set switching.
#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace korvo {
namespace {

using Pool = test::EngineFixture;

// Decoded size of a 0.3 s sample on a 44.1 kHz stereo S16 device.
constexpr unsigned long kShortBytes = 44100 * 3 / 10 * 4;

TEST_F(Pool, EvictionKeepsTheBudgetAndNeverTakesAPlayingSound) {
  makeSet("one");
  test::writeSineWav(base / "one/sfx/50-long/long.wav", 3.0, 3000);
  openEngine("", "5");
  loadSets();
  settings.samplePoolSizeInByte = 44100 * 3 * 4 + kShortBytes * 3 / 2;
  clock::useManualClock(10000000);
  engine->handleSoundByType(50);  // the oldest, but still playing below
  clock::advanceMillis(10);
  engine->handleSoundByType(30);
  ASSERT_TRUE(waitIdle(30));
  drain();
  clock::advanceMillis(10);
  engine->handleSoundByType(40);
  ASSERT_TRUE(engine->isSamplePlaying(50));
  EXPECT_LE(engine->bytesUsedForLoadedSamples(), settings.samplePoolSizeInByte);
  {
    auto lk = engine->lock();
    EXPECT_TRUE(engine->getSampleForId(50)->isLoaded(0)) << "a playing sound was evicted";
    EXPECT_FALSE(engine->getSampleForId(30)->isLoaded(0));
    EXPECT_TRUE(engine->getSampleForId(40)->isLoaded(0));
  }
  // A budget smaller than one sound: everything else goes, the sound still plays.
  engine->stopAllSamples();
  drain();
  settings.samplePoolSizeInByte = 1000;
  engine->handleSoundByType(20);
  EXPECT_TRUE(engine->isSamplePlaying(20));
  auto lk = engine->lock();
  EXPECT_TRUE(engine->getSampleForId(20)->isLoaded(0));
  for (unsigned id : {30u, 40u, 50u}) EXPECT_FALSE(engine->getSampleForId(id)->isLoaded(0)) << id;
}

TEST_F(Pool, PreloadedNeverPlayedGoesFirst) {
  settings.preloadThreshold = 1;  // every sound is preloaded
  openWithSet("1");
  EXPECT_GT(engine->bytesUsedForLoadedSamples(), 5 * kShortBytes);
  EXPECT_EQ(6, engine->countPreloads());
  clock::useManualClock(10000000);
  engine->handleSoundByType(10);
  engine->stopAllSamples();
  drain();
  EXPECT_EQ(1, engine->tryToFreeSamples(99999));
  auto lk = engine->lock();
  EXPECT_TRUE(engine->getSampleForId(10)->isLoaded(0));  // played: kept over unplayed preloads
}

TEST_F(Pool, SwitchAndCycleSetsAndRefuseAVanishedOne) {
  for (const char* n : {"a", "b", "c"}) makeSet(n);
  openEngine();
  int writes = 0;
  engine->hooks().writeSettings = [&](const std::vector<std::string>&) { writes++; };
  loadSets();
  ASSERT_EQ(3, engine->catalogue().maxSoundSets);
  EXPECT_EQ(1, engine->switchToSoundSet(settings.soundSet));  // the current set: nothing
  EXPECT_EQ(1, engine->switchToSoundSet(4));
  const int other = settings.soundSet == 1 ? 2 : 1;
  EXPECT_EQ(0, engine->switchToSoundSet(other));
  EXPECT_EQ(other, settings.soundSet.load());
  EXPECT_GE(writes, 1);
  // Cycling from the last set wraps; music that played restarts in the new set.
  engine->switchToSoundSet(3);
  engine->handleSoundByType(1);
  test::LogCapture cap;
  engine->cycleSoundSet(1);
  EXPECT_EQ(1, settings.soundSet.load());
  EXPECT_TRUE(cap.contains("switching-soundset.ogg"));
  EXPECT_EQ(1, engine->musicIdPlaying());
  EXPECT_EQ(100, engine->musicVolume());
  test::LogCapture quiet;
  engine->cycleSoundSet(3);  // back to the same set: no prompt, no load
  EXPECT_FALSE(quiet.contains("switching-soundset"));
  EXPECT_FALSE(quiet.contains("loading soundset"));
  // A set whose folder went away is refused; the current one keeps playing.
  std::filesystem::remove_all(engine->catalogue().get(2)->basedir);
  test::LogCapture gone;
  EXPECT_EQ(1, engine->switchToSoundSet(2));
  EXPECT_TRUE(gone.contains("is gone"));
  EXPECT_EQ(1, settings.soundSet.load());
  engine->handleSoundByType(10);
  EXPECT_TRUE(engine->isSamplePlaying(10));
  const int r = engine->randomSampleId();
  auto lk = engine->lock();
  EXPECT_NE(nullptr, engine->getSampleForId(r));
}

TEST_F(Pool, NoSoundSetAtAll) {
  openEngine();
  test::LogCapture cap;
  std::vector<std::string> display;
  engine->hooks().showDisplayLine = [&](int, int y, const std::string& t) { display.push_back(strFormat("%d %s", y, t.c_str())); };
  EXPECT_EQ(0, engine->startSoundSets(base.string()));
  EXPECT_TRUE(cap.contains("please-install-sound.ogg"));
  EXPECT_EQ(std::vector<std::string>{"24 NO SOUND FOUND"}, display);
  engine->handleSoundByType(10);
  engine->cycleSoundSet(1);
  EXPECT_TRUE(cap.contains("no soundset to switch to"));
  EXPECT_EQ(-1, engine->randomSampleId());
}

}  // namespace
}  // namespace korvo
