// The set switcher: switching, cycling, refusing a vanished set, no set at all, and a
// switch that never waits for its spoken announcement.
#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace korvo {
namespace {

using Sets = test::EngineFixture;

TEST_F(Sets, SwitchAndCycleSetsAndRefuseAVanishedOne) {
  settings.playMusicInLoops = 1;  // the music still plays when the cycle looks
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
  // The music comes back once the prompt has played.
  ASSERT_TRUE(waitPromptsIdle());
  ASSERT_TRUE(test::waitFor([&] { return engine->musicIdPlaying() == 1; }));
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
  ASSERT_TRUE(test::waitFor([&] { return !onsets.get(10).empty(); }));
  const int r = engine->randomSampleId();
  auto lk = engine->lock();
  EXPECT_NE(nullptr, engine->getSampleForId(r));
}

TEST_F(Sets, NoSoundSetAtAll) {
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

// The announcement ("soundset", the number, "ready") is queued: the switch returns at
// once, the engine lock is free, and commands play while it is spoken.
TEST_F(Sets, ASwitchReturnsWhileItsAnnouncementPlays) {
  makeSet("a");
  makeSet("b");
  openEngine("", "200");  // a slow device: a prompt lasts many seconds
  engine->setAnnounceSoundSet(true);
  loadSets();
  const int other = settings.soundSet == 1 ? 2 : 1;
  test::LogCapture cap;
  EXPECT_EQ(0, engine->switchToSoundSet(other));
  EXPECT_EQ(1, engine->checkPlaying());
  EXPECT_GE(engine->prompts().queued(), 3);
  EXPECT_TRUE(cap.contains(strFormat("sounds/%d.ogg", other)));
  engine->handleSoundByType(10);
  EXPECT_TRUE(engine->isSamplePlaying(10));
  // The main loop's duty returns at once too.
  engine->updateSound(static_cast<unsigned>(millis()));
  EXPECT_GE(engine->prompts().queued(), 3);
}

}  // namespace
}  // namespace korvo
