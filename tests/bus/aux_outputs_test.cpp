// Serial, socket and I2C outputs and the UDP event service, each against the real
// thing: a pseudo terminal, loopback UDP sockets, the simulated I2C bus.
#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "bus/event_service.h"
#include "bus/i2c_output.h"
#include "bus/serial_output.h"
#include "bus/socket_output.h"
#include "platform/sim_gpio.h"
#include "platform/sim_i2c.h"
#include "support/loopback.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

// Reads what arrived on `fd` within `ms` milliseconds.
std::string readAvailable(int fd, int ms) {
  std::string out;
  char buf[256];
  pollfd p{fd, POLLIN, 0};
  for (ssize_t n; ::poll(&p, 1, ms) > 0 && (n = ::read(fd, buf, sizeof buf)) > 0; ms = 20)
    out.append(buf, static_cast<std::size_t>(n));
  return out;
}

TEST(SerialOutput, SendsLinesToATerminalAndSurvivesItsLoss) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(grantpt(master), 0);
  ASSERT_EQ(unlockpt(master), 0);
  SerialOutput out(ptsname(master), 57600);
  ASSERT_TRUE(out.open());
  EXPECT_TRUE(out.serialSend("LED ON"));
  EXPECT_TRUE(out.serialSend("x"));
  EXPECT_EQ(readAvailable(master, 2000), "LED ON\nx\n");
  // Unplugged: the far end goes away; sends fail with a log line and do not throw.
  LogCapture cap;
  ::close(master);
  for (int i = 0; i < 3; ++i) out.serialSend("lost");
  EXPECT_TRUE(cap.contains("serial device"));
  // A device that is not there: refused, sends dropped with a log line.
  SerialOutput missing("/dev/korvo-no-such-tty", 9600);
  EXPECT_FALSE(missing.open());
  EXPECT_FALSE(missing.serialSend("a"));
  EXPECT_TRUE(cap.contains("open serial device /dev/korvo-no-such-tty failed"));
  EXPECT_TRUE(cap.contains("not open, dropping 'a'"));
}

TEST(SocketOutput, SendsOneDatagramPerCommandAndRefusesBadAddresses) {
  UdpSocket server;
  SocketOutput out("127.0.0.1", server.port());
  ASSERT_TRUE(out.open());
  EXPECT_TRUE(out.sendSocketCmd("play 12"));
  EXPECT_EQ(readAvailable(server.fd(), 2000), "play 12");
  LogCapture cap;
  SocketOutput unknown("no-such-host.invalid", 19999);
  EXPECT_FALSE(unknown.open());
  EXPECT_FALSE(unknown.sendSocketCmd("x"));
  EXPECT_FALSE(SocketOutput("127.0.0.1", 70000).open());
  EXPECT_TRUE(cap.contains("cannot resolve 'no-such-host.invalid'"));
  EXPECT_TRUE(cap.contains("invalid address '127.0.0.1:70000'"));
}

// Records every write transaction; answers only while `answering`.
class RecordingI2cDevice : public SimI2cDevice {
 public:
  bool write(std::span<const uint8_t> bytes) override {
    std::lock_guard lock(m_);
    if (answering) writes_.emplace_back(bytes.begin(), bytes.end());
    return answering;
  }
  bool read(std::span<uint8_t> out) override {
    std::fill(out.begin(), out.end(), 0);
    return answering;
  }
  std::vector<std::vector<uint8_t>> writes() {
    std::lock_guard lock(m_);
    return std::exchange(writes_, {});
  }
  std::atomic<bool> answering{true};

 private:
  std::mutex m_;
  std::vector<std::vector<uint8_t>> writes_;
};

using Bytes = std::vector<std::vector<uint8_t>>;

TEST(I2cOutput, WritesCommandsRegistersAndWordsAndLogsFailures) {
  SimGpio gpio;
  auto dev = std::make_unique<RecordingI2cDevice>();
  RecordingI2cDevice* d = dev.get();
  gpio.addI2cDevice(0x50, std::move(dev));
  I2cOutput i2c(gpio);
  // One single-byte transaction per value, decimal or hex, command word in any case.
  EXPECT_EQ(i2c.sendI2CCmd("i2cwrite 0x50 0x01 255"), 0);
  EXPECT_EQ(i2c.sendI2C(0x50, 0x10, 0x5A), 0);
  EXPECT_EQ(i2c.sendI2C(80, 0x11, std::nullopt), 0);  // no value: the register is the data
  EXPECT_EQ(i2c.sendI2CW(0x50, 0x12, 0x1234), 0);      // low byte first
  EXPECT_EQ(d->writes(), (Bytes{{0x01}, {0xFF}, {0x10, 0x5A}, {0x11}, {0x12, 0x34, 0x12}}));
  // At most 10 words: the 9th value and beyond are not written.
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE 0x50 1 2 3 4 5 6 7 8 9 10"), 0);
  EXPECT_EQ(d->writes().size(), 8u);

  LogCapture cap;
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE"), -1);
  EXPECT_EQ(i2c.sendI2CCmd("I2CREAD 0x50 1"), -1);
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE 0x51 1"), -1);
  EXPECT_EQ(i2c.sendI2C(0x200, 1, std::nullopt), -1);
  EXPECT_TRUE(cap.contains("I2C command not recognized: I2CWRITE"));
  EXPECT_TRUE(cap.contains("open i2c device 0x51 failed"));
  // A device that stops answering: every byte fails, each is logged, the loop goes on.
  d->answering = false;
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE 0x50 1 2"), -1);
  EXPECT_EQ(i2c.sendI2CW(0x50, 1, 2), -1);
  EXPECT_TRUE(cap.contains("writing to i2c device 0x50 failed"));
  d->answering = true;
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE 0x50 3"), 0);
  EXPECT_EQ(d->writes(), (Bytes{{0x03}}));
}

// Every handler gets each good datagram in order; one that throws stops neither the
// others nor the service; bad datagrams are dropped with a log line.
TEST(EventService, DeliversGoodDatagramsToEveryHandlerAndDropsBadOnes) {
  EventService events;
  ASSERT_TRUE(events.start(0, "127.0.0.1"));
  EXPECT_FALSE(EventService().start(-1, "127.0.0.1"));
  std::mutex m;
  std::vector<std::string> got;
  auto record = [&](const std::string& e) {
    std::lock_guard lock(m);
    got.push_back(e);
  };
  events.addEventHandler([&](const std::string& e) { record("a:" + e); });
  events.addEventHandler([&](const std::string& e) {
    record("b:" + e);
    throw std::runtime_error("script error");
  });
  LogCapture cap;
  UdpSocket client;
  client.sendTo(events.port(), "ball drained\r\n");
  client.sendTo(events.port(), std::string(1501, 'x'));
  client.sendTo(events.port(), std::string("bin\0ary", 7));
  client.sendTo(events.port(), "\r\n");
  client.sendTo(events.port(), std::string(1500, 'y'));
  auto count = [&] {
    std::lock_guard lock(m);
    return got.size();
  };
  // The last datagram sent is the fourth to be delivered: the others came before it.
  ASSERT_TRUE(waitUntil([&] { return count() >= 4; }));
  events.stop();
  const std::string y(1500, 'y');
  EXPECT_EQ(got, (std::vector<std::string>{"a:ball drained", "b:ball drained", "a:" + y, "b:" + y}));
  EXPECT_EQ(events.datagramsDropped(), 2u);
  EXPECT_TRUE(cap.contains("event datagram longer than 1500 bytes dropped"));
  EXPECT_TRUE(cap.contains("binary event datagram"));
}

}  // namespace
}  // namespace korvo::test
