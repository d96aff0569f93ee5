// The music player: the mixer's one music stream, shared by the set's music and the
// spoken prompts. Music start, stop, pause, fades and resume; fades of running effects;
// ducking (the music at the lowest ducking percentage of the samples playing); the
// stream volume.
//
// Threads: engine mutex held for every call, except the lock-free readers and
// `onStreamFinished`, which the music-finished hook calls on the audio thread (or inside
// our own Mix_HaltMusic).
#pragma once

#include <atomic>

#include "base/handles.h"
#include "sound/engine_context.h"

namespace korvo {

class AudioOutput;
class ChannelTable;
class SamplePool;

class MusicPlayer {
 public:
  MusicPlayer(EngineContext& ctx, const AudioOutput& out, const ChannelTable& channels, const SamplePool& pool);
  MusicPlayer(const MusicPlayer&) = delete;
  MusicPlayer& operator=(const MusicPlayer&) = delete;

  // Music `id` (variant idx, -1 random) faded in over `ms` from `pos` seconds; whatever
  // holds the stream (old music or a prompt) stops. The same music already playing is
  // kept.
  void play(int id, int ms, int idx, double pos);
  void stop();
  void pause();
  // Fades the music out, remembering it and its position for `resume`.
  void fade(int ms);
  // The paused or faded music again: at once (ms 0) or reloaded, faded in at its position.
  void resume(int ms);
  // Forgets a paused or faded music (a new one started).
  void resetFaded(int newId);
  int pausedId() const { return pausedId_; }
  // The set is unloading: nothing is remembered for `resume`.
  void forgetPaused() { pausedId_ = 0; }
  // Halts whatever holds the stream; the finished hook runs inside.
  void haltStream();
  // Halts and frees the set's music. A prompt on the stream keeps playing.
  void release();

  void fadeJingleSingle(int ms);
  void fadeRunningEffects();
  void fadeType(int ms, int type);

  int currentDucking() const;
  // The stream at music `id`'s volume, ducked.
  void applyVolume(int id);
  // A sample started (ch -1) or channel ch finished: the music follows the ducking.
  void checkDucking(int ch);
  void setStreamVolume(int v);
  int streamVolume() const;

  // The id of the playing music (0 none), recorded before the mixer starts it.
  void setIdPlaying(int id);
  int idPlaying() const { return idPlaying_.load(std::memory_order_acquire); }
  // 1 while a prompt holds the stream.
  int promptOnStream() const { return promptOnStream_.load(std::memory_order_acquire); }
  void setPromptOnStream(bool on) { promptOnStream_.store(on ? 1 : 0, std::memory_order_release); }
  // The music-finished hook (audio thread): the stream is free.
  void onStreamFinished();

 private:
  void fadeChannel(int ch, int ms, const AudioSample* s);

  EngineContext& ctx_;
  const AudioOutput& out_;
  const ChannelTable& channels_;
  const SamplePool& pool_;
  MusicHandle music_;
  int pausedId_ = 0;
  double pausedPos_ = 0.0;
  std::atomic<int> idPlaying_{0};
  std::atomic<int> promptOnStream_{0};
};

}  // namespace korvo
