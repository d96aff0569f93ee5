#include "platform/sim_gpio.h"

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "base/log.h"
#include "base/thread.h"
#include "platform/clock.h"

namespace korvo {

namespace {
bool edgeMatches(int edge, int level) {
  switch (edge) {
    case INT_EDGE_FALLING:
      return level == LOW;
    case INT_EDGE_RISING:
      return level == HIGH;
    default:  // BOTH, and SETUP (the edge chosen outside the program) taken as both
      return true;
  }
}
}  // namespace

SimGpio::SimGpio() {
  devices_[kPortExtenderAddress] = std::make_unique<SimMcp23017>();
  devices_[kOledAddress] = std::make_unique<SimSsd1306>();
  devices_[kAdcAddress] = std::make_unique<SimAds1x15>();
  devices_[kDspAddress] = std::make_unique<SimDsp>();
}

SimGpio::~SimGpio() { stopInterrupts(); }

// ---- pins ----

void SimGpio::updateLevelLocked(int pin) {
  Pin& p = pins_[pin];
  const int level = p.mode == OUTPUT ? p.latch : p.drive >= 0 ? p.drive : (p.pud == PUD_UP ? HIGH : LOW);
  if (level == p.level) return;
  p.level = level;
  if (p.mode == OUTPUT) {
    p.history.push_back({p.nextSeq++, level, micros()});
    if (p.history.size() > kHistoryMax) p.history.pop_front();
    changed_.notify_all();
  }
  auto it = interrupts_.find(pin);
  if (it != interrupts_.end() && edgeMatches(it->second->edge, level)) {
    ++it->second->queued;
    it->second->wake.notify_one();
  }
}

void SimGpio::pinMode(int pin, int mode) {
  if (Mcp23017* ext = extenders_.find(pin)) return ext->pinMode(pin, mode);
  if (!validPin(pin)) {
    LOG(LEVEL_ERROR, "sim gpio: pinMode on invalid pin %d", pin);
    return;
  }
  std::lock_guard lock(mutex_);
  pins_[pin].mode = mode == OUTPUT ? OUTPUT : INPUT;
  updateLevelLocked(pin);
}

void SimGpio::pullUpDnControl(int pin, int pud) {
  if (Mcp23017* ext = extenders_.find(pin)) return ext->pullUpDnControl(pin, pud);
  if (!validPin(pin)) {
    LOG(LEVEL_ERROR, "sim gpio: pullUpDnControl on invalid pin %d", pin);
    return;
  }
  std::lock_guard lock(mutex_);
  pins_[pin].pud = pud;
  updateLevelLocked(pin);
}

int SimGpio::digitalRead(int pin) {
  if (Mcp23017* ext = extenders_.find(pin)) return ext->digitalRead(pin);
  if (!validPin(pin)) {
    LOG(LEVEL_ERROR, "sim gpio: digitalRead on invalid pin %d", pin);
    return LOW;
  }
  std::lock_guard lock(mutex_);
  return pins_[pin].level;
}

void SimGpio::digitalWrite(int pin, int value) {
  if (Mcp23017* ext = extenders_.find(pin)) return ext->digitalWrite(pin, value);
  if (!validPin(pin)) {
    LOG(LEVEL_ERROR, "sim gpio: digitalWrite on invalid pin %d", pin);
    return;
  }
  std::lock_guard lock(mutex_);
  pins_[pin].latch = value != LOW ? HIGH : LOW;
  updateLevelLocked(pin);
}

void SimGpio::setInput(int pin, int level) {
  if (!validPin(pin)) {
    LOG(LEVEL_ERROR, "sim gpio: setInput on invalid pin %d", pin);
    return;
  }
  std::lock_guard lock(mutex_);
  pins_[pin].drive = level < 0 ? -1 : (level != LOW ? HIGH : LOW);
  updateLevelLocked(pin);
}

int SimGpio::pinModeOf(int pin) const {
  if (!validPin(pin)) return -1;
  std::lock_guard lock(mutex_);
  return pins_[pin].mode;
}

int SimGpio::pullOf(int pin) const {
  if (!validPin(pin)) return -1;
  std::lock_guard lock(mutex_);
  return pins_[pin].pud;
}

int SimGpio::outputLevel(int pin) const {
  if (!validPin(pin)) return -1;
  std::lock_guard lock(mutex_);
  return pins_[pin].latch;
}

std::vector<PinEdge> SimGpio::outputEdges(int pin) const {
  if (!validPin(pin)) return {};
  std::lock_guard lock(mutex_);
  return {pins_[pin].history.begin(), pins_[pin].history.end()};
}

uint64_t SimGpio::nextOutputEdgeSeq(int pin) const {
  if (!validPin(pin)) return 0;
  std::lock_guard lock(mutex_);
  return pins_[pin].nextSeq;
}

bool SimGpio::waitOutputEdge(int pin, uint64_t fromSeq, int level, Timeout timeout) {
  if (!validPin(pin)) return false;
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    const auto& h = pins_[pin].history;
    for (auto it = h.rbegin(); it != h.rend() && it->seq >= fromSeq; ++it)
      if (it->level == level) return true;
    return false;
  });
}

