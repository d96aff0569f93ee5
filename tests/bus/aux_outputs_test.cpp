// Serial, socket and I2C outputs and the UDP event service, each against the real
// thing: a pseudo terminal, loopback UDP sockets, the simulated I2C bus.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bus/event_service.h"
#include "bus/i2c_output.h"
#include "bus/serial_output.h"
#include "bus/socket_output.h"
#include "core/log.h"
#include "platform/sim_gpio.h"
#include "platform/sim_i2c.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

// Reads what arrived on `fd` within `ms` milliseconds.
std::string readAvailable(int fd, int ms) {
  std::string out;
  char buf[256];
  pollfd p{fd, POLLIN, 0};
  while (::poll(&p, 1, ms) > 0) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    ms = 20;
  }
  return out;
}

// A UDP socket bound to an ephemeral loopback port.
struct UdpPeer {
  int fd = -1;
  int port = 0;
  UdpPeer() {
    fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
  }
  ~UdpPeer() { ::close(fd); }
  void sendTo(int toPort, const std::string& data) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(toPort));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
  }
};

TEST(SerialOutput, SendsLinesToATerminalAndSurvivesItsLoss) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(grantpt(master), 0);
  ASSERT_EQ(unlockpt(master), 0);
  const std::string slave = ptsname(master);

  SerialOutput out(slave, 57600);
  ASSERT_TRUE(out.open());
  EXPECT_TRUE(out.serialSend("LED ON"));
  EXPECT_TRUE(out.serialSend("x"));
  EXPECT_EQ(readAvailable(master, 2000), "LED ON\nx\n");

  // Unplugged: the far end goes away; sends fail with a log line and do not throw.
  LogCapture cap;
  ::close(master);
  for (int i = 0; i < 3; ++i) out.serialSend("lost");
  EXPECT_TRUE(cap.contains("serial device"));
}

TEST(SerialOutput, MissingDeviceIsRetriedAtMostOnceASecond) {
  LogCapture cap;
  SerialOutput out("/dev/korvo-no-such-tty", 9600);
  EXPECT_FALSE(out.open());
  EXPECT_TRUE(cap.contains("open serial device /dev/korvo-no-such-tty failed"));
  EXPECT_FALSE(out.serialSend("a"));
  EXPECT_TRUE(cap.contains("not open, dropping 'a'"));
  EXPECT_FALSE(out.isOpen());
}

TEST(SocketOutput, SendsOneDatagramPerCommand) {
  UdpPeer server;
  SocketOutput out("127.0.0.1", server.port);
  ASSERT_TRUE(out.open());
  EXPECT_TRUE(out.sendSocketCmd("play 12"));
  EXPECT_EQ(readAvailable(server.fd, 2000), "play 12");
}

TEST(SocketOutput, UnresolvableHostIsLoggedAndSendsDropped) {
  LogCapture cap;
  SocketOutput out("no-such-host.invalid", 19999);
  EXPECT_FALSE(out.open());
  EXPECT_FALSE(out.sendSocketCmd("x"));
  SocketOutput badPort("127.0.0.1", 70000);
  EXPECT_FALSE(badPort.open());
  EXPECT_TRUE(cap.contains("cannot resolve 'no-such-host.invalid'"));
  EXPECT_TRUE(cap.contains("invalid address '127.0.0.1:70000'"));
}

// Records every write transaction; answers only while `answering`.
class RecordingI2cDevice : public SimI2cDevice {
 public:
  bool write(std::span<const uint8_t> bytes) override {
    std::lock_guard lock(m_);
    if (!answering) return false;
    writes_.emplace_back(bytes.begin(), bytes.end());
    return true;
  }
  bool read(std::span<uint8_t> out) override {
    for (auto& b : out) b = 0;
    return answering;
  }
  std::vector<std::vector<uint8_t>> writes() const {
    std::lock_guard lock(m_);
    return writes_;
  }
  std::atomic<bool> answering{true};

 private:
  mutable std::mutex m_;
  std::vector<std::vector<uint8_t>> writes_;
};

using Bytes = std::vector<std::vector<uint8_t>>;

