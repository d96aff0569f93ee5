#include "bus/pincom.h"

#include "bus/session_recorder.h"
#include "base/log.h"
#include "platform/clock.h"

namespace korvo {

namespace {
// Each interrupt thread names itself on its first strobe; replay on the main thread
// does not rename it.
thread_local bool threadNameSet = false;

const char* edgeName(int edge) { return edge == INT_EDGE_RISING ? "INT_EDGE_RISING" : "INT_EDGE_FALLING"; }

char bit(uint8_t b, int i) { return (b >> i) & 1 ? '1' : '0'; }
}  // namespace

Pincom::Pincom(Gpio& gpio, Settings& s)
    : gpio_(gpio),
      settings_(s),
      addressPins_(kAddressPins),
      protocol_(sanitizeProtocol(s.protocol.load())),
      shaker_(gpio, s, portStates_),
      extender_(gpio, s, portStates_, shaker_) {
  clearCmd();
}

Pincom::~Pincom() {
  if (isrInstalled_) gpio_.stopInterrupts();
}

int Pincom::preInitGpio() { return gpio_.wiringPiSetup(); }

void Pincom::initGpio() {
  if (gpioInitDone_.load()) {
    LOG(LEVEL_ERROR, "initGpio was called twice -> skipping");
    return;
  }
  const int p = sanitizeProtocol(settings_.protocol.load());
  protocol_.store(p);
  clearCmd();

  if (settings_.enable_port_extender) extender_.setup();
  if (settings_.enableI2S) {
    LOG(LEVEL_INFO, "I2S sound interface enabled, remapping input pins");
    addressPins_ = remapForI2S(addressPins_);
  }
  LOG(LEVEL_INFO, "setting up GPIO for %s", protocolName(p));
  switch (strobeKindOf(p)) {
    case StrobeKind::DataEast:
    case StrobeKind::Whitestar:
      setUpAcknowledgedBus(p);
      break;
    case StrobeKind::Wpc:
      setUpWpcBus(p);
      break;
    case StrobeKind::None:
      LOG(LEVEL_WARN, "sys 11 not supported until now.");
      break;
  }
  setUpPin10(p);
  if (settings_.shakerEnabled) shaker_.setup();
  gpioInitDone_.store(true);
}

void Pincom::setUpDataInputs(int protocol) {
  const AddressPinRow& row = addressPins_[protocol];
  for (int i = 7; i >= 0; --i) {
    gpio_.pinMode(row[i], INPUT);
    gpio_.pullUpDnControl(row[i], PUD_OFF);
  }
}

void Pincom::installStrobe(int pin, int edge, const char* threadName) {
  const int rc = gpio_.wiringPiISR(pin, edge, [this, threadName] { onStrobe(threadName); });
  if (rc < 0)
    LOG(LEVEL_ERROR, "could not install the interrupt on pin %d", pin);
  else
    isrInstalled_ = true;
}

void Pincom::setUpAcknowledgedBus(int p) {
  const TriggerPinRow& t = triggerPins[p];
  gpio_.pinMode(t.soundAck, OUTPUT);
  gpio_.digitalWrite(t.soundAck, HIGH);
  gpio_.pinMode(t.musicAck, OUTPUT);
  gpio_.digitalWrite(t.musicAck, LOW);
  setUpDataInputs(p);
  gpio_.pinMode(t.strobe, INPUT);
  gpio_.pullUpDnControl(t.strobe, PUD_OFF);
  const int edge = edgeForDataEastWhiteStar[p];
  const bool dataEast = strobeKindOf(p) == StrobeKind::DataEast;
  if (!dataEast) LOG(LEVEL_DEBUG, "setting int edge of pin %d to %s", t.strobe, edgeName(edge));
  installStrobe(t.strobe, edge, dataEast ? "isr de" : "isr ws");
}

void Pincom::setUpWpcBus(int p) {
  gpio_.pinMode(kPin10, INPUT);
  gpio_.pullUpDnControl(kPin10, PUD_OFF);
  gpio_.pinMode(kWpcStrobePin, INPUT);
  gpio_.pullUpDnControl(kWpcStrobePin, PUD_OFF);
  setUpDataInputs(p);
  {
    std::lock_guard lock(cmdMutex_);
    cmdLen_ = 2;
  }
  installStrobe(kWpcStrobePin, INT_EDGE_FALLING, "isr wpc");
}

void Pincom::setUpPin10(int p) {
  // Pin 10 carries data bit 4 on the DATAEAST3 wiring: driving it there would fight the
  // machine's line and read that bit as 0, so it stays an input.
  bool pin10IsData = false;
  for (int pin : addressPins_[p]) pin10IsData = pin10IsData || pin == kPin10;
  if (pin10IsData) {
    LOG(LEVEL_DEBUG, "pin %d is a data pin of %s, left as input", kPin10, protocolName(p));
  } else {
    gpio_.pinMode(kPin10, OUTPUT);
    gpio_.digitalWrite(kPin10, LOW);
  }
}

unsigned Pincom::readSoundAddress(std::optional<uint8_t> replayed) {
  unsigned b = 0;
  if (replayed) {
    b = *replayed;
  } else {
    const AddressPinRow& row = addressPins_[protocol_.load(std::memory_order_relaxed)];
    for (int i = 0; i < 8; ++i)
      if (gpio_.digitalRead(row[i])) b |= 1u << i;
  }
  bytesRead_.fetch_add(1, std::memory_order_relaxed);
  if (SessionRecorder* r = recorder_.load(std::memory_order_acquire)) r->recordByte(static_cast<uint8_t>(b));
  return b;
}

int Pincom::readSTB() {
  const int pin = strobePinOf(protocol_.load());
  return pin < 0 ? 0 : gpio_.digitalRead(pin);
}

void Pincom::ackSound() {
  const int p = protocol_.load(std::memory_order_relaxed);
  // Protocols without acknowledge lines have 0 in the table: pin 0 is a data input.
  if (!hasAcknowledge(p)) return;
  const int pin = triggerPins[p].soundAck;
  gpio_.digitalWrite(pin, LOW);
  delayMicroseconds(kSoundAckMicros);
  gpio_.digitalWrite(pin, HIGH);
}

void Pincom::ackMusic() {
  const int p = protocol_.load(std::memory_order_relaxed);
  if (!hasAcknowledge(p)) return;
  const int pin = triggerPins[p].musicAck;
  gpio_.digitalWrite(pin, HIGH);
  delayMicroseconds(kMusicAckMicros);
  gpio_.digitalWrite(pin, LOW);
}

void Pincom::clearCmd() {
  std::lock_guard lock(cmdMutex_);
  clearCmdLocked();
}

void Pincom::clearCmdLocked() {
  count_ = 0;
  cmdCount_ = 0;
  cmd_[0] = cmd_[1] = cmd_[2] = cmd_[3] = 0;
  const int p = protocol_.load(std::memory_order_relaxed);
  cmdLen_ = (p == WPCDCS || p == WHITESTAR || p == WHITESTAR_X) ? 2 : 1;
}

void Pincom::onStrobe(const char* threadName) {
  if (!threadNameSet) {
    setThreadName(threadName);
    threadNameSet = true;
  }
  triggerInterrupt();
}

void Pincom::triggerInterrupt(std::optional<uint8_t> byte) {
  switch (strobeKindOf(protocol_.load(std::memory_order_relaxed))) {
    case StrobeKind::DataEast:
      stbInterrupt(byte);
      break;
    case StrobeKind::Whitestar:
      whitestarInterrupt(byte);
      break;
    case StrobeKind::Wpc:
      wdenInterrupt(byte);
      break;
    case StrobeKind::None:
      break;
  }
}

uint8_t Pincom::fetchByte(std::optional<uint8_t> byte) {
  return static_cast<uint8_t>(readSoundAddress(byte));
}

void Pincom::deliver(const Delivery& d) {
  switch (d.kind) {
    case Delivery::DataEast:
      if (consumers_.soundHandler) consumers_.soundHandler(d.value);
      break;
    case Delivery::Wpc:
      if (consumers_.soundWpcHandler) consumers_.soundWpcHandler(d.cmd, d.value);
      break;
    case Delivery::Whitestar:
      if (consumers_.soundWSHandler) consumers_.soundWSHandler(d.cmd, d.value);
      break;
    case Delivery::None:
      return;
  }
  delivered_.fetch_add(1, std::memory_order_relaxed);
}

void Pincom::logByte(const char* prefix, uint8_t b) {
  LOG(LEVEL_DEBUG, "%s cmd %05d %03d 0x%02x %c%c%c%c%c%c%c%c len: %d", prefix, count_, b, b, bit(b, 7),
      bit(b, 6), bit(b, 5), bit(b, 4), bit(b, 3), bit(b, 2), bit(b, 1), bit(b, 0), cmdLen_);
}

void Pincom::stbInterrupt(std::optional<uint8_t> byte) {
  const uint8_t b = fetchByte(byte);
  // 0xFF is the idle bus: acknowledged, never passed on.
  if (b != 0xFF) {
    LOG(LEVEL_DEBUG, "stb int. address %d 0x%02x", b, b);
    Delivery d;
    d.kind = Delivery::DataEast;
    d.value = b;
    deliver(d);
  }
  ackSound();
}

void Pincom::whitestarInterrupt(std::optional<uint8_t> byte) {
  Delivery d;
  {
    std::lock_guard lock(cmdMutex_);
    const unsigned long now = millis();
    if (now - lastWhitestarByte_ > kWhitestarTimeoutMs) {
      LOG(LEVEL_DEBUG, "---");
      clearCmdLocked();
    }
    lastWhitestarByte_ = now;
    const uint8_t b = fetchByte(byte);
    if (cmdCount_ >= 4) clearCmdLocked();  // never more than 4 bytes; the rules below end sooner
    cmd_[cmdCount_++] = b;
    if (cmdCount_ == 1 && b == 0xFD) cmdLen_ = 4;
    if (cmdLen_ == 4 && cmdCount_ == 2 && b != 0xFE) cmdLen_ = 2;
    if (cmdLen_ == 4 && cmdCount_ == 4 && (b & 0xF0) == 0xF0) clearCmdLocked();
    logByte("whitestar", b);
    ++count_;
    if (cmdCount_ == cmdLen_) {
      // 0xFn 0x00 is the stop: it reads as command 0.
      if (cmdLen_ == 2 && (cmd_[0] & 0xF0) == 0xF0 && cmd_[1] == 0) cmd_[0] = 0;
      d.kind = Delivery::Whitestar;
      std::copy(cmd_, cmd_ + 4, d.cmd);
      d.value = cmd_[0] * 256u + cmd_[1];
      clearCmdLocked();
    }
  }
  deliver(d);
  ackSound();
}

void Pincom::wdenInterrupt(std::optional<uint8_t> byte) {
  Delivery d;
  {
    std::lock_guard lock(cmdMutex_);
    const bool dcs = protocol_.load(std::memory_order_relaxed) == WPCDCS;
    const unsigned long now = millis();
    const unsigned timeout = dcs ? kWpcDcsTimeoutMs : kWpcTimeoutMs;
    if (now - lastWpcByte_ > timeout && cmdCount_ > 0) {
      LOG(LEVEL_DEBUG, "---");
      clearCmdLocked();
    }
    lastWpcByte_ = now;
    const uint8_t b = fetchByte(byte);
    if (dcs && b == 0 && cmdCount_ == 1 && cmd_[0] == 0)
      d = dcsZeroCommandLocked(b);
    else
      d = addWpcByteLocked(b, dcs);
  }
  deliver(d);
}

Pincom::Delivery Pincom::dcsZeroCommandLocked(uint8_t b) {
  // 0x00 0x00: reported at once as command 0.
  logByte("wpc", b);
  clearCmdLocked();
  lastCmdWasZero_ = true;
  Delivery d;
  d.kind = Delivery::Wpc;
  std::copy(cmd_, cmd_ + 4, d.cmd);
  d.value = 0;
  return d;
}

void Pincom::wpcLengthLocked(uint8_t b) {
  if (cmdCount_ != 1) return;
  if (b == 0x79)
    cmdLen_ = 3;
  else if (b == 0x7A || (b >= 0x61 && b <= 0x6F))
    cmdLen_ = 2;
  else
    cmdLen_ = 1;
}

bool Pincom::dcsRulesLocked(uint8_t b) {
  if (cmdLen_ == 0) cmdLen_ = 2;
  if (cmdCount_ == 1 && b == 0x55) cmdLen_ = 4;
  if (cmdCount_ == 2 && b == 0x55 && lastCmdWasZero_) {
    // 0x00 0x00 0x00 0x55 ...: the volume command starts after the zero command.
    cmd_[0] = 0x55;
    cmd_[1] = 0;
    cmdCount_ = 1;
    cmdLen_ = 4;
  }
  if (cmdCount_ == 1 && cmdLen_ == 2 && cmd_[0] > 4) {
    clearCmdLocked();
    return false;
  }
  return true;
}

Pincom::Delivery Pincom::addWpcByteLocked(uint8_t b, bool dcs) {
  Delivery d;
  cmd_[cmdCount_++] = b;
  if (dcs) {
    if (!dcsRulesLocked(b)) return d;
  } else {
    wpcLengthLocked(b);
  }
  logByte("wpc", b);
  ++count_;
  if (cmdCount_ == cmdLen_) {
    lastCmdWasZero_ = false;
    d.kind = Delivery::Wpc;
    std::copy(cmd_, cmd_ + 4, d.cmd);
    d.value = cmdLen_ == 2 ? cmd_[0] * 256u + cmd_[1] : cmd_[0];
    clearCmdLocked();
  } else if (cmdCount_ >= 4) {
    clearCmdLocked();
  }
  return d;
}

}  // namespace korvo
