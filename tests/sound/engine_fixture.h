// Shared set-up of the sound engine tests: WAV files of known level, PINSOUND sets in
// a temporary base directory, an engine on SDL's disk driver whose captured output
// (raw S16LE stereo) is read back, and onset frames recorded by the frame counter.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "core/settings.h"
#include "base/stringutil.h"
#include "platform/clock.h"
#include "sound/protocol_handlers.h"
#include "sound/sdl_sound.h"
#include "support/engine_setup.h"
#include "support/testutil.h"
#include "support/wav.h"

namespace korvo::test {

// Records the onset frame of every sample start (audio thread -> test thread).
struct OnsetLog {
  std::mutex m;
  std::map<unsigned, std::vector<uint64_t>> byId;
  static void observe(void* user, unsigned id, int, uint64_t frame) {
    auto* self = static_cast<OnsetLog*>(user);
    std::lock_guard lk(self->m);
    self->byId[id].push_back(frame);
  }
  std::vector<uint64_t> get(unsigned id) {
    std::lock_guard lk(m);
    return byId[id];
  }
  // The latest onset frame of any sample, 0 before the first.
  uint64_t last() {
    std::lock_guard lk(m);
    uint64_t latest = 0;
    for (const auto& [id, frames] : byId)
      for (uint64_t f : frames) latest = std::max(latest, f);
    return latest;
  }
};

// The engine side of the protocol handlers, recording each request as text (any thread).
class RequestLog : public ProtocolEngine {
 public:
  void soundHandler(unsigned id) override { add("snd " + std::to_string(id)); }
  void postSoundCommand(int id) override { add("cmd " + std::to_string(id)); }
  void postSetVolume(int v) override { add("vol " + std::to_string(v)); }
  void postStopAll() override { add("stop"); }
  void countVolumeZero(unsigned) override { add("zero"); }
  std::vector<std::string> all() { std::lock_guard lock(m_); return got_; }