TEST(I2cOutput, WritesCommandBytesRegistersAndWords) {
  SimGpio gpio;
  auto dev = std::make_unique<RecordingI2cDevice>();
  RecordingI2cDevice* d = dev.get();
  gpio.addI2cDevice(0x50, std::move(dev));
  I2cOutput i2c(gpio);
  // One single-byte transaction per value, decimal or hex, command word in any case.
  EXPECT_EQ(i2c.sendI2CCmd("i2cwrite 0x50 0x01 255"), 0);
  EXPECT_EQ(d->writes(), (Bytes{{0x01}, {0xFF}}));
  EXPECT_EQ(i2c.sendI2C(0x50, 0x10, 0x5A), 0);
  EXPECT_EQ(i2c.sendI2C(80, 0x11, std::nullopt), 0);  // no value: the register is the data
  EXPECT_EQ(i2c.sendI2CW(0x50, 0x12, 0x1234), 0);      // low byte first
  EXPECT_EQ(d->writes(), (Bytes{{0x01}, {0xFF}, {0x10, 0x5A}, {0x11}, {0x12, 0x34, 0x12}}));
  // At most 10 words: the 9th value and beyond are not written.
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE 0x50 1 2 3 4 5 6 7 8 9 10"), 0);
  EXPECT_EQ(d->writes().size(), 13u);
}

TEST(I2cOutput, BadCommandsAndSilentDevicesAreLogged) {
  SimGpio gpio;
  auto dev = std::make_unique<RecordingI2cDevice>();
  RecordingI2cDevice* d = dev.get();
  gpio.addI2cDevice(0x50, std::move(dev));
  I2cOutput i2c(gpio);
  LogCapture cap;
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE"), -1);
  EXPECT_TRUE(cap.contains("I2C command not recognized: I2CWRITE"));
  EXPECT_EQ(i2c.sendI2CCmd("I2CREAD 0x50 1"), -1);
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE 0x51 1"), -1);
  EXPECT_TRUE(cap.contains("open i2c device 0x51 failed"));
  EXPECT_EQ(i2c.sendI2C(0x200, 1, std::nullopt), -1);

  // A device that stops answering: every byte fails, each is logged, the loop goes on.
  d->answering = false;
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE 0x50 1 2"), -1);
  EXPECT_EQ(i2c.sendI2CW(0x50, 1, 2), -1);
  EXPECT_TRUE(cap.contains("writing to i2c device 0x50 failed"));
  d->answering = true;
  EXPECT_EQ(i2c.sendI2CCmd("I2CWRITE 0x50 3"), 0);
  EXPECT_EQ(d->writes(), (Bytes{{0x03}}));
}

class EventServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(events.start(0, "127.0.0.1"));
    events.addEventHandler([this](const std::string& e) {
      std::lock_guard lock(m);
      got.push_back("a:" + e);
      cv.notify_all();
    });
    events.addEventHandler([this](const std::string& e) {
      std::lock_guard lock(m);
      got.push_back("b:" + e);
      cv.notify_all();
    });
  }
  bool waitFor(std::size_t n) {
    std::unique_lock lock(m);
    return cv.wait_for(lock, std::chrono::seconds(5), [&] { return got.size() >= n; });
  }
  EventService events;
  UdpPeer client;
  std::mutex m;
  std::condition_variable cv;
  std::vector<std::string> got;
};

TEST_F(EventServiceTest, DatagramReachesEveryHandlerInOrder) {
  client.sendTo(events.port(), "ball drained\r\n");
  ASSERT_TRUE(waitFor(2));
  std::lock_guard lock(m);
  EXPECT_EQ(got, (std::vector<std::string>{"a:ball drained", "b:ball drained"}));
}

TEST_F(EventServiceTest, OversizedBinaryAndEmptyDatagramsAreDropped) {
  LogCapture cap;
  client.sendTo(events.port(), std::string(1501, 'x'));
  client.sendTo(events.port(), std::string("bin\0ary", 7));
  client.sendTo(events.port(), "\r\n");
  client.sendTo(events.port(), std::string(1500, 'y'));
  ASSERT_TRUE(waitFor(2));
  {
    std::lock_guard lock(m);
    EXPECT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], "a:" + std::string(1500, 'y'));
  }
  EXPECT_EQ(events.datagramsDropped(), 2u);
  events.stop();
  EXPECT_TRUE(cap.contains("event datagram longer than 1500 bytes dropped"));
  EXPECT_TRUE(cap.contains("binary event datagram"));
}

TEST(EventService, HandlerExceptionsStayOnItsThreadAndTheServiceGoesOn) {
  EventService events;
  ASSERT_TRUE(events.start(0, "127.0.0.1"));
  std::atomic<int> calls{0};
  events.addEventHandler([&](const std::string&) {
    ++calls;
    throw std::runtime_error("script error");
  });
  UdpPeer client;
  client.sendTo(events.port(), "one");
  client.sendTo(events.port(), "two");
  for (int i = 0; i < 500 && events.eventsDelivered() < 2; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(calls.load(), 2);
  EXPECT_FALSE(EventService().start(-1, "127.0.0.1"));
}

}  // namespace
}  // namespace korvo::test
