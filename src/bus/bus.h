// The machine side of the board in one owner: bus capture with its outputs (shaker,
// port extender, pin sequences), session recorder, serial / socket / I2C outputs and
// the UDP event service. The daemon's owner object holds one Bus and calls it during
// start-up, in the main loop and at shutdown; members are declared in start-up order so
// destruction undoes it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "bus/event_service.h"
#include "bus/i2c_output.h"
#include "bus/pincom.h"
#include "bus/serial_output.h"
#include "bus/session_recorder.h"
#include "bus/socket_output.h"
#include "core/settings.h"
#include "platform/gpio.h"

namespace korvo {

class Bus {
 public:
  // Music acknowledge pulses are sent every this many main loop iterations.
  static constexpr unsigned long kAckMusicEvery = 250;

  Bus(Gpio& gpio, Settings& s);
  // Runs shutdown() if it has not run.
  ~Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  // Start-up, in this order:
  // with the board information, before the settings: the bus pins in a safe state;
  int preInitGpio() { return pincom_.preInitGpio(); }
  // before the sound engine, when enable_eventsrv: UDP port httpPort + 1 on all interfaces;
  bool startEventService(int httpPort, const std::string& bindAddress = "0.0.0.0");
  // once the stored set is loaded: serial and socket outputs;
  void openOutputs();
  // after the stored volume: the capture for the configured protocol;
  void initGpio(PincomConsumers consumers);
  // right after the capture: -P then -R (either may be empty). False when a file could
  // not be used.
  bool startSession(const std::string& playbackFile, const std::string& recordFile);

  // Main loop, iteration n (from 1): pulses the music acknowledge every 250 iterations
  // while music plays (DATAEAST only).
  void ackMusicIfDue(unsigned long n, bool musicPlaying);
  void updatePincom(unsigned now) { pincom_.updatePincom(now); }
  void updatePlayback(unsigned now) { recorder_.updatePlayback(now); }

  // The engine's command-string hooks.
  void sendPortCmd(std::string_view cmd) { pincom_.portExtender().sendPortCmd(cmd); }
  int sendI2CCmd(std::string_view cmd) { return i2c_.sendI2CCmd(cmd); }
  // False when the output is not enabled or the send failed.
  bool serialSend(std::string_view text);
  bool sendSocketCmd(std::string_view text);
  // Samples' shaker patterns, HTTP and Lua outputs.
  void setPortExtenderPin(int pin, int value) { pincom_.portExtender().setPortExtenderPin(pin, value); }
  void playbackShakerSequence(std::vector<int> pattern) {
    pincom_.shaker().playbackShakerSequence(std::move(pattern));
  }
  // The engine's hook shapes: a sample's pattern as stored, a "PORTSEQ " text.
  void playbackShakerSequence(const std::vector<uint32_t>& pattern) {
    pincom_.shaker().playbackShakerSequence(std::vector<int>(pattern.begin(), pattern.end()));
  }
  void addPortPinSequence(std::string_view text) {
    auto& ext = pincom_.portExtender();
    ext.addPortPinSequence(ext.createPortPinSeq(text));
  }
  void portseq(int port, const std::vector<int>& steps) { pincom_.portExtender().portseq(port, steps); }

  // Stops the event service and the interrupt threads, closes the recording and the
  // outputs. Idempotent.
  void shutdown();

  Pincom& pincom() { return pincom_; }
  SessionRecorder& recorder() { return recorder_; }
  I2cOutput& i2c() { return i2c_; }
  EventService& events() { return events_; }
  void addEventHandler(EventService::Handler fn) { events_.addEventHandler(std::move(fn)); }

 private:
  Gpio& gpio_;
  Settings& settings_;
  Pincom pincom_;
  SessionRecorder recorder_;
  I2cOutput i2c_;
  std::unique_ptr<SerialOutput> serial_;
  std::unique_ptr<SocketOutput> socket_;
  EventService events_;
  bool shutDown_ = false;
};

}  // namespace korvo
