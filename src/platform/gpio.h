// GPIO and I2C behind one interface, shaped like the wiringPi calls the daemon uses.
// Pin numbers everywhere are wiringPi numbers; pins from 100 up belong to the MCP23017
// port extender once mcp23017Setup(100, 0x20) has run.
//
// Backends: "sim" (always available; pins and I2C devices in memory), "gpiod"
// (libgpiod 1.6 on /dev/gpiochipN, I2C through /dev/i2c-N), "wiringpi" (the board
// library, loaded with dlopen). createGpio("auto") picks wiringpi on a Raspberry Pi
// that has the library, else gpiod when /dev/gpiochip0 exists, else sim.
#pragma once

#include <functional>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace korvo {

enum { INPUT = 0, OUTPUT = 1 };
enum { LOW = 0, HIGH = 1 };
enum { PUD_OFF = 0, PUD_DOWN = 1, PUD_UP = 2 };
enum { INT_EDGE_SETUP = 0, INT_EDGE_FALLING = 1, INT_EDGE_RISING = 2, INT_EDGE_BOTH = 3 };

constexpr int kPortExtenderPinBase = 100;
constexpr int kPortExtenderAddress = 0x20;

class Gpio {
 public:
  using Isr = std::function<void()>;
  virtual ~Gpio() = default;

  // "sim", "gpiod" or "wiringpi".
  virtual const char* name() const = 0;
  // 0 on success, -1 with an ERROR line.
  virtual int wiringPiSetup() = 0;
  virtual void pinMode(int pin, int mode) = 0;
  virtual void pullUpDnControl(int pin, int pud) = 0;
  virtual int digitalRead(int pin) = 0;
  virtual void digitalWrite(int pin, int value) = 0;
  // Runs `isr` on a thread of its own for this pin on every matching edge (one thread
  // per registered pin, as wiringPi does). 0 on success, -1 on failure.
  virtual int wiringPiISR(int pin, int edge, Isr isr) = 0;
  // Stops and joins every interrupt thread; called at shutdown and by tests.
  virtual void stopInterrupts() = 0;

  // I2C: true when an I2C bus exists (/dev/i2c-0 or /dev/i2c-1 on a board).
  virtual bool hasI2C() = 0;
  // A handle for the device at `devId`, or -1.
  virtual int wiringPiI2CSetup(int devId) = 0;
  virtual int wiringPiI2CRead(int fd) = 0;
  virtual int wiringPiI2CWrite(int fd, int data) = 0;
  virtual int wiringPiI2CWriteReg8(int fd, int reg, int data) = 0;
  virtual int wiringPiI2CWriteReg16(int fd, int reg, int data) = 0;
  virtual int wiringPiI2CReadReg8(int fd, int reg) = 0;
  virtual int wiringPiI2CReadReg16(int fd, int reg) = 0;
  // Plain transactions for devices that need more than the SMBus shapes (display data,
  // DSP parameter blocks): one write of `bytes`, one read filling `out`; 0 on success,
  // -1 on failure. The gpiod and wiringPi handles are /dev/i2c-N descriptors with the
  // device selected, so the default goes through write(2) and read(2).
  virtual int i2cWriteBlock(int fd, std::span<const uint8_t> bytes);
  virtual int i2cReadBlock(int fd, std::span<uint8_t> out);

  // Maps pins pinBase..pinBase+15 to an MCP23017 at `i2cAddress`; afterwards
  // pinMode/digitalRead/digitalWrite/pullUpDnControl on those pins go through I2C.
  // Returns 1 on success, 0 if the device does not answer.
  virtual int mcp23017Setup(int pinBase, int i2cAddress) = 0;
};

// Creates the backend named by `choice` ("auto", "sim", "gpiod", "wiringpi"; empty =
// the KORVO_GPIO environment variable, else "auto"). A named backend that cannot start
// (no GPIO chip, no library) logs an ERROR line and returns null; "auto" falls back to
// sim. The choice is logged at INFO.
std::unique_ptr<Gpio> createGpio(const std::string& choice = "");

}  // namespace korvo
