// The protocol-specific command handlers between the bus capture and the engine: WPC,
// WPC-DCS and Whitestar commands carry the machine's volume commands, which become
// volume changes (and the volume-zero gesture that switches sound sets); everything
// else is posted to the engine as a sound command. Also the WPC/DCS control ids that
// are dropped silently when the sound set has no entry for them.
//
// Threads: soundWpcHandler / soundWSHandler run on the capture's interrupt thread and
// only post work (the engine's ring and its atomic gesture counters).
#pragma once

#include <atomic>
#include <cstdint>

#include "core/settings.h"

namespace korvo {

// The engine calls the handlers need. The engine implements it; every call only queues
// work for the sound service thread.
class ProtocolEngine {
 public:
  virtual ~ProtocolEngine() = default;
  // The Data East entry: the 99 ms repeat filter, then a HANDLE_SND_CMD request.
  virtual void soundHandler(unsigned id) = 0;
  // A HANDLE_SND_CMD request for `id`, without the repeat filter.
  virtual void postSoundCommand(int id) = 0;
  // A SET_VOLUME request (master volume 0..128).
  virtual void postSetVolume(int volume) = 0;
  // A STOP_ALL request: every sample and the music stop.
  virtual void postStopAll() = 0;
  // One volume command of value 0 at `now`: the volume-zero gesture's counter, which
  // the engine's updateSound turns into a sound set step (or shuffle) after 800 ms of
  // quiet.
  virtual void countVolumeZero(unsigned now) = 0;
};

class SoundEngine;

// ProtocolEngine on the real engine: requests go to its service ring.
class SoundEngineProtocolPort : public ProtocolEngine {
 public:
  explicit SoundEngineProtocolPort(SoundEngine& engine) : engine_(engine) {}
  void soundHandler(unsigned id) override;
  void postSoundCommand(int id) override;
  void postSetVolume(int volume) override;
  void postStopAll() override;
  void countVolumeZero(unsigned now) override;

 private:
  SoundEngine& engine_;
};

class ProtocolHandlers {
 public:
  // `s` supplies the protocol (read at every call: the protocol may change at run time).
  explicit ProtocolHandlers(ProtocolEngine& engine, const Settings& s = settings);

  // The volume carried by a volume command of the protocol in force, else -1.
  int getVolume(const uint8_t* cmd) const;
  void soundWpcHandler(const uint8_t* cmd, int id);
  void soundWSHandler(const uint8_t* cmd, int id);

  // 1 for WPC/DCS control ids (0x6000..0x6FFF, or bits 5..9 all set), with a DEBUG line.
  static int idsToIgnoreForWpc(int id);
  // idsToIgnoreForWpc under WPC and WPCDCS, 0 for every other protocol.
  int suppressNotFound(int id) const;

  int currentWsVolume() const { return currentWsVolume_.load(); }

 private:
  ProtocolEngine& engine_;
  const Settings& settings_;
  std::atomic<int> currentWsVolume_{-1};
};

}  // namespace korvo
