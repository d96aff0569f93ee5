/* A stand-in for the board's GPIO library with the calls the wiringpi backend resolves:
 * pins and one I2C device's registers in memory, interrupts fired by the test through
 * the fake_* hooks. Used from one test thread at a time. */
#include <stddef.h>

enum { PINS = 64, DEVICE = 0x20, FIRST_FD = 100 };

static int levels[PINS], modes[PINS], pulls[PINS];
static void (*routines[PINS])(void);
/* What an older library keeps after a stop it cannot do: its thread still holds this. */
static void (*lastRoutine[PINS])(void);
static int stops[PINS];
static int setups;
static unsigned char regs[256];

static int validPin(int pin) { return pin >= 0 && pin < PINS; }

int wiringPiSetup(void) { return ++setups > 0 ? 0 : -1; }
void pinMode(int pin, int mode) { if (validPin(pin)) modes[pin] = mode; }
void pullUpDnControl(int pin, int pud) { if (validPin(pin)) pulls[pin] = pud; }
int digitalRead(int pin) { return validPin(pin) ? levels[pin] : 0; }
void digitalWrite(int pin, int value) { if (validPin(pin)) levels[pin] = value != 0; }

int wiringPiISR(int pin, int edge, void (*fn)(void)) {
  (void)edge;
  if (!validPin(pin) || !fn) return -1;
  routines[pin] = lastRoutine[pin] = fn;
  return 0;
}

int wiringPiISRStop(int pin) {
  if (!validPin(pin)) return -1;
  routines[pin] = NULL;
  ++stops[pin];
  return 0;
}

int wiringPiI2CSetup(int address) { return address == DEVICE ? FIRST_FD : -1; }
static int validFd(int fd) { return fd == FIRST_FD; }
int wiringPiI2CRead(int fd) { return validFd(fd) ? 0 : -1; }
int wiringPiI2CWrite(int fd, int data) { (void)data; return validFd(fd) ? 0 : -1; }
int wiringPiI2CWriteReg8(int fd, int reg, int data) {
  if (!validFd(fd)) return -1;
  regs[reg & 0xFF] = (unsigned char)data;
  return 0;
}
int wiringPiI2CWriteReg16(int fd, int reg, int data) {
  if (!validFd(fd)) return -1;
  regs[reg & 0xFF] = (unsigned char)data;
  regs[(reg + 1) & 0xFF] = (unsigned char)(data >> 8);
  return 0;
}
int wiringPiI2CReadReg8(int fd, int reg) { return validFd(fd) ? regs[reg & 0xFF] : -1; }
int wiringPiI2CReadReg16(int fd, int reg) {
  return validFd(fd) ? regs[reg & 0xFF] | regs[(reg + 1) & 0xFF] << 8 : -1;
}

/* ---- hooks for the test ---- */
int fake_level(int pin) { return validPin(pin) ? levels[pin] : -1; }
int fake_mode(int pin) { return validPin(pin) ? modes[pin] : -1; }
int fake_pull(int pin) { return validPin(pin) ? pulls[pin] : -1; }
void fake_set_level(int pin, int level) { if (validPin(pin)) levels[pin] = level; }
int fake_stops(int pin) { return validPin(pin) ? stops[pin] : -1; }
int fake_reg(int reg) { return regs[reg & 0xFF]; }
/* Runs the routine registered for the pin, as the library's interrupt thread would. */
int fake_fire(int pin) {
  if (!validPin(pin) || !routines[pin]) return 0;
  routines[pin]();
  return 1;
}
/* Runs the last routine ever registered, even after a stop. */
int fake_fire_stale(int pin) {
  if (!validPin(pin) || !lastRoutine[pin]) return 0;
  lastRoutine[pin]();
  return 1;
}
