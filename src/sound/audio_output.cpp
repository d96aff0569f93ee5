#include "sound/audio_output.h"

#include <SDL2/SDL.h>
#include <SDL2/SDL_mixer.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "platform/clock.h"
#include "sound/audio_device.h"
#include "sound/channel_table.h"

namespace korvo {

bool AudioOutput::initAudio() {
  if (sdlAudioInit_) return true;
  if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
    LOG(LEVEL_ERROR, "could not init audio: %s, running without audio", SDL_GetError());
    return false;
  }
  sdlAudioInit_ = true;
  Mix_Init(MIX_INIT_OGG | MIX_INIT_MP3);
  return true;
}

void AudioOutput::quitAudio() {
  if (!sdlAudioInit_) return;
  Mix_Quit();
  SDL_QuitSubSystem(SDL_INIT_AUDIO);
  sdlAudioInit_ = false;
}

void AudioOutput::configure(int channels, int frequency) {
  channels_ = channels > 0 ? channels : 2;
  frequency_ = frequency > 0 ? frequency : 44100;
}

void AudioOutput::postMixCallback(void* udata, uint8_t*, int len) {
  auto* o = static_cast<AudioOutput*>(udata);
  const int bpf = o->bytesPerFrame_.load(std::memory_order_relaxed);
  o->framesMixed_.fetch_add(static_cast<uint64_t>(len / bpf), std::memory_order_acq_rel);
  o->lastPassMicros_.store(micros(), std::memory_order_release);
}

int AudioOutput::open(const std::string& device) {
  // The hook goes in before the device opens so the very first pass is counted.
  Mix_SetPostMix(&AudioOutput::postMixCallback, this);
  bytesPerFrame_ = 2 * channels_;
  const char* name = device.empty() ? nullptr : device.c_str();
  int rc = Mix_OpenAudioDevice(frequency_, AUDIO_S16SYS, channels_, bufferFrames_, name, SDL_AUDIO_ALLOW_FREQUENCY_CHANGE);
  const char* driver = SDL_GetCurrentAudioDriver();
  if (rc != 0 && name && driver && std::strcmp(driver, "alsa") == 0) {
    // SDL lists ALSA devices by description; an ALSA PCM name ("hw:CARD=x,DEV=0")
    // reaches SDL's ALSA backend as the default device's name.
    const char* old = std::getenv("AUDIODEV");
    const std::string saved = old ? old : "";
    setenv("AUDIODEV", name, 1);
    rc = Mix_OpenAudioDevice(frequency_, AUDIO_S16SYS, channels_, bufferFrames_, nullptr, SDL_AUDIO_ALLOW_FREQUENCY_CHANGE);
    if (old)
      setenv("AUDIODEV", saved.c_str(), 1);
    else
      unsetenv("AUDIODEV");
  }
  if (rc != 0) {
    LOG(LEVEL_ERROR, "could not open audio device '%s': %s", name ? name : "default", Mix_GetError());
    Mix_SetPostMix(nullptr, nullptr);
    return -1;
  }
  int freq = 0, gotChans = 0;
  Uint16 format = 0;
  if (Mix_QuerySpec(&freq, &format, &gotChans) != 0) {
    frequency_ = freq;
    bytesPerFrame_ = static_cast<int>(SDL_AUDIO_BITSIZE(format) / 8) * gotChans;
  }
  Mix_AllocateChannels(kMixChannels);
  open_ = true;
  openDevice_ = device;
  LOG(LEVEL_INFO, "audio device '%s' open: %d Hz, %d channels, %d frames per buffer", name ? name : "default",
      frequency_, gotChans, bufferFrames_);
  return 0;
}

void AudioOutput::close() {
  if (!open_) return;
  // The hook stays until the device is closed: every pass that reaches the device is
  // counted.
  Mix_CloseAudio();
  Mix_SetPostMix(nullptr, nullptr);
  open_ = false;
}

void AudioOutput::findDeviceIndex() {
  deviceIndex_ = 0;
  const auto devices = getAudioDevices();
  for (std::size_t i = 0; i < devices.size(); i++)
    if (devices[i].displayName == openDevice_ || devices[i].name == openDevice_) deviceIndex_ = static_cast<int>(i);
}

std::string AudioOutput::currentPcm() const {
  const auto devices = getAudioDevices();
  const auto i = static_cast<std::size_t>(deviceIndex_);
  return i < devices.size() ? devices[i].name : std::string("default");
}

void AudioOutput::applyStoredControls() {
  std::string content;
  if (!readWholeFile(vaIniPath_, content)) return;
  const std::string pcm = currentPcm();
  std::istringstream in(content);
  std::string line;
  while (std::getline(in, line)) {
    int numid = 0, index = 0;
    long value = 0;
    if (!parseControlLine(line, &numid, &index, &value)) continue;
    storedControls_[controlKey(numid, index)] = value;
    setValueForControl(pcm, numid, index, value);
  }
}

int AudioOutput::setControl(int numid, int index, long value) {
  if (setValueForControl(currentPcm(), numid, index, value) != 0) return -1;
  storedControls_[controlKey(numid, index)] = value;
  return 0;
}

std::vector<std::string> AudioOutput::controlLines() const {
  std::vector<std::string> lines;
  for (const auto& [key, value] : storedControls_) lines.push_back(strFormat("%s=%ld", key.c_str(), value));
  return lines;
}

}  // namespace korvo
