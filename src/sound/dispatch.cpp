// Command dispatch and sample playback: the repeat filter, stop commands, type rules,
// channel choice, gains, the main-loop duties and the per-sample command strings.
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/stringutil.h"
#include "platform/clock.h"
#include "platform/gpio.h"
#include "sound/sdl_sound.h"

namespace korvo {

namespace {
constexpr unsigned kRepeatWindowMs = 99;
constexpr unsigned kShuffleIntervalMs = 180000;
constexpr int kAttractFadeMs = 6000;
}  // namespace

void SoundEngine::soundHandlerExt(unsigned id, int overrideVol) {
  const unsigned long now = millis();
  {
    std::lock_guard lk(repeatMutex_);
    if (static_cast<int>(id) == lastCmdId_ && now - lastCmdTime_ <= kRepeatWindowMs) {
      LOG(LEVEL_WARN, "supressed repeated cmd: %d", static_cast<int>(id));
      return;
    }
    lastCmdId_ = static_cast<int>(id);
    lastCmdTime_ = now;
  }
  SoundServiceRequest req = ring_.buildRequest(HANDLE_SND_CMD);
  req.id = static_cast<int32_t>(id);
  req.volume = overrideVol;
  ring_.queuePut(req);
}

void SoundEngine::handleSoundByTypeWithIdx(int id, int idx, int overrideVol) {
  Lock lk(*this);
  handleSoundLocked(id, idx, overrideVol);
}

void SoundEngine::handleSoundLocked(int id, int idx, int overrideVol) {
  if (sets_.loading()) return;
  AudioSample* s = getSampleForId(id);
  if (!s) {
    if (isStopCommand(id)) {
      LOG(LEVEL_DEBUG, "stop cmd detected %d, stopping music", id);
      music_.stop();
    } else if (hooks_.suppressNotFound && hooks_.suppressNotFound(id)) {
      // control traffic of the board: no warning
    } else {
      LOG(LEVEL_WARN, "sample for id '%d' not found", id);
    }
    return;
  }
  if (settings_.suppressRepeated && s->type != MUSIC && channels_.isPlaying(static_cast<unsigned>(id))) {
    LOG(LEVEL_INFO, "sample %d is already playing, skipping cmd", id);
    return;
  }
  if (idx != -1 && static_cast<unsigned>(idx) >= s->samples.size()) {
    LOG(LEVEL_ERROR, "Sound with id=%d, has only %zu sample, requested idx=%d", id, s->samples.size(), idx);
    return;
  }
  restartAttractTimer();
  playTypeLocked(s, id, idx, overrideVol);
}

// The type rules: jingles fade other jingles and singles (and the music when nothing
// ducks it), singles fade those and the music.
void SoundEngine::playTypeLocked(AudioSample* s, int id, int idx, int overrideVol) {
  switch (s->type) {
    case MUSIC:
      playMusicLocked(id, 0, idx, 0.0);
      break;
    case SFX:
    case VOICE:
      playSampleLocked(id, idx, overrideVol);
      break;
    case JINGLE:
      music_.fadeJingleSingle(300);
      if (!index_.duckingIsActive()) music_.fade(300);
      playSampleLocked(id, idx, overrideVol);
      break;
    case SINGLE:
      music_.fadeJingleSingle(300);
      music_.fade(300);
      playSampleLocked(id, idx, overrideVol);
      break;
    default:
      LOG(LEVEL_ERROR, "requested id %d not found", id);
      break;
  }
}

void SoundEngine::playMusicLocked(int id, int ms, int idx, double pos) {
  const AudioSample* s = getSampleForId(id);
  if (s && !s->serialcmd.empty()) playCommandLocked(s->serialcmd.c_str());
  music_.play(id, ms, idx, pos);
}

void SoundEngine::stopAllSamples() {
  Lock lk(*this);
  stopAllSamplesLocked();
}

void SoundEngine::stopAllSamplesLocked() {
  if (output_.isOpen()) Mix_HaltChannel(-1);
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = channels_.clear(ch);
    if (id == kChannelIdle) continue;
    AudioSample* s = getSampleForId(static_cast<int>(id));
    if (s) s->isplayingonchannel = AudioSample::kNotPlaying;
  }
  // Reports of the halted plays are already on the ring; records whose id the hook
  // took first are cleared here.
  for (auto& node : index_.samplesMap())
    if (node.value) node.value->isplayingonchannel = AudioSample::kNotPlaying;
}

