// The channel table: entries, generations and reports on their own, then channel choice
// on the real mixer.
#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace korvo {
namespace {

TEST(ChannelTable, FinishReportsTheIdAndGenerationAndFreesTheEntry) {
  std::atomic<uint64_t> frames{0};
  ChannelTable t(frames);
  EXPECT_EQ(kChannelIdle, t.id(3));
  EXPECT_EQ(kChannelIdle, t.id(-1));
  EXPECT_EQ(kChannelIdle, t.id(kMixChannels));
  t.beginPlay(3, 10);
  const uint32_t first = t.generation(3);
  EXPECT_EQ(10u, t.id(3));
  EXPECT_TRUE(t.isPlaying(10));
  t.beginPlay(3, 10);  // a restart on the same channel
  EXPECT_EQ(first + 1, t.generation(3));
  uint32_t gen = 0;
  EXPECT_EQ(10u, t.finish(3, &gen));
  EXPECT_EQ(first + 1, gen);
  EXPECT_FALSE(t.isPlaying(10));
  EXPECT_EQ(kChannelIdle, t.finish(3, &gen));  // a second report finds the entry free
  t.beginPlay(4, 20);
  t.abortPlay(4);
  EXPECT_FALSE(t.isPlaying(20));
  t.beginPlay(5, 30);
  EXPECT_EQ(30u, t.clear(5));
  t.beginPlay(6, 40);
  t.clearAll();
  EXPECT_FALSE(t.isPlaying(40));
}

using Channels = test::EngineFixture;

TEST_F(Channels, RestartStaysOnItsChannelAndOldReportLeavesNewPlayAlone) {
  makeSet("one");
  openEngine("", "200");  // a slow device: no sample ends during the test
  loadSets();
  engine->handleSoundByType(10);
  const int ch = channelOf(10);
  ASSERT_GE(ch, 0);
  engine->handleSoundByType(20);
  EXPECT_NE(ch, channelOf(20));
  // Restart while playing: same channel; the halted play's report is stale.
  engine->handleSoundByType(10);
  EXPECT_EQ(ch, channelOf(10));
  ASSERT_GE(drain(), 1);
  EXPECT_TRUE(engine->isSamplePlaying(10));
  { auto lk = engine->lock(); EXPECT_EQ(ch, engine->getSampleForId(10)->isplayingonchannel); }
  engine->stopAllSamples();
  drain();
  auto lk = engine->lock();
  EXPECT_EQ(AudioSample::kNotPlaying, engine->getSampleForId(10)->isplayingonchannel);
}

TEST_F(Channels, ElevenChannelsThenNoFreeChannel) {
  for (int i = 0; i < 12; i++)
    test::writeSineWav(base / "full" / strFormat("sfx/%d-s%d/s.wav", 100 + i, i), 0.5, 3000);
  std::filesystem::create_directories(base / "full" / "music");
  openEngine("", "200");
  loadSets();
  for (int i = 0; i < 11; i++) engine->handleSoundByType(100 + i);
  for (int ch = 0; ch < kMixChannels; ch++) EXPECT_NE(kChannelIdle, engine->idPlayingOnChannel(ch));
  test::LogCapture cap;
  engine->handleSoundByType(111);
  EXPECT_TRUE(cap.contains("no free channel for sample 111"));
  EXPECT_FALSE(engine->isSamplePlaying(111));
}

}  // namespace
}  // namespace korvo
