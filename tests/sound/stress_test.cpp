// Concurrent commands, set switches, volume changes and main-loop calls against the
// running service thread and audio thread. Under ThreadSanitizer this must report
// nothing; in any build it must neither crash nor lose track of the channels.
#include <SDL2/SDL_thread.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>

#include "engine_fixture.h"

namespace korvo {
namespace {

using Stress = test::EngineFixture;

TEST_F(Stress, BusHttpSwitchesAndVolumeAtOnce) {
  makeSet("a");
  makeSet("b");
  settings.samplePoolSizeInByte = 200000;  // evictions happen all the time
  openEngine("/dev/null", "0");
  Configuration cfg(settings);
  const std::string va = (dir.path() / "va.ini").string();
  engine->hooks().writeSettings = [&](const std::vector<std::string>& extra) { cfg.writeSettings(va.c_str(), extra); };
  int luaCalls = 0;  // written by whichever thread runs the effects
  settings.luaEnabled = 1;
  engine->hooks().setLuaGlobal = [&](const char*, int) { luaCalls++; };
  loadSets();
  engine->startSoundServiceThread();
  std::atomic<bool> stop{false};
  const unsigned ids[] = {1, 10, 11, 20, 30, 40, 77};
  std::vector<std::thread> threads;
  std::array<std::atomic<int>, 4> rounds{};
  // Runs `step(i)` for i = 0, 1, ... until stopped, pausing `pause` between steps so the
  // threads interleave at their own paces.
  auto spawn = [&](std::chrono::microseconds pause, std::function<void(int)> step) {
    std::atomic<int>& done = rounds[threads.size()];
    threads.emplace_back([&stop, &done, pause, step] {
      for (int i = 0; !stop; i++) {
        step(i);
        done.fetch_add(1);
        std::this_thread::sleep_for(pause);
      }
      SDL_TLSCleanup();  // SDL's per-thread error state of threads it did not create
    });
  };
  using us = std::chrono::microseconds;
  spawn(us(300), [&](int i) { engine->soundHandler(ids[i % 7]); });  // bus capture
  spawn(us(500), [&](int i) {  // HTTP: direct plays, volume, reads of the index
    engine->handleSoundByTypeWithIdx(static_cast<int>(ids[i % 7]), i % 3 == 0 ? 0 : -1, i % 5 == 0 ? 60 : -1);
    engine->setVolume(60 + i % 60);
    auto lk = engine->lock();
    for (auto& node : engine->index().samplesMap()) (void)node.value->lastused;
  });
  spawn(us(15000), [&](int i) {  // set switches, direct and through the ring
    if (i % 2)
      engine->switchToSoundSet(1 + i % 2);
    else
      engine->ring().queuePut(engine->ring().buildRequest(STOP_ALL));
  });
  spawn(us(1000), [&](int) {  // main loop and keyboard
    engine->updateSound(static_cast<unsigned>(millis()));
    engine->adjustVolume(1);
    engine->dumpWhatsPlaying();
  });
  // Every thread has run a fair number of rounds against the others (HTTP and the main
  // loop are the slow ones: each volume change writes va.ini).
  const bool ran = test::waitFor([&] { return rounds[0] >= 500 && rounds[1] >= 25 && rounds[2] >= 40 && rounds[3] >= 25; }, 60000);
  stop = true;
  for (auto& t : threads) t.join();
  ASSERT_TRUE(ran);
  engine->stopSoundServiceThread();
  EXPECT_GT(luaCalls, 0);
  engine->stopAllSamples();
  drain();
  for (int ch = 0; ch < kMixChannels; ch++) EXPECT_EQ(kChannelIdle, engine->idPlayingOnChannel(ch));
  auto lk = engine->lock();
  for (auto& node : engine->index().samplesMap()) EXPECT_EQ(AudioSample::kNotPlaying, node.value->isplayingonchannel);
}

}  // namespace
}  // namespace korvo