void SoundEngine::playSample(int id, int idx, int overrideVol) {
  Lock lk(*this);
  playSampleLocked(id, idx, overrideVol);
}

int chooseVariant(const AudioSample* s) {
  const int n = static_cast<int>(s->samples.size());
  if (n <= 1) return 0;
  return std::rand() % n;
}

void SoundEngine::playSampleLocked(int id, int idx, int overrideVol) {
  AudioSample* s = getSampleForId(id);
  if (s && !s->serialcmd.empty()) playCommandLocked(s->serialcmd.c_str());
  if (!s || s->samples.empty()) {
    LOG(LEVEL_WARN, "playSample(id=%d, idx=%d) no sample found", id, idx);
    return;
  }
  const int n = static_cast<int>(s->samples.size());
  if (idx == -1)
    idx = chooseVariant(s);
  else if (idx < 0)
    idx = 0;
  else if (idx > n - 1)
    idx = n - 1;
  s->syncChunks();
  if (!s->isLoaded(static_cast<std::size_t>(idx))) {
    pool_.load(id);
    if (!s->isLoaded(static_cast<std::size_t>(idx))) return;  // the pool logged why
  }
  if (!output_.isOpen()) return;
  const unsigned uid = static_cast<unsigned>(id);
  const int ch = channels_.findChannelFor(s->isplayingonchannel, uid);
  if (ch < 0) {
    LOG(LEVEL_WARN, "no free channel for sample %d", id);
    return;
  }
  // A restart: halt the old play first, so its finished report carries the old
  // generation and the table is free for the new one.
  if (Mix_Playing(ch)) Mix_HaltChannel(ch);
  channels_.attachOnsetEffect(ch);
  channels_.beginPlay(ch, uid);
  const int vol = getVolumeForSample(s, overrideVol);
  // The volume goes first so the very first mixing pass already has it.
  Mix_Volume(ch, vol);
  if (Mix_PlayChannel(ch, s->chunk[static_cast<std::size_t>(idx)].get(), 0) < 0) {
    channels_.abortPlay(ch);
    LOG(LEVEL_ERROR, "error playing sample %d: %s", id, Mix_GetError());
    return;
  }
  LOG(LEVEL_DEBUG, "playing sample %d:%d vol: %u->%d '%s' '%s' on channel %d", id, idx, s->gain, vol,
      audioTypeName(s->type), s->name.c_str(), ch);
  s->lastused = static_cast<uint32_t>(millis());
  s->isplayingonchannel = ch;
  music_.checkDucking(-1);
  if (settings_.shakerEnabled && !s->shakersequence.empty() && hooks_.playbackShakerSequence)
    ctx_.defer([this, seq = s->shakersequence] { hooks_.playbackShakerSequence(seq); });
}

int volumeForSample(const EngineContext& ctx, const AudioSample* sample, int overideVol) {
  const int type = sample->type >= 0 && sample->type < kAudioTypeCount ? sample->type : 0;
  const int typeGain = ctx.index.gainByType(type);
  int relative;
  if (overideVol == -1)
    relative = static_cast<int>(sample->gain) + typeGain - 100;
  else
    relative = overideVol - 50;
  int res = ctx.settings.volume.load() + relative;
  // Never 0: a sample is never silenced through gains alone.
  if (res < 1) res = 1;
  if (res > MIX_MAX_VOLUME) res = MIX_MAX_VOLUME;
  LOG(LEVEL_DEBUG, "getVolumeForSample: sample->gain: %u, gainByType: %d, res: %d ", sample->gain, typeGain, res);
  return res;
}

