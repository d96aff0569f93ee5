// The audio output: the SDL mixer device (open, close, format), the frame counter kept
// by the post-mix hook, which entry of the device list is open, and the card's mixer
// control values kept in "va.ini" as "numid<n>_<i>=<v>" lines.
//
// Threads: everything but the atomics is guarded by the engine mutex. The post-mix
// hook runs on the audio thread and only updates atomics.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace korvo {

class AudioOutput {
 public:
  AudioOutput() = default;
  AudioOutput(const AudioOutput&) = delete;
  AudioOutput& operator=(const AudioOutput&) = delete;

  // SDL's audio subsystem and the decoders; false with an ERROR line.
  bool initAudio();
  void quitAudio();
  bool audioInitialised() const { return sdlAudioInit_; }

  void configure(int channels, int frequency);
  void setBufferFrames(int frames) { bufferFrames_ = frames > 0 ? frames : 512; }
  int bufferFrames() const { return bufferFrames_; }
  int frequency() const { return frequency_; }

  // Opens `device` ("" = SDL's default; an ALSA PCM name is also tried through
  // AUDIODEV) with eleven channels. 0, or -1 with an ERROR line.
  int open(const std::string& device);
  // Closes the device. The caller has halted every play and freed every chunk first.
  void close();
  bool isOpen() const { return open_; }
  // Name of the open device ("" = default).
  const std::string& deviceName() const { return openDevice_; }
  int deviceIndex() const { return deviceIndex_; }
  void setDeviceIndex(int n) { deviceIndex_ = n; }
  // The index of the open device in `getAudioDevices()` (0 when not listed).
  void findDeviceIndex();

  int enabled() const { return enableAudio_.load(std::memory_order_relaxed); }
  void setEnabled(bool on) { enableAudio_.store(on ? 1 : 0); }

  // Frames mixed since the device opened. Any thread.
  uint64_t framesMixed() const { return framesMixed_.load(std::memory_order_acquire); }
  const std::atomic<uint64_t>& frameCounter() const { return framesMixed_; }
  // micros() at the end of the last mixing pass. Any thread.
  uint64_t lastPassMicros() const { return lastPassMicros_.load(std::memory_order_acquire); }

  // ---- mixer controls ----
  void setControlsFile(std::string path) { vaIniPath_ = std::move(path); }
  const std::string& controlsFile() const { return vaIniPath_; }
  // Reads the control lines of the controls file and sets them on the open card.
  void applyStoredControls();
  // Sets one value on the open card and records it. 0, or -1 with an ERROR line.
  int setControl(int numid, int index, long value);
  // The recorded values as "numid<n>_<i>=<v>" lines, in key order.
  std::vector<std::string> controlLines() const;

 private:
  static void postMixCallback(void* udata, uint8_t* stream, int len);
  std::string currentPcm() const;

  std::string openDevice_;
  int deviceIndex_ = 0;
  int channels_ = 2;
  int frequency_ = 44100;
  int bufferFrames_ = 512;
  bool open_ = false;
  bool sdlAudioInit_ = false;
  std::string vaIniPath_ = "va.ini";
  std::map<std::string, long> storedControls_;  // "numid3_0" -> value

  std::atomic<int> enableAudio_{0};
  std::atomic<uint64_t> framesMixed_{0};
  std::atomic<uint64_t> lastPassMicros_{0};
  std::atomic<int> bytesPerFrame_{4};  // read by the post-mix hook
};

}  // namespace korvo
