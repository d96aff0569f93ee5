#include "platform/gpiod_gpio.h"

#include <fcntl.h>
#include <gpiod.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "base/thread.h"
#include "base/handles.h"
#include "platform/mcp23017.h"

namespace korvo {

namespace {

constexpr int kBcmOfWiringPi[32] = {
    17, 18, 27, 22, 23, 24, 25, 4,   // 0..7
    2,  3,  8,  7,  10, 9,  11, 14,  // 8..15
    15, -1, -1, -1, -1, 5,  6,  13,  // 16..23 (17..20 were the P5 header of the first boards)
    19, 26, 12, 16, 20, 21, 0,  1,   // 24..31
};
constexpr int kBoardPins = 64;
constexpr const char* kConsumer = "korvo";
// How long an interrupt thread waits for an edge before it looks at its stop flag, and
// so the longest stopInterrupts() waits for it.
constexpr timespec kEventPoll{0, 100'000'000};
constexpr int kEventBatch = 16;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

gpiod_chip* openBoardChip() {
  // The header's chip is labelled pinctrl-<soc> (bcm2835, bcm2711, rp1); its number
  // differs between boards and kernels.
  for (int i = 0; i < 64; ++i) {
    const std::string path = "/dev/gpiochip" + std::to_string(i);
    if (!exists(path)) continue;
    gpiod_chip* chip = gpiod_chip_open(path.c_str());
    if (!chip) continue;
    if (strncmp(gpiod_chip_label(chip), "pinctrl-", 8) == 0) return chip;
    gpiod_chip_close(chip);
  }
  return gpiod_chip_open("/dev/gpiochip0");
}

std::string findI2cBus() {
  for (const char* dev : {"/dev/i2c-1", "/dev/i2c-0"})
    if (exists(dev)) return dev;
  return {};
}

int smbus(int fd, uint8_t readWrite, uint8_t command, uint32_t size, i2c_smbus_data* data) {
  i2c_smbus_ioctl_data args{readWrite, command, size, data};
  return ioctl(fd, I2C_SMBUS, &args);
}

class GpiodGpio final : public Gpio {
 public:
  GpiodGpio(gpiod_chip* chip, std::string i2cBus) : chip_(chip), i2cBus_(std::move(i2cBus)) {}
  ~GpiodGpio() override;

  const char* name() const override { return "gpiod"; }
  int wiringPiSetup() override { return 0; }  // the chip was opened by createGpiodGpio
  void pinMode(int pin, int mode) override;
  void pullUpDnControl(int pin, int pud) override;
  int digitalRead(int pin) override;
  void digitalWrite(int pin, int value) override;
  int wiringPiISR(int pin, int edge, Isr isr) override;
  void stopInterrupts() override;

  bool hasI2C() override { return !i2cBus_.empty(); }
  int wiringPiI2CSetup(int devId) override;
  int wiringPiI2CRead(int fd) override;
  int wiringPiI2CWrite(int fd, int data) override;
  int wiringPiI2CWriteReg8(int fd, int reg, int data) override;
  int wiringPiI2CWriteReg16(int fd, int reg, int data) override;
  int wiringPiI2CReadReg8(int fd, int reg) override;
  int wiringPiI2CReadReg16(int fd, int reg) override;
  int mcp23017Setup(int pinBase, int i2cAddress) override {
    return extenders_.setup(*this, pinBase, i2cAddress);
  }

 private:
  struct Line {
    gpiod_line* line = nullptr;  // owned by the chip
    int mode = -1;               // the requested direction, -1 = not requested
    int pud = -1;                // -1 = never set: the bias is left as it is
    int latch = LOW;             // applied whenever the line becomes an output
    bool events = false;         // requested for edges; its interrupt thread reads it
    bool reported = false;       // an error about this pin was logged already
  };
  struct Watcher {
    int pin = 0;
    gpiod_line* line = nullptr;
    Isr isr;
    std::thread thread;
    std::atomic<bool> stop{false};
  };

  Line* lineLocked(int pin);
  int biasFlagsLocked(const Line& l) const;
  // (Re-)requests the line; the kernel only takes a new direction or bias that way.
  bool requestLocked(int pin, Line& l, int requestType);
  void releaseLocked(Line& l);
  void reportLocked(Line& l, int pin, const char* what);
  void watch(Watcher* w);

