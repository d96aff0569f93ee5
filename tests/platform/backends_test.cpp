// Backend choice and the two hardware backends, as far as a machine without the board
// can test them: failure paths, the pin map, and the wiringpi backend against a stand-in
// library that records the calls.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "base/log.h"
#include "platform/gpiod_gpio.h"
#include "platform/mcp23017.h"
#include "platform/wiringpi_gpio.h"
#include "support/testutil.h"

namespace korvo {
namespace {

bool machineHasGpioChip() {
  for (const auto& entry : std::filesystem::directory_iterator("/dev"))
    if (entry.path().filename().string().rfind("gpiochip", 0) == 0) return true;
  return false;
}

bool isRaspberryPi() {
  std::ifstream in("/proc/device-tree/model");
  std::string model;
  std::getline(in, model, '\0');
  return model.find("Raspberry Pi") != std::string::npos;
}

TEST(GpioBackend, PinMapFollowsTheHeader) {
  const std::pair<int, int> known[] = {{0, 17}, {1, 18}, {7, 4},  {8, 2},   {9, 3},  {15, 14},
                                       {16, 15}, {21, 5}, {25, 26}, {29, 21}, {30, 0}, {31, 1}};
  for (auto [pin, bcm] : known) EXPECT_EQ(wiringPiPinToBcm(pin), bcm) << "pin " << pin;
  for (int pin : {-1, 17, 18, 19, 20, 32, 100}) EXPECT_EQ(wiringPiPinToBcm(pin), -1) << "pin " << pin;
  std::set<int> lines;
  for (int pin = 0; pin < 32; ++pin)
    if (int bcm = wiringPiPinToBcm(pin); bcm >= 0) {
      EXPECT_TRUE(lines.insert(bcm).second) << bcm;
    }
  EXPECT_EQ(lines.size(), 28u);  // BCM 0..27, each once
  EXPECT_EQ(*lines.rbegin(), 27);
}

TEST(GpioBackend, GpiodFailsCleanlyWithoutAChip) {
  if (machineHasGpioChip()) GTEST_SKIP() << "this machine has a GPIO chip";
  test::LogCapture log;
  EXPECT_EQ(createGpio("gpiod"), nullptr);
  EXPECT_TRUE(log.contains("ERROR"));
  EXPECT_TRUE(log.contains("no GPIO chip"));
}

TEST(GpioBackend, WiringPiFailsCleanlyWithoutTheLibrary) {
  test::LogCapture log;
  EXPECT_EQ(createWiringPiGpio("libkorvo-no-such-library.so", LEVEL_ERROR), nullptr);
  EXPECT_TRUE(log.contains("cannot load libkorvo-no-such-library.so"));

  if (void* h = dlopen(kWiringPiLibrary, RTLD_LAZY)) {
    dlclose(h);
    GTEST_SKIP() << "this machine has the library";
  }
  EXPECT_EQ(createGpio("wiringpi"), nullptr);
  EXPECT_TRUE(log.contains("gpio backend wiringpi is not available"));
}

// The hooks of the stand-in library.
struct FakeLibrary {
  void* handle = dlopen(KORVO_FAKE_WIRINGPI, RTLD_NOW | RTLD_LOCAL);
  template <class F>
  F* hook(const char* name) {
    return reinterpret_cast<F*>(dlsym(handle, name));
  }
  ~FakeLibrary() {
    if (handle) dlclose(handle);
  }
};

TEST(GpioBackend, WiringPiBackendDrivesTheLibrary) {
  auto gpio = createWiringPiGpio(KORVO_FAKE_WIRINGPI, LEVEL_ERROR);
  ASSERT_NE(gpio, nullptr);
  FakeLibrary fake;  // the same mapping the backend loaded
  ASSERT_NE(fake.handle, nullptr) << dlerror();
  auto level = fake.hook<int(int)>("fake_level");
  auto setLevel = fake.hook<void(int, int)>("fake_set_level");
  auto fire = fake.hook<int(int)>("fake_fire");
  auto fireStale = fake.hook<int(int)>("fake_fire_stale");
  auto stops = fake.hook<int(int)>("fake_stops");
  auto reg = fake.hook<int(int)>("fake_reg");
  ASSERT_TRUE(level && setLevel && fire && fireStale && stops && reg);

  EXPECT_STREQ(gpio->name(), "wiringpi");
  EXPECT_EQ(gpio->wiringPiSetup(), 0);
  gpio->pinMode(4, OUTPUT);
  gpio->digitalWrite(4, HIGH);
  EXPECT_EQ(level(4), 1);
  setLevel(5, 1);
  EXPECT_EQ(gpio->digitalRead(5), HIGH);

  // The library stays loaded for the process, so its counters carry over repeats.
  const int stops3 = stops(3), stops63 = stops(63);
  // Each pin's plain C callback reaches that pin's routine and no other.
  int runs3 = 0, runs63 = 0;
  ASSERT_EQ(gpio->wiringPiISR(3, INT_EDGE_FALLING, [&] { ++runs3; }), 0);
  ASSERT_EQ(gpio->wiringPiISR(63, INT_EDGE_RISING, [&] { ++runs63; }), 0);
  EXPECT_EQ(fire(63), 1);
  EXPECT_EQ(runs3, 0);
  EXPECT_EQ(runs63, 1);
  EXPECT_EQ(fire(3), 1);
  EXPECT_EQ(runs3, 1);

  gpio->stopInterrupts();
  EXPECT_EQ(stops(3), stops3 + 1);
  EXPECT_EQ(stops(63), stops63 + 1);
  // A library thread that outlives the stop finds no routine any more.
  EXPECT_EQ(fireStale(3), 1);
  EXPECT_EQ(runs3, 1);
  ASSERT_EQ(gpio->wiringPiISR(3, INT_EDGE_FALLING, [&] { runs3 += 10; }), 0);
  EXPECT_EQ(fire(3), 1);
  EXPECT_EQ(runs3, 11);
  gpio->stopInterrupts();

  // The port extender goes through the library's I2C calls.
  ASSERT_EQ(gpio->mcp23017Setup(kPortExtenderPinBase, kPortExtenderAddress), 1);
  EXPECT_EQ(reg(mcp23017::IOCON), mcp23017::IOCON_SEQOP);
  gpio->digitalWrite(109, HIGH);
  gpio->pullUpDnControl(103, PUD_UP);
  EXPECT_EQ(reg(mcp23017::OLATB), 0x02);
  EXPECT_EQ(reg(mcp23017::GPPUA), 0x08);
  EXPECT_EQ(level(9), 0);  // board pin 9 untouched
  test::LogCapture log;
  EXPECT_EQ(gpio->mcp23017Setup(116, 0x21), 0);
}

TEST(GpioBackend, CreateGpioChoosesAndLogsTheBackend) {
  test::LogCapture log(LEVEL_INFO);
  auto sim = createGpio("sim");
  ASSERT_NE(sim, nullptr);
  EXPECT_STREQ(sim->name(), "sim");
  EXPECT_TRUE(log.contains("gpio backend: sim"));

  if (!isRaspberryPi() && access("/dev/gpiochip0", F_OK) != 0) {
    auto automatic = createGpio("auto");
    ASSERT_NE(automatic, nullptr);
    EXPECT_STREQ(automatic->name(), "sim");
  }

  const char* previous = getenv("KORVO_GPIO");
  const std::string saved = previous ? previous : "";
  setenv("KORVO_GPIO", "sim", 1);
  auto fromEnv = createGpio("");
  ASSERT_NE(fromEnv, nullptr);
  EXPECT_STREQ(fromEnv->name(), "sim");
  setenv("KORVO_GPIO", "bogus", 1);
  EXPECT_EQ(createGpio(""), nullptr);
  EXPECT_TRUE(log.contains("unknown gpio backend 'bogus'"));
  if (previous)
    setenv("KORVO_GPIO", saved.c_str(), 1);
  else
    unsetenv("KORVO_GPIO");
}

}  // namespace
}  // namespace korvo
