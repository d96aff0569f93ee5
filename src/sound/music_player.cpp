#include "sound/music_player.h"

#include "base/log.h"
#include "base/stringutil.h"
#include "sound/audio_output.h"
#include "sound/channel_table.h"
#include "sound/sample_pool.h"

namespace korvo {

MusicPlayer::MusicPlayer(EngineContext& ctx, const AudioOutput& out, const ChannelTable& channels,
                         const SamplePool& pool)
    : ctx_(ctx), out_(out), channels_(channels), pool_(pool) {}

void MusicPlayer::play(int id, int ms, int idx, double pos) {
  AudioSample* s = ctx_.sample(id);
  if (!s || s->samples.empty()) return;
  if (music_ && idPlaying() == id) {
    LOG(LEVEL_DEBUG, "Music %d '%s' is already playing.", id, s->name.c_str());
    return;
  }
  if (ctx_.settings.fadeSfxOnMusicChange) fadeRunningEffects();
  const int n = static_cast<int>(s->samples.size());
  if (idx == -1)
    idx = chooseVariant(s);
  else if (idx < -1)
    idx = 0;
  else if (idx > n - 1)
    idx = n - 1;
  if (!out_.isOpen()) return;
  haltStream();
  music_.reset();
  if (RWopsHandle rw = pool_.open(s, idx)) music_.reset(Mix_LoadMUS_RW(rw.release(), 1));
  if (!music_) {
    LOG(LEVEL_ERROR, "error loading music %d, '%s', error: %s", id, s->name.c_str(), Mix_GetError());
    return;
  }
  const std::string& file = s->samples[static_cast<std::size_t>(idx)];
  LOG(LEVEL_DEBUG, "loaded music from '%s'", file.c_str());
  const int loops = ctx_.settings.playMusicInLoops ? -1 : 1;
  // The id is recorded before the start so that a music ending at once is seen ending;
  // the volume goes first so the first mixing pass already has it.
  setIdPlaying(id);
  applyVolume(id);
  int rc;
  if (pos > 0.01)
    rc = Mix_FadeInMusicPos(music_.get(), loops, ms > 0 ? ms : 1, pos);
  else if (ms >= 1)
    rc = Mix_FadeInMusic(music_.get(), loops, ms);
  else
    rc = Mix_PlayMusic(music_.get(), loops);
  if (rc != 0) {
    LOG(LEVEL_ERROR, "error playing music %d '%s', error: %s", id, s->name.c_str(), Mix_GetError());
    setIdPlaying(0);
    return;
  }
  if (pausedId_ != 0 && pausedId_ != id) resetFaded(id);
  LOG(LEVEL_DEBUG, "Playing Music id=%d, '%s:%d' gain:%u, from %s", id, s->name.c_str(), idx, s->gain, file.c_str());
  if (ctx_.settings.shakerEnabled && !s->shakersequence.empty() && ctx_.hooks.playbackShakerSequence)
    ctx_.defer([&hooks = ctx_.hooks, seq = s->shakersequence] { hooks.playbackShakerSequence(seq); });
}

void MusicPlayer::resetFaded(int newId) {
  LOG(LEVEL_DEBUG, "reset faded music %d, start new %d", pausedId_, newId);
  pausedId_ = 0;
}

void MusicPlayer::setIdPlaying(int id) {
  idPlaying_.store(id);
  if (ctx_.settings.luaEnabled && ctx_.hooks.setLuaGlobal)
    ctx_.defer([&hooks = ctx_.hooks, id] { hooks.setLuaGlobal("musicPlayingId", id); });
}

void MusicPlayer::onStreamFinished() {
  idPlaying_.store(0, std::memory_order_release);
  promptOnStream_.store(0, std::memory_order_release);
}

// Halting (rather than freeing a fading music) keeps the mixer from blocking until a
// fade-out has run its course.
void MusicPlayer::haltStream() {
  if (out_.isOpen() && (Mix_PlayingMusic() || Mix_PausedMusic())) Mix_HaltMusic();
}

void MusicPlayer::release() {
  if (music_ && !promptOnStream()) haltStream();
  music_.reset();
}

void MusicPlayer::stop() {
  if (!music_ || idPlaying() == 0) return;
  haltStream();
  music_.reset();
  setIdPlaying(0);
}

void MusicPlayer::pause() {
  if (!music_ || idPlaying() == 0) return;
  pausedPos_ = Mix_GetMusicPosition(music_.get());
  Mix_PauseMusic();
  pausedId_ = idPlaying();
  setIdPlaying(0);
}

void MusicPlayer::fade(int ms) {
  if (!music_ || idPlaying() == 0 || !Mix_PlayingMusic()) return;
  pausedPos_ = Mix_GetMusicPosition(music_.get());
  Mix_FadeOutMusic(ms);
  pausedId_ = idPlaying();
  LOG(LEVEL_DEBUG, "fading out music: %d", pausedId_);
}

void MusicPlayer::resume(int ms) {
  if (!music_ || pausedId_ == 0) return;
  const int id = pausedId_;
  if (ms != 0) {
    // A fade-out may still be running: start afresh rather than find it "already playing".
    haltStream();
    music_.reset();
    play(id, ms, -1, pausedPos_);
  } else {
    Mix_ResumeMusic();
    setIdPlaying(id);
    applyVolume(id);
  }
  pausedId_ = 0;
}

// ---- effect fades ----

void MusicPlayer::fadeChannel(int ch, int ms, const AudioSample* s) {
  LOG(LEVEL_DEBUG, "Fading out channel %d for %d ms, playing '%s'", ch, ms, s->name.c_str());
  Mix_FadeOutChannel(ch, ms);
}

void MusicPlayer::fadeJingleSingle(int ms) {
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = channels_.id(ch);
    if (id == kChannelIdle) continue;
    const AudioSample* s = ctx_.sample(static_cast<int>(id));
    if (s && (s->type == JINGLE || s->type == SINGLE)) {
      LOG(LEVEL_DEBUG, "fading out %s on channel %d", audioTypeName(s->type), ch);
      Mix_FadeOutChannel(ch, ms);
    }
  }
}

