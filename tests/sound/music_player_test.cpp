// The music player: music, fades, ducking and the master volume on the real mixer.
#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace korvo {
namespace {

using Music = test::EngineFixture;

TEST_F(Music, DuckingFollowsTheLowestPlayingSampleAndComesBack) {
  settings.playMusicInLoops = 1;
  openWithSet("200");  // a slow device: nothing ends unless stopped
  // Master 100, neutral gains: music at 100; voice (65) ducks it to 65, a jingle (10)
  // on top to 10; when the jingle has ended it is back at 65, then at 100.
  engine->handleSoundByType(1);
  EXPECT_EQ(100, engine->musicVolume());
  engine->handleSoundByType(20);
  EXPECT_EQ(65, engine->musicVolume());
  EXPECT_EQ(65, engine->getCurrentDucking());
  engine->handleSoundByType(30);
  EXPECT_EQ(10, engine->musicVolume());
  { auto lk = engine->lock(); Mix_HaltChannel(channelOf(30)); }
  ASSERT_TRUE(waitIdle(30));
  drain();
  EXPECT_EQ(65, engine->musicVolume());
  { auto lk = engine->lock(); Mix_HaltChannel(channelOf(20)); }
  ASSERT_TRUE(waitIdle(20));
  drain();
  EXPECT_EQ(100, engine->musicVolume());
  EXPECT_EQ(1, engine->musicIdPlaying());
}

TEST_F(Music, DuckedMusicIsQuieterInTheCapturedOutput) {
  makeSet("one");
  // A nearly silent voice, so the mix during it is the music alone.
  test::writeSineWav(base / "one/voice/20-talk/talk.wav", 0.4, 10, 330);
  openEngine();
  loadSets();
  {
    auto lk = engine->lock();
    engine->index().setDuckingByType(VOICE, 50);
    engine->getSampleForId(20)->ducking = 50;
  }
  settings.playMusicInLoops = 1;
  engine->handleSoundByType(1);
  const uint64_t musicStart = engine->framesMixed();
  ASSERT_TRUE(test::waitFor([&] { return engine->framesMixed() > musicStart + 44100; }));
  engine->handleSoundByType(20);
  ASSERT_TRUE(test::waitFor([&] { return onsets.get(20).size() == 1; }));
  ASSERT_TRUE(waitIdle(20));
  drain();
  EXPECT_EQ(100, engine->musicVolume());
  const uint64_t voiceOnset = onsets.get(20)[0];
  const double before = capturedRms(voiceOnset - 8192, 4096);
  ASSERT_GT(before, 100.0);
  EXPECT_NEAR(0.5, capturedRms(voiceOnset + 2048, 4096) / before, 0.02);
}

TEST_F(Music, FadeSilencesTheMusicAndRemembersItsPosition) {
  settings.playMusicInLoops = 1;
  openWithSet();
  const uint64_t start = engine->framesMixed();
  engine->handleSoundByType(1);
  ASSERT_TRUE(test::waitFor([&] { return engine->framesMixed() > start + 22050; }));
  engine->fadeMusic(200);
  // The fade began at the latest with the pass after this count.
  const uint64_t fadeFrom = engine->framesMixed() + static_cast<uint64_t>(engine->bufferFrames());
  EXPECT_EQ(1, engine->pausedMusicId());
  ASSERT_TRUE(test::waitFor([&] { return engine->musicIdPlaying() == 0; }));
  // The looping music is silent from 200 ms after the fade on.
  EXPECT_LT(capturedRms(fadeFrom + 8820 + 1024, 22050), 1.0);
}

TEST_F(Music, PlayedOnceMusicRunsToItsEnd) {
  settings.playMusicInLoops = 0;
  openWithSet();
  const uint64_t before = engine->framesMixed();
  engine->handleSoundByType(1);
  ASSERT_TRUE(test::waitFor([&] { return engine->musicIdPlaying() == 0; }));
  EXPECT_GE(engine->framesMixed() - before, 44100u * 2 - 2048);
}

TEST_F(Music, PauseResumeAndReplace) {
  makeSet("one");
  test::writeSineWav(base / "one/music/2-other/other.wav", 2.0, 8000, 300);
  settings.playMusicInLoops = 1;  // nothing ends by itself during the checks
  openEngine();
  loadSets();
  engine->handleSoundByType(1);
  engine->pauseMusic();
  EXPECT_EQ(0, engine->musicIdPlaying());
  EXPECT_EQ(1, engine->pausedMusicId());
  test::LogCapture cap;
  engine->resumeMusic(0);  // the same stream goes on without a reload
  EXPECT_FALSE(cap.contains("loaded music"));
  EXPECT_EQ(1, engine->musicIdPlaying());
  EXPECT_EQ(0, engine->pausedMusicId());
  engine->fadeMusic(300);
  engine->resumeMusic(300);  // reload and seek
  EXPECT_TRUE(cap.contains("loaded music"));
  EXPECT_EQ(1, engine->musicIdPlaying());
  engine->fadeMusic(300);
  engine->handleSoundByType(2);  // another music forgets the faded one
  EXPECT_EQ(0, engine->pausedMusicId());
  EXPECT_EQ(2, engine->musicIdPlaying());
  engine->stopMusic();
  EXPECT_EQ(0, engine->musicIdPlaying());
}

TEST_F(Music, VolumeIsStoredClampedAndReachesTheMusic) {
  settings.playMusicInLoops = 1;
  openWithSet();
  int writes = 0;
  std::vector<std::string> display;
  engine->hooks().writeSettings = [&](const std::vector<std::string>&) { writes++; };
  engine->hooks().showDisplayLine = [&](int, int, const std::string& t) { display.push_back(t); };
  EXPECT_EQ(0, engine->setVolume(0));
  EXPECT_EQ(std::vector<std::string>{"M: DATAEAST    V: 0"}, display);
  // Encoder steps clamp to 0..128, are stored, and do not write the display.
  for (auto [from, step, want] : {std::array{10, -3, 0}, std::array{125, 2, 128}}) {
    settings.volume = from;
    engine->adjustVolume(step);
    EXPECT_EQ(want, settings.volume.load());
  }
  EXPECT_EQ(3, writes);
  EXPECT_EQ(1u, display.size());
  engine->handleSoundByType(1);
  engine->setVolume(80);
  EXPECT_EQ(80, engine->musicVolume());
  engine->setVolumeInternal(500);
  EXPECT_EQ(128, engine->musicVolume());
}

}  // namespace
}  // namespace korvo