// ---- interrupts ----

int SimGpio::wiringPiISR(int pin, int edge, Isr isr) {
  if (!validPin(pin) || !isr) {
    LOG(LEVEL_ERROR, "sim gpio: cannot register an interrupt on pin %d", pin);
    return -1;
  }
  std::lock_guard lock(mutex_);
  if (interrupts_.count(pin)) {
    LOG(LEVEL_ERROR, "sim gpio: pin %d already has an interrupt routine", pin);
    return -1;
  }
  auto irq = std::make_unique<Interrupt>();
  irq->pin = pin;
  irq->edge = edge;
  irq->isr = std::move(isr);
  Interrupt* raw = irq.get();
  // The thread blocks on mutex_ (held here) until the record is complete.
  irq->thread = startThread("gpio isr " + std::to_string(pin), [this, raw] { runInterrupt(raw); });
  interrupts_[pin] = std::move(irq);
  return 0;
}

void SimGpio::runInterrupt(Interrupt* irq) {
  std::unique_lock lock(mutex_);
  for (;;) {
    irq->wake.wait(lock, [irq] { return irq->stop || irq->started < irq->queued; });
    if (irq->stop) return;
    ++irq->started;
    lock.unlock();
    // Exceptions must not end the thread (and with it the process).
    try {
      irq->isr();
    } catch (const std::exception& e) {
      LOG(LEVEL_ERROR, "interrupt routine of pin %d threw: %s", irq->pin, e.what());
    } catch (...) {
      LOG(LEVEL_ERROR, "interrupt routine of pin %d threw", irq->pin);
    }
    lock.lock();
    ++irq->done;
    changed_.notify_all();
  }
}

void SimGpio::stopInterrupts() {
  std::map<int, std::unique_ptr<Interrupt>> stopping;
  {
    std::lock_guard lock(mutex_);
    stopping.swap(interrupts_);
    for (auto& [pin, irq] : stopping) {
      irq->stop = true;
      irq->wake.notify_all();
    }
    changed_.notify_all();  // waiters for these pins now see no routine
  }
  for (auto& [pin, irq] : stopping) {
    if (irq->thread.get_id() == std::this_thread::get_id()) {
      // Called from the routine itself: it cannot join itself. Leave the record to the
      // thread, which ends as soon as the routine returns.
      LOG(LEVEL_ERROR, "stopInterrupts called from the interrupt routine of pin %d", pin);
      irq->thread.detach();
      (void)irq.release();
      continue;
    }
    irq->thread.join();
  }
}

uint64_t SimGpio::isrRuns(int pin) const {
  std::lock_guard lock(mutex_);
  auto it = interrupts_.find(pin);
  return it == interrupts_.end() ? 0 : it->second->done;
}

