// The owner of the machine side as the daemon drives it: start-up steps, main loop
// calls, shutdown.
#include <gtest/gtest.h>

#include "bus/bus.h"
#include "bus_fixture.h"
#include "support/manual_clock.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

TEST(Bus, StartUpMainLoopAndShutdown) {
  test::ManualClock manual(1'000'000);
  TempDir dir;
  writeFile(dir / "in.rec", "# bus recording v1 protocol=DATAEAST\n10 0x05\n20 0x06\n");
  Settings s;
  initSettings(&s);
  s.enableI2S = 0;
  s.enable_port_extender = 1;
  s.enableSerial = 1;
  s.serialDevice = (dir / "serial.out").string();  // a plain file stands in for the tty
  writeFile(dir / "serial.out", "");
  SimGpio gpio;
  CommandLog got;
  {
    Bus bus(gpio, s);
    ASSERT_EQ(bus.preInitGpio(), 0);
    ASSERT_TRUE(bus.startEventService(-1, "127.0.0.1"));  // port 0: an ephemeral one
    bus.openOutputs();
    bus.initGpio(got.consumers());
    ASSERT_TRUE(bus.startSession((dir / "in.rec").string(), (dir / "out.rec").string()));

    // A live byte is recorded, the replayed ones are delivered from the main loop.
    SimMachine machine(gpio, bus.pincom());
    ASSERT_TRUE(machine.sendByte(0x07));
    const uint64_t musicAckEdges = gpio.nextOutputEdgeSeq(14);
    bus.addPortPinSequence("102 5");
    for (unsigned long n = 1; n <= 500; ++n) {
      clock::advanceMillis(1);
      const unsigned now = static_cast<unsigned>(millis());
      bus.ackMusicIfDue(n, true);
      bus.updatePincom(now);
      bus.updatePlayback(now);
    }
    EXPECT_EQ(got.values(), (std::vector<unsigned>{0x07, 0x05, 0x06}));
    EXPECT_EQ(gpio.nextOutputEdgeSeq(14) - musicAckEdges, 4u);  // two music acknowledge pulses
    EXPECT_EQ(gpio.portExtender().pinLevel(2), 1);
    EXPECT_TRUE(bus.serialSend("hello"));
    EXPECT_FALSE(bus.sendSocketCmd("no socket configured"));
    bus.playbackShakerSequence(std::vector<uint32_t>{});
    bus.shutdown();
    bus.shutdown();
  }
  EXPECT_EQ(readFile(dir / "serial.out"), "hello\n");
  EXPECT_NE(readFile(dir / "out.rec").find(" 0x07\n"), std::string::npos);
}

}  // namespace
}  // namespace korvo::test