void MusicPlayer::fadeRunningEffects() {
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = channels_.id(ch);
    if (id == kChannelIdle) continue;
    const AudioSample* s = ctx_.sample(static_cast<int>(id));
    if (s && (s->type == SFX || s->type == JINGLE || s->type == SINGLE))
      fadeChannel(ch, ctx_.settings.fadeSfxOnMusicChangeTime, s);
  }
}

void MusicPlayer::fadeType(int ms, int type) {
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = channels_.id(ch);
    if (id == kChannelIdle) continue;
    const AudioSample* s = ctx_.sample(static_cast<int>(id));
    if (s && s->type == type) fadeChannel(ch, ms, s);
  }
}

// ---- ducking and volume ----

int MusicPlayer::currentDucking() const {
  if (!ctx_.index.duckingIsActive()) return 100;
  int ducking = 100;
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = channels_.id(ch);
    if (id == kChannelIdle) continue;
    const AudioSample* s = ctx_.sample(static_cast<int>(id));
    if (s && static_cast<int>(s->ducking) < ducking) ducking = static_cast<int>(s->ducking);
  }
  return ducking;
}

void MusicPlayer::applyVolume(int id) {
  const AudioSample* s = ctx_.sample(id);
  if (!s) {
    LOG(LEVEL_ERROR, "setMusicVolume: no music sample for %d found", id);
    return;
  }
  const int musicVol = volumeForSample(ctx_, s, -1);
  const int ducking = currentDucking();
  const int vol = static_cast<int>(static_cast<float>(musicVol) * static_cast<float>(ducking) / 100.0f);
  LOG(LEVEL_DEBUG, "setMusicVolume to %d (musicVol=%d, ducking=%d)", vol, musicVol, ducking);
  setStreamVolume(vol);
}

void MusicPlayer::checkDucking(int ch) {
  if (ch == -1)
    LOG(LEVEL_DEBUG, "sample starts playing on channel %d", ch);
  else
    LOG(LEVEL_DEBUG, "channel %d has finished", ch);
  const int music = idPlaying();
  if (music > 0) applyVolume(music);
}

void MusicPlayer::setStreamVolume(int v) {
  if (v < 0) v = 0;
  if (v > MIX_MAX_VOLUME) v = MIX_MAX_VOLUME;
  if (out_.isOpen()) Mix_VolumeMusic(v);
}

int MusicPlayer::streamVolume() const { return out_.isOpen() ? Mix_VolumeMusic(-1) : 0; }

}  // namespace korvo
