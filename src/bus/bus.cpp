#include "bus/bus.h"

#include "base/log.h"

namespace korvo {

Bus::Bus(Gpio& gpio, Settings& s) : gpio_(gpio), settings_(s), pincom_(gpio, s), recorder_(pincom_), i2c_(gpio) {}

Bus::~Bus() { shutdown(); }

bool Bus::startEventService(int httpPort, const std::string& bindAddress) {
  return events_.start(httpPort + 1, bindAddress);
}

void Bus::openOutputs() {
  if (settings_.enableSerial) {
    serial_ = std::make_unique<SerialOutput>(settings_.serialDevice, settings_.serialBaud);
    serial_->open();  // a failure is logged; sends retry
  }
  if (!settings_.sms_address.empty()) {
    socket_ = std::make_unique<SocketOutput>(settings_.sms_address, settings_.sms_port);
    socket_->open();
  }
}

void Bus::initGpio(PincomConsumers consumers) {
  if (!pincom_.gpioInitDone()) pincom_.setConsumers(std::move(consumers));
  pincom_.initGpio();
}

bool Bus::startSession(const std::string& playbackFile, const std::string& recordFile) {
  bool ok = true;
  if (!playbackFile.empty()) ok = recorder_.startPlayback(playbackFile) && ok;
  if (!recordFile.empty()) ok = recorder_.startRecording(recordFile) && ok;
  return ok;
}

void Bus::ackMusicIfDue(unsigned long n, bool musicPlaying) {
  if (musicPlaying && n % kAckMusicEvery == 0 && pincom_.protocol() == DATAEAST) pincom_.ackMusic();
}

bool Bus::serialSend(std::string_view text) { return serial_ && serial_->serialSend(text); }

bool Bus::sendSocketCmd(std::string_view text) { return socket_ && socket_->sendSocketCmd(text); }

void Bus::shutdown() {
  if (shutDown_) return;
  shutDown_ = true;
  events_.stop();
  // No interrupt routine may run on the recorder or the capture past this point.
  gpio_.stopInterrupts();
  recorder_.stopPlayback();
  recorder_.stopRecording();
  if (serial_) serial_->close();
  if (socket_) socket_->close();
}

}  // namespace korvo