bool SimGpio::waitIsrIdle(int pin, Timeout timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    auto it = interrupts_.find(pin);
    return it == interrupts_.end() || it->second->done == it->second->queued;
  });
}

// ---- I2C ----

int SimGpio::wiringPiI2CSetup(int devId) {
  std::lock_guard lock(i2cMutex_);
  if (!devices_.count(devId)) return -1;
  handles_.push_back(devId);
  return static_cast<int>(handles_.size()) - 1;
}

int SimGpio::transfer(int fd, std::span<const uint8_t> out, std::span<uint8_t> in) {
  std::lock_guard lock(i2cMutex_);
  if (fd < 0 || static_cast<std::size_t>(fd) >= handles_.size()) return -1;
  auto it = devices_.find(handles_[fd]);
  if (it == devices_.end()) return -1;
  if (!out.empty() && !it->second->write(out)) return -1;
  if (!in.empty() && !it->second->read(in)) return -1;
  return 0;
}

int SimGpio::wiringPiI2CRead(int fd) {
  uint8_t b = 0;
  return transfer(fd, {}, {&b, 1}) < 0 ? -1 : b;
}

int SimGpio::wiringPiI2CWrite(int fd, int data) {
  const uint8_t b = static_cast<uint8_t>(data);
  return transfer(fd, {&b, 1}, {});
}

int SimGpio::wiringPiI2CWriteReg8(int fd, int reg, int data) {
  const uint8_t out[] = {static_cast<uint8_t>(reg), static_cast<uint8_t>(data)};
  return transfer(fd, out, {});
}

int SimGpio::wiringPiI2CWriteReg16(int fd, int reg, int data) {
  // SMBus word: low byte first on the wire.
  const uint8_t out[] = {static_cast<uint8_t>(reg), static_cast<uint8_t>(data & 0xFF),
                         static_cast<uint8_t>((data >> 8) & 0xFF)};
  return transfer(fd, out, {});
}

int SimGpio::wiringPiI2CReadReg8(int fd, int reg) {
  const uint8_t r = static_cast<uint8_t>(reg);
  uint8_t b = 0;
  return transfer(fd, {&r, 1}, {&b, 1}) < 0 ? -1 : b;
}

int SimGpio::wiringPiI2CReadReg16(int fd, int reg) {
  const uint8_t r = static_cast<uint8_t>(reg);
  uint8_t in[2] = {};
  return transfer(fd, {&r, 1}, in) < 0 ? -1 : (in[0] | in[1] << 8);
}

int SimGpio::mcp23017Setup(int pinBase, int i2cAddress) {
  return extenders_.setup(*this, pinBase, i2cAddress);
}

void SimGpio::addI2cDevice(int address, std::unique_ptr<SimI2cDevice> device) {
  std::lock_guard lock(i2cMutex_);
  devices_[address] = std::move(device);
}

void SimGpio::removeI2cDevice(int address) {
  std::lock_guard lock(i2cMutex_);
  devices_.erase(address);
}

SimI2cDevice* SimGpio::i2cDevice(int address) const {
  std::lock_guard lock(i2cMutex_);
  auto it = devices_.find(address);
  return it == devices_.end() ? nullptr : it->second.get();
}

namespace {
template <class Model>
Model& model(SimI2cDevice* device, const char* what) {
  auto* m = dynamic_cast<Model*>(device);
  if (!m) throw std::logic_error(std::string("sim gpio: no ") + what + " model on the bus");
  return *m;
}
}  // namespace

SimMcp23017& SimGpio::portExtender() const {
  return model<SimMcp23017>(i2cDevice(kPortExtenderAddress), "port extender");
}
SimSsd1306& SimGpio::oled() const { return model<SimSsd1306>(i2cDevice(kOledAddress), "OLED"); }
SimAds1x15& SimGpio::adc() const { return model<SimAds1x15>(i2cDevice(kAdcAddress), "ADC"); }
SimDsp& SimGpio::dsp() const { return model<SimDsp>(i2cDevice(kDspAddress), "DSP"); }

}  // namespace korvo
