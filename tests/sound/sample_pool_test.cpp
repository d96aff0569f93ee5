// The sample pool: the byte budget, eviction order and preloads.
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
  openEngine("", "200");  // a slow device: only what the test halts ends
  loadSets();
  settings.samplePoolSizeInByte = 44100 * 3 * 4 + kShortBytes * 3 / 2;
  clock::useManualClock(10000000);
  engine->handleSoundByType(50);  // the oldest, but still playing below
  clock::advanceMillis(10);
  engine->handleSoundByType(30);
  { auto lk = engine->lock(); Mix_HaltChannel(channelOf(30)); }
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

}  // namespace
}  // namespace korvo