int SoundEngine::getVolumeForSample(const AudioSample* sample, int overideVol) {
  return volumeForSample(ctx_, sample, overideVol);
}

int SoundEngine::isStopCommand(int id) const {
  const int n = settings_.noOfStopCmds < kMaxStopCmds ? settings_.noOfStopCmds : kMaxStopCmds;
  for (int i = 0; i < n; i++)
    if (settings_.stopCmds[i] == id) return 1;
  return 0;
}

void SoundEngine::restartAttractTimer() { lastSoundCmd_.store(static_cast<unsigned>(millis())); }

void SoundEngine::updateSound(unsigned now) {
  // The loop runs at 1 kHz: decide lock-free whether anything is due.
  const int burst = gesture_.poll(now);
  const unsigned last = lastSoundCmd_.load();
  const bool attract = last != 0 && now > last && now - last > static_cast<unsigned>(settings_.attractTimeOut);
  if (burst <= 1 && !attract && !shuffleModeHint_.load(std::memory_order_relaxed)) return;
  Lock lk(*this);
  updateSoundLocked(burst, now);
}

void SoundEngine::updateSoundLocked(int burst, unsigned now) {
  // A single zero is no gesture: it has been forgotten by the poll.
  if (burst > 1) gestureEndedLocked(burst, now);
  if (shuffleMode_ && now - shuffleTimer_ > kShuffleIntervalMs) {
    shuffleTimer_ = now;
    // The step is the current number plus one: the set reached scatters, by design.
    SoundServiceRequest req = ring_.buildRequest(SWITCH_SOUNDSET);
    req.id = settings_.soundSet.load() + 1;
    ring_.queuePut(req);
  }
  const unsigned last = lastSoundCmd_.load();
  if (now > last && now - last > static_cast<unsigned>(settings_.attractTimeOut) && last != 0) {
    LOG(LEVEL_INFO, "%u - %u > %u -> fading background music", now, last,
        static_cast<unsigned>(settings_.attractTimeOut));
    lastSoundCmd_.store(0);
    music_.fade(kAttractFadeMs);
  }
}

// Five zeros start shuffle mode; two to four step that many sets minus one.
void SoundEngine::gestureEndedLocked(int count, unsigned now) {
  if (count == 5) {
    shuffleMode_ = 1;
    shuffleModeHint_.store(true, std::memory_order_relaxed);
    shuffleTimer_ = now;
    music_.setStreamVolume(20);
    prompts_.play("shuffle.ogg");
    return;
  }
  SoundServiceRequest req = ring_.buildRequest(SWITCH_SOUNDSET);
  req.id = count - 1;
  ring_.queuePut(req);
  shuffleMode_ = 0;
  shuffleModeHint_.store(false, std::memory_order_relaxed);
}

// ---- command strings ----

void SoundEngine::playCommand(const char* cmd) {
  Lock lk(*this);
  playCommandLocked(cmd);
}

void SoundEngine::playCommandLocked(const char* cmd1) {
  if (!cmd1) return;
  std::string copy(cmd1);
  std::vector<std::string_view> pieces;
  std::string_view rest(copy);
  bool first = true;
  while (true) {
    const std::size_t semi = rest.find(';');
    std::string_view piece = rest.substr(0, semi);
    if (!first) {
      while (!piece.empty() && (piece.front() == ' ' || piece.front() == '\t')) piece.remove_prefix(1);
    }
    first = false;
    if (piece.empty()) break;
    processCmd(std::string(piece).c_str());
    if (semi == std::string_view::npos) break;
    rest.remove_prefix(semi + 1);
  }
}