 private:
  void add(std::string s) { std::lock_guard lock(m_); got_.push_back(std::move(s)); }
  std::mutex m_;
  std::vector<std::string> got_;
};

// SDL's disk driver writing to `file`; `delay` is its pause per buffer in ms ("0": as fast as it can).
inline void useDiskAudio(const std::string& file, const char* delay = "0") {
  setenv("SDL_AUDIODRIVER", "disk", 1);
  setenv("SDL_DISKAUDIOFILE", file.c_str(), 1);
  setenv("SDL_DISKAUDIODELAY", delay, 1);
}

class EngineFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    initQuietSettings();
    base = dir.path() / "sets";
    std::filesystem::create_directories(base);
  }

  void TearDown() override {
    engine.reset();
    clock::useRealClock();
  }

  // A PINSOUND set "name" under the base directory: music 1 (2 s), sfx 10 (0.3 s),
  // sfx 11 (0.3 s, two variants), voice 20 (0.4 s), jingle 30 (0.3 s), single 40.
  std::filesystem::path makeSet(const std::string& name, int amplitude = 8000) {
    const auto s = base / name;
    writeSineWav(s / "music/1-theme/theme.wav", 2.0, amplitude, 220);
    writeSineWav(s / "sfx/10-beep/beep.wav", 0.3, amplitude, 880);
    writeSineWav(s / "sfx/11-twin/a.wav", 0.3, amplitude, 660);
    writeSineWav(s / "sfx/11-twin/b.wav", 0.3, amplitude, 770);
    writeSineWav(s / "voice/20-talk/talk.wav", 0.4, amplitude, 330);
    writeSineWav(s / "jingle/30-fanfare/fanfare.wav", 0.3, amplitude, 990);
    writeSineWav(s / "single/40-over/over.wav", 0.3, amplitude, 550);
    return s;
  }

  // Opens the engine on the disk driver, capturing to out.raw (or `file`).
  void openEngine(const std::string& file = "", const char* delay = "0") {
    rawPath = file.empty() ? (dir.path() / "out.raw").string() : file;
    useDiskAudio(rawPath, delay);
    engine = newTestEngine(dir.path());
    engine->setOnsetObserver(&OnsetLog::observe, &onsets);
    ASSERT_EQ(0, engine->soundInit(settings.volume, base.c_str(), 2, 44100));
  }

  void loadSets() { ASSERT_GT(engine->startSoundSets(base.string()), 0); }

  // Set "one" on an open engine: the common start of a test.
  void openWithSet(const char* delay = "0") {
    makeSet("one");
    openEngine("", delay);
    loadSets();
  }

  // Runs every pending request as the service thread would.
  int drain() {
    int n = 0;
    SoundServiceRequest req;
    while (engine->ring().queueGet(&req, 0) == 1) {
      engine->doSoundService(req);
      n++;
    }
    return n;
  }

  // Takes every pending request and returns the ids of the SWITCH_SOUNDSET ones (the
  // audio thread's reports of prompt and sample ends come at any time).
  std::vector<int> takeSetSwitches() {
    std::vector<int> ids;
    SoundServiceRequest req;
    while (engine->ring().queueGet(&req, 0) == 1)
      if (req.type == SWITCH_SOUNDSET) ids.push_back(req.id);
    return ids;
  }

  // The main loop's call after `ms` more milliseconds of the manual clock.
  void tick(unsigned ms) {
    clock::advanceMillis(ms);
    engine->updateSound(static_cast<unsigned>(millis()));
  }

  int channelOf(unsigned id) {
    for (int ch = 0; ch < kMixChannels; ch++)
      if (engine->idPlayingOnChannel(ch) == id) return ch;
    return -1;
  }

  bool waitIdle(unsigned id) {
    return waitFor([&] { return !engine->isSamplePlaying(id); });
  }

  // Every queued prompt has played.
  bool waitPromptsIdle() {
    return waitFor([&] { return engine->prompts().idle(); });
  }

  // RMS of the captured left channel over [frame, frame + frames) of the frame counter.
  // The first call waits until those frames, and a second past every onset so far, are
  // mixed, then closes the device so the file is complete: the disk driver writes
  // silence before the mixer first runs, and the file's frames beyond the counted ones
  // are that lead-in.
  double capturedRms(uint64_t frame, uint64_t frames) {
    if (engine->enableAudio()) {
      const uint64_t until = std::max(frame + frames, onsets.last() + 44100) + 4096;
      const bool mixed = waitFor([&] { return engine->framesMixed() > until; });
      EXPECT_TRUE(mixed) << "frames " << frame << "+" << frames << " never mixed";
      engine->soundShutdown();
    }
    std::error_code ec;
    const uint64_t fileFrames = std::filesystem::file_size(rawPath, ec) / 4;
    const uint64_t leadIn = fileFrames > engine->framesMixed() ? fileFrames - engine->framesMixed() : 0;
    std::ifstream in(rawPath, std::ios::binary);
    in.seekg(static_cast<std::streamoff>((leadIn + frame) * 4));
    std::vector<int16_t> buf(frames * 2);
    in.read(reinterpret_cast<char*>(buf.data()), static_cast<std::streamsize>(buf.size() * 2));
    double sum = 0;
    const std::size_t got = static_cast<std::size_t>(in.gcount()) / 4;
    EXPECT_EQ(frames, got) << "the capture ends before frame " << frame + frames;
    for (std::size_t i = 0; i < got; i++) sum += static_cast<double>(buf[i * 2]) * buf[i * 2];
    return got ? std::sqrt(sum / static_cast<double>(got)) : 0.0;
  }

  TempDir dir;
  std::filesystem::path base;
  std::string rawPath;
  OnsetLog onsets;
  std::unique_ptr<SoundEngine> engine;
};

}  // namespace korvo::test