  gpiod_chip* const chip_;
  const std::string i2cBus_;

  std::mutex mutex_;  // guards lines_, watchers_ and biasUnsupported_
  std::array<Line, kBoardPins> lines_{};
  std::vector<std::unique_ptr<Watcher>> watchers_;
  bool biasUnsupported_ = false;  // kernels before 5.5 refuse the bias flags

  std::mutex i2cMutex_;  // guards i2cFds_
  std::vector<Fd> i2cFds_;

  ExtenderPins extenders_;
};

GpiodGpio::~GpiodGpio() {
  stopInterrupts();
  {
    std::lock_guard lock(mutex_);
    for (Line& l : lines_) releaseLocked(l);
  }
  gpiod_chip_close(chip_);
}

void GpiodGpio::reportLocked(Line& l, int pin, const char* what) {
  // Once per pin: a broken pin read in an interrupt routine would flood the log.
  if (l.reported) return;
  l.reported = true;
  LOG(LEVEL_ERROR, "gpiod: pin %d: %s", pin, what);
}

GpiodGpio::Line* GpiodGpio::lineLocked(int pin) {
  if (pin < 0 || pin >= kBoardPins) {
    LOG(LEVEL_ERROR, "gpiod: invalid pin %d", pin);
    return nullptr;
  }
  Line& l = lines_[pin];
  if (!l.line) {
    const int bcm = wiringPiPinToBcm(pin);
    if (bcm < 0) {
      reportLocked(l, pin, "no GPIO line for this pin");
      return nullptr;
    }
    l.line = gpiod_chip_get_line(chip_, static_cast<unsigned>(bcm));
    if (!l.line) {
      reportLocked(l, pin, strerror(errno));
      return nullptr;
    }
  }
  return &l;
}

int GpiodGpio::biasFlagsLocked(const Line& l) const {
  if (biasUnsupported_) return 0;
  switch (l.pud) {
    case PUD_UP:
      return GPIOD_LINE_REQUEST_FLAG_BIAS_PULL_UP;
    case PUD_DOWN:
      return GPIOD_LINE_REQUEST_FLAG_BIAS_PULL_DOWN;
    case PUD_OFF:
      return GPIOD_LINE_REQUEST_FLAG_BIAS_DISABLE;
    default:
      return 0;
  }
}

void GpiodGpio::releaseLocked(Line& l) {
  if (l.line && (l.mode >= 0 || l.events)) gpiod_line_release(l.line);
  l.mode = -1;
  l.events = false;
}

bool GpiodGpio::requestLocked(int pin, Line& l, int requestType) {
  releaseLocked(l);
  gpiod_line_request_config config{kConsumer, requestType, biasFlagsLocked(l)};
  int rc = gpiod_line_request(l.line, &config, l.latch);
  if (rc < 0 && errno == EINVAL && config.flags != 0) {
    LOG(LEVEL_WARN, "gpiod: the kernel refuses pull-up/down settings; pins keep their bias");
    biasUnsupported_ = true;
    config.flags = 0;
    rc = gpiod_line_request(l.line, &config, l.latch);
  }
  if (rc < 0) {
    LOG(LEVEL_ERROR, "gpiod: cannot request line %d (pin %d): %s", wiringPiPinToBcm(pin), pin,
        strerror(errno));
    return false;
  }
  l.events = requestType != GPIOD_LINE_REQUEST_DIRECTION_INPUT &&
             requestType != GPIOD_LINE_REQUEST_DIRECTION_OUTPUT;
  l.mode = requestType == GPIOD_LINE_REQUEST_DIRECTION_OUTPUT ? OUTPUT : INPUT;
  return true;
}

void GpiodGpio::pinMode(int pin, int mode) {
  if (Mcp23017* ext = extenders_.find(pin)) return ext->pinMode(pin, mode);
  std::lock_guard lock(mutex_);
  Line* l = lineLocked(pin);
  if (!l) return;
  if (l->events) {
    // Its interrupt thread owns the request until stopInterrupts().
    LOG(LEVEL_WARN, "gpiod: pin %d has an interrupt routine; mode unchanged", pin);
    return;
  }
  requestLocked(pin, *l, mode == OUTPUT ? GPIOD_LINE_REQUEST_DIRECTION_OUTPUT
                                        : GPIOD_LINE_REQUEST_DIRECTION_INPUT);
}

void GpiodGpio::pullUpDnControl(int pin, int pud) {
  if (Mcp23017* ext = extenders_.find(pin)) return ext->pullUpDnControl(pin, pud);
  std::lock_guard lock(mutex_);
  Line* l = lineLocked(pin);
  if (!l) return;
  l->pud = pud;
  if (l->events) {
    LOG(LEVEL_WARN, "gpiod: pin %d has an interrupt routine; pull applies after it stops", pin);
    return;
  }
  requestLocked(pin, *l, l->mode == OUTPUT ? GPIOD_LINE_REQUEST_DIRECTION_OUTPUT
                                           : GPIOD_LINE_REQUEST_DIRECTION_INPUT);
}

int GpiodGpio::digitalRead(int pin) {
  if (Mcp23017* ext = extenders_.find(pin)) return ext->digitalRead(pin);
  std::lock_guard lock(mutex_);
  Line* l = lineLocked(pin);
  if (!l) return LOW;
  if (l->mode < 0 && !requestLocked(pin, *l, GPIOD_LINE_REQUEST_DIRECTION_INPUT)) return LOW;
  const int value = gpiod_line_get_value(l->line);
  if (value < 0) {
    reportLocked(*l, pin, strerror(errno));
    return LOW;
  }
  return value;
}

void GpiodGpio::digitalWrite(int pin, int value) {
  if (Mcp23017* ext = extenders_.find(pin)) return ext->digitalWrite(pin, value);
  std::lock_guard lock(mutex_);
  Line* l = lineLocked(pin);
  if (!l) return;
  // As on the SoC: writing an input only sets the level it drives once made an output.
  l->latch = value != LOW ? HIGH : LOW;
  if (l->mode == OUTPUT && gpiod_line_set_value(l->line, l->latch) < 0)
    reportLocked(*l, pin, strerror(errno));
}

int GpiodGpio::wiringPiISR(int pin, int edge, Isr isr) {
  if (!isr) return -1;
  std::lock_guard lock(mutex_);
  Line* l = lineLocked(pin);
  if (!l) return -1;
  if (l->events) {
    LOG(LEVEL_ERROR, "gpiod: pin %d already has an interrupt routine", pin);
    return -1;
  }
  const int type = edge == INT_EDGE_FALLING  ? GPIOD_LINE_REQUEST_EVENT_FALLING_EDGE
                   : edge == INT_EDGE_RISING ? GPIOD_LINE_REQUEST_EVENT_RISING_EDGE
                                             : GPIOD_LINE_REQUEST_EVENT_BOTH_EDGES;
  if (!requestLocked(pin, *l, type)) return -1;
  auto w = std::make_unique<Watcher>();
  w->pin = pin;
  w->line = l->line;
  w->isr = std::move(isr);
  Watcher* raw = w.get();
  w->thread = startThread("gpio isr " + std::to_string(pin), [this, raw] { watch(raw); });
  watchers_.push_back(std::move(w));
  return 0;
}

// Runs on the pin's interrupt thread. The line stays requested for events until
// stopInterrupts() has joined this thread, so `w->line` needs no lock here.
void GpiodGpio::watch(Watcher* w) {
  gpiod_line_event events[kEventBatch];
  while (!w->stop.load(std::memory_order_acquire)) {
    const timespec poll = kEventPoll;
    const int rc = gpiod_line_event_wait(w->line, &poll);
    if (rc == 0 || (rc < 0 && errno == EINTR)) continue;
    if (rc < 0) {
      LOG(LEVEL_ERROR, "gpiod: waiting for edges on pin %d failed: %s", w->pin, strerror(errno));
      return;
    }
    // The kernel queues every edge; each one runs the routine once, in order.
    const int n = gpiod_line_event_read_multiple(w->line, events, kEventBatch);
    if (n < 0) {
      if (errno == EINTR) continue;
      LOG(LEVEL_ERROR, "gpiod: reading edges on pin %d failed: %s", w->pin, strerror(errno));
      return;
    }
    for (int i = 0; i < n && !w->stop.load(std::memory_order_acquire); ++i) {
      try {
        w->isr();
      } catch (const std::exception& e) {
        LOG(LEVEL_ERROR, "interrupt routine of pin %d threw: %s", w->pin, e.what());
      } catch (...) {
        LOG(LEVEL_ERROR, "interrupt routine of pin %d threw", w->pin);
      }
    }
  }
}

void GpiodGpio::stopInterrupts() {
  std::vector<std::unique_ptr<Watcher>> stopping;
  {
    std::lock_guard lock(mutex_);
    stopping.swap(watchers_);
  }
  for (auto& w : stopping) w->stop.store(true, std::memory_order_release);
  for (auto& w : stopping) {
    if (w->thread.get_id() == std::this_thread::get_id()) {
      LOG(LEVEL_ERROR, "stopInterrupts called from the interrupt routine of pin %d", w->pin);
      w->thread.detach();
      (void)w.release();  // the thread still uses it; it ends when the routine returns
      continue;
    }
    w->thread.join();
  }
  std::lock_guard lock(mutex_);
  for (auto& w : stopping)
    if (w) releaseLocked(lines_[w->pin]);
}

// ---- I2C, the same calls wiringPi makes ----

int GpiodGpio::wiringPiI2CSetup(int devId) {
  if (i2cBus_.empty()) {
    LOG(LEVEL_ERROR, "gpiod: no I2C bus (/dev/i2c-1, /dev/i2c-0)");
    return -1;
  }
  Fd fd(open(i2cBus_.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd) {
    LOG(LEVEL_ERROR, "gpiod: cannot open %s: %s", i2cBus_.c_str(), strerror(errno));
    return -1;
  }
  if (ioctl(fd.get(), I2C_SLAVE, devId) < 0) {
    LOG(LEVEL_ERROR, "gpiod: cannot select I2C device 0x%02x: %s", devId, strerror(errno));
    return -1;
  }
  // The object keeps the descriptor; callers use the number until it is destroyed.
  std::lock_guard lock(i2cMutex_);
  i2cFds_.push_back(std::move(fd));
  return i2cFds_.back().get();
}

int GpiodGpio::wiringPiI2CRead(int fd) {
  i2c_smbus_data data{};
  return smbus(fd, I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE, &data) < 0 ? -1 : data.byte;
}

int GpiodGpio::wiringPiI2CWrite(int fd, int value) {
  return smbus(fd, I2C_SMBUS_WRITE, static_cast<uint8_t>(value), I2C_SMBUS_BYTE, nullptr);
}

int GpiodGpio::wiringPiI2CWriteReg8(int fd, int reg, int value) {
  i2c_smbus_data data{};
  data.byte = static_cast<uint8_t>(value);
  return smbus(fd, I2C_SMBUS_WRITE, static_cast<uint8_t>(reg), I2C_SMBUS_BYTE_DATA, &data);
}

int GpiodGpio::wiringPiI2CWriteReg16(int fd, int reg, int value) {
  i2c_smbus_data data{};
  data.word = static_cast<uint16_t>(value);
  return smbus(fd, I2C_SMBUS_WRITE, static_cast<uint8_t>(reg), I2C_SMBUS_WORD_DATA, &data);
}

int GpiodGpio::wiringPiI2CReadReg8(int fd, int reg) {
  i2c_smbus_data data{};
  return smbus(fd, I2C_SMBUS_READ, static_cast<uint8_t>(reg), I2C_SMBUS_BYTE_DATA, &data) < 0
             ? -1
             : data.byte;
}

int GpiodGpio::wiringPiI2CReadReg16(int fd, int reg) {
  i2c_smbus_data data{};
  return smbus(fd, I2C_SMBUS_READ, static_cast<uint8_t>(reg), I2C_SMBUS_WORD_DATA, &data) < 0
             ? -1
             : data.word;
}

}  // namespace

int wiringPiPinToBcm(int pin) {
  return pin >= 0 && pin < static_cast<int>(std::size(kBcmOfWiringPi)) ? kBcmOfWiringPi[pin] : -1;
}

std::unique_ptr<Gpio> createGpiodGpio(int failureLevel) {
  gpiod_chip* chip = openBoardChip();
  if (!chip) {
    LOG(failureLevel, "gpiod: no GPIO chip (/dev/gpiochip0): %s", strerror(errno));
    return nullptr;
  }
  LOG(LEVEL_INFO, "gpiod: using %s (%s, %u lines)", gpiod_chip_name(chip), gpiod_chip_label(chip),
      gpiod_chip_num_lines(chip));
  return std::make_unique<GpiodGpio>(chip, findI2cBus());
}

}  // namespace korvo
