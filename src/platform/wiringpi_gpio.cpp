#include "platform/wiringpi_gpio.h"

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "base/log.h"
#include "platform/mcp23017.h"

namespace korvo {

namespace {

constexpr int kIsrPins = 64;

// wiringPiISR takes a plain void(*)(void) and no context, so the routine of each pin has
// to be found from a trampoline that knows only its pin number: this table is file-level
// state only because that C callback forces it. Slots hold shared pointers so a routine
// being replaced or cleared is never destroyed while a library thread is running it.
struct IsrTable {
  std::mutex mutex;  // guards slots; held only to copy a pointer in or out
  std::array<std::shared_ptr<const Gpio::Isr>, kIsrPins> slots;
};

IsrTable& isrTable() {
  // Never destroyed: library threads that cannot be stopped may still fire during exit.
  static IsrTable* table = new IsrTable;
  return *table;
}

// Runs on the library's interrupt thread for `pin`.
void dispatchIsr(int pin) {
  std::shared_ptr<const Gpio::Isr> isr;
  {
    IsrTable& t = isrTable();
    std::lock_guard lock(t.mutex);
    isr = t.slots[pin];
  }
  if (!isr) return;  // stopped; the library's thread may outlive the routine
  // No exception may unwind into the C library.
  try {
    (*isr)();
  } catch (const std::exception& e) {
    LOG(LEVEL_ERROR, "interrupt routine of pin %d threw: %s", pin, e.what());
  } catch (...) {
    LOG(LEVEL_ERROR, "interrupt routine of pin %d threw", pin);
  }
}

template <int Pin>
void trampoline() {
  dispatchIsr(Pin);
}

template <std::size_t... Pins>
constexpr std::array<void (*)(), sizeof...(Pins)> makeTrampolines(std::index_sequence<Pins...>) {
  return {&trampoline<static_cast<int>(Pins)>...};
}

constexpr auto kTrampolines = makeTrampolines(std::make_index_sequence<kIsrPins>{});

// The library's calls, resolved with dlsym.
struct WiringPiApi {
  int (*wiringPiSetup)() = nullptr;
  void (*pinMode)(int, int) = nullptr;
  void (*pullUpDnControl)(int, int) = nullptr;
  int (*digitalRead)(int) = nullptr;
  void (*digitalWrite)(int, int) = nullptr;
  int (*wiringPiISR)(int, int, void (*)()) = nullptr;
  int (*wiringPiISRStop)(int) = nullptr;  // optional: only newer releases have it
  int (*wiringPiI2CSetup)(int) = nullptr;
  int (*wiringPiI2CRead)(int) = nullptr;
  int (*wiringPiI2CWrite)(int, int) = nullptr;
  int (*wiringPiI2CWriteReg8)(int, int, int) = nullptr;
  int (*wiringPiI2CWriteReg16)(int, int, int) = nullptr;
  int (*wiringPiI2CReadReg8)(int, int) = nullptr;
  int (*wiringPiI2CReadReg16)(int, int) = nullptr;
};

template <class F>
bool resolve(void* handle, const char* symbol, F& fn, std::string& missing) {
  fn = reinterpret_cast<F>(dlsym(handle, symbol));
  if (!fn) missing += std::string(missing.empty() ? "" : ", ") + symbol;
  return fn != nullptr;
}

class WiringPiGpio final : public Gpio {
 public:
  explicit WiringPiGpio(const WiringPiApi& api) : api_(api) {}
  ~WiringPiGpio() override { stopInterrupts(); }

  const char* name() const override { return "wiringpi"; }
  int wiringPiSetup() override {
    const int rc = api_.wiringPiSetup();
    if (rc < 0) LOG(LEVEL_ERROR, "wiringPiSetup failed (%d)", rc);
    return rc < 0 ? -1 : 0;
  }
  void pinMode(int pin, int mode) override {
    if (Mcp23017* ext = extenders_.find(pin)) return ext->pinMode(pin, mode);
    api_.pinMode(pin, mode);
  }
  void pullUpDnControl(int pin, int pud) override {
    if (Mcp23017* ext = extenders_.find(pin)) return ext->pullUpDnControl(pin, pud);
    api_.pullUpDnControl(pin, pud);
  }
  int digitalRead(int pin) override {
    if (Mcp23017* ext = extenders_.find(pin)) return ext->digitalRead(pin);
    return api_.digitalRead(pin);
  }
  void digitalWrite(int pin, int value) override {
    if (Mcp23017* ext = extenders_.find(pin)) return ext->digitalWrite(pin, value);
    api_.digitalWrite(pin, value);
  }
  int wiringPiISR(int pin, int edge, Isr isr) override;
  void stopInterrupts() override;