void SoundEngine::processCmd(const char* cmd) {
  LOG(LEVEL_DEBUG, "processing cmd %s", cmd);
  const std::string text(cmd);
  if (isPortCmd(cmd, settings_)) {
    ctx_.defer([this, text] { sendPortCmd(text.c_str()); });
  } else if (isI2CCmd(cmd)) {
    ctx_.defer([this, text] { sendI2CCmd(text.c_str()); });
  } else if (settings_.luaEnabled && hooks_.luaRun) {
    // Lua decides what reaches the serial line and the socket (its send()).
    ctx_.defer([this, text] { hooks_.luaRun(text); });
  } else {
    // Lua off, or no interpreter running: the text goes out as it is.
    if (settings_.enableSerial && hooks_.serialSend) ctx_.defer([this, text] { hooks_.serialSend(text); });
    if (!settings_.sms_address.empty() && hooks_.sendSocketCmd) ctx_.defer([this, text] { hooks_.sendSocketCmd(text); });
  }
}

int SoundEngine::isPortCmd(const char* cmd, const Settings& s) {
  return std::strncmp(cmd, "PORT", 4) == 0 && s.enable_port_extender ? 1 : 0;
}

int SoundEngine::isI2CCmd(const char* cmd) { return std::strncmp(cmd, "I2C", 3) == 0 ? 1 : 0; }

void SoundEngine::sendPortCmd(const char* cmd) {
  if (std::strncmp(cmd, "PORTSEQ ", 8) == 0) {
    if (hooks_.addPortPinSequence) hooks_.addPortPinSequence(cmd + 8);
    return;
  }
  if (std::strncmp(cmd, "PORT ", 5) == 0) {
    int pin = 0;
    char state[32] = {0};
    if (std::sscanf(cmd, "PORT %d %31s", &pin, state) != 2) {
      LOG(LEVEL_ERROR, "failed to parse cmd: '%s'", cmd);
      return;
    }
    if (hooks_.setPortExtenderPin) hooks_.setPortExtenderPin(pin, equalsIgnoreCase(state, "ON"));
    return;
  }
  LOG(LEVEL_ERROR, "unknown port cmd: '%s'", cmd);
}

int SoundEngine::sendI2CCmd(const char* cmd) {
  std::vector<std::string_view> words;
  std::string copy(cmd);
  split(copy, " ", words, 10);
  if (words.size() < 2 || !equalsIgnoreCase(words[0], "I2CWRITE") || words[1].empty()) {
    LOG(LEVEL_ERROR, "I2C command not recognized: %s", cmd);
    return -1;
  }
  const int address = readInt(words[1]);
  const int fd = hooks_.gpio ? hooks_.gpio->wiringPiI2CSetup(address) : -1;
  if (fd < 0) {
    LOG(LEVEL_ERROR, "open i2c device 0x%x failed", address);
    return -1;
  }
  for (std::size_t i = 2; i < words.size(); i++) {
    if (words[i].empty()) continue;
    const int byte = readInt(words[i]);
    if (hooks_.gpio->wiringPiI2CWrite(fd, byte) < 0)
      LOG(LEVEL_ERROR, "writing to i2c device 0x%x failed", address);
    else
      LOG(LEVEL_DEBUG, "writing 0x%02x to i2c dev 0x%02x", byte, address);
  }
  return 0;
}

int SoundEngine::randomSampleId() {
  Lock lk(*this);
  const int n = index_.samplesMap().mapSize();
  if (n <= 0) return -1;
  const int r = std::rand() % n;
  int i = 0;
  for (auto& node : index_.samplesMap())
    if (i++ == r) return static_cast<int>(node.key);
  return -1;
}

void SoundEngine::dumpWhatsPlaying() {
  Lock lk(*this);
  const int music = music_.idPlaying();
  if (music != 0) {
    const AudioSample* m = getSampleForId(music);
    LOG(LEVEL_DEBUG, "music playing %d, %s", music, m ? m->name.c_str() : "");
  }
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = channels_.id(ch);
    if (id == kChannelIdle) continue;
    const AudioSample* s = getSampleForId(static_cast<int>(id));
    LOG(LEVEL_DEBUG, "sample playing %d, %s %s on ch %d", static_cast<int>(id), s ? audioTypeName(s->type) : "?",
        s ? s->name.c_str() : "", ch);
  }
}

}  // namespace korvo