  bool hasI2C() override { return access("/dev/i2c-1", F_OK) == 0 || access("/dev/i2c-0", F_OK) == 0; }
  int wiringPiI2CSetup(int devId) override { return api_.wiringPiI2CSetup(devId); }
  int wiringPiI2CRead(int fd) override { return api_.wiringPiI2CRead(fd); }
  int wiringPiI2CWrite(int fd, int data) override { return api_.wiringPiI2CWrite(fd, data); }
  int wiringPiI2CWriteReg8(int fd, int reg, int data) override {
    return api_.wiringPiI2CWriteReg8(fd, reg, data);
  }
  int wiringPiI2CWriteReg16(int fd, int reg, int data) override {
    return api_.wiringPiI2CWriteReg16(fd, reg, data);
  }
  int wiringPiI2CReadReg8(int fd, int reg) override { return api_.wiringPiI2CReadReg8(fd, reg); }
  int wiringPiI2CReadReg16(int fd, int reg) override { return api_.wiringPiI2CReadReg16(fd, reg); }
  int mcp23017Setup(int pinBase, int i2cAddress) override {
    return extenders_.setup(*this, pinBase, i2cAddress);
  }

 private:
  const WiringPiApi api_;
  std::mutex mutex_;  // guards pins_
  std::vector<int> pins_;  // pins whose routine this object installed
  ExtenderPins extenders_;
};

int WiringPiGpio::wiringPiISR(int pin, int edge, Isr isr) {
  if (pin < 0 || pin >= kIsrPins || !isr) {
    LOG(LEVEL_ERROR, "wiringpi: cannot register an interrupt on pin %d", pin);
    return -1;
  }
  std::lock_guard lock(mutex_);
  {
    IsrTable& t = isrTable();
    std::lock_guard tableLock(t.mutex);
    if (t.slots[pin]) {
      LOG(LEVEL_ERROR, "wiringpi: pin %d already has an interrupt routine", pin);
      return -1;
    }
    t.slots[pin] = std::make_shared<const Isr>(std::move(isr));
  }
  if (api_.wiringPiISR(pin, edge, kTrampolines[pin]) < 0) {
    LOG(LEVEL_ERROR, "wiringpi: wiringPiISR failed on pin %d", pin);
    IsrTable& t = isrTable();
    std::lock_guard tableLock(t.mutex);
    t.slots[pin].reset();
    return -1;
  }
  pins_.push_back(pin);
  return 0;
}

void WiringPiGpio::stopInterrupts() {
  std::vector<int> pins;
  {
    std::lock_guard lock(mutex_);
    pins.swap(pins_);
  }
  for (int pin : pins) {
    // Releases join the library's thread where the library can; older ones cannot stop
    // it, and then the emptied slot turns its later edges into no-ops.
    if (api_.wiringPiISRStop) api_.wiringPiISRStop(pin);
    IsrTable& t = isrTable();
    std::lock_guard tableLock(t.mutex);
    t.slots[pin].reset();
  }
}

}  // namespace

std::unique_ptr<Gpio> createWiringPiGpio(const std::string& library, int failureLevel) {
  // Without this the library calls exit() when it meets a board or an I2C bus it does
  // not know, instead of returning an error. Set before any thread runs (start-up).
  setenv("WIRINGPI_CODES", "1", 0);
  // Never closed: interrupt threads of older releases cannot be stopped and would run
  // in unmapped code.
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    LOG(failureLevel, "wiringpi: cannot load %s: %s", library.c_str(), dlerror());
    return nullptr;
  }
  WiringPiApi api;
  std::string missing;
  resolve(handle, "wiringPiSetup", api.wiringPiSetup, missing);
  resolve(handle, "pinMode", api.pinMode, missing);
  resolve(handle, "pullUpDnControl", api.pullUpDnControl, missing);
  resolve(handle, "digitalRead", api.digitalRead, missing);
  resolve(handle, "digitalWrite", api.digitalWrite, missing);
  resolve(handle, "wiringPiISR", api.wiringPiISR, missing);
  resolve(handle, "wiringPiI2CSetup", api.wiringPiI2CSetup, missing);
  resolve(handle, "wiringPiI2CRead", api.wiringPiI2CRead, missing);
  resolve(handle, "wiringPiI2CWrite", api.wiringPiI2CWrite, missing);
  resolve(handle, "wiringPiI2CWriteReg8", api.wiringPiI2CWriteReg8, missing);
  resolve(handle, "wiringPiI2CWriteReg16", api.wiringPiI2CWriteReg16, missing);
  resolve(handle, "wiringPiI2CReadReg8", api.wiringPiI2CReadReg8, missing);
  resolve(handle, "wiringPiI2CReadReg16", api.wiringPiI2CReadReg16, missing);
  if (!missing.empty()) {
    LOG(failureLevel, "wiringpi: %s lacks %s", library.c_str(), missing.c_str());
    dlclose(handle);  // nothing of it has run yet
    return nullptr;
  }
  std::string optional;
  resolve(handle, "wiringPiISRStop", api.wiringPiISRStop, optional);
  return std::make_unique<WiringPiGpio>(api);
}

}  // namespace korvo
