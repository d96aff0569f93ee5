// The manual clock and the simulated pins: levels, output edges, interrupt threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"
#include "support/manual_clock.h"
#include "support/testutil.h"

namespace korvo {
namespace {

using namespace std::chrono_literals;
constexpr auto kWait = 10s;  // a generous real-time limit, not a timing assertion

using test::ManualClock;

TEST(ManualClock, MovesOnlyWhenAdvanced) {
  ManualClock manual(5'000'000);
  EXPECT_TRUE(clock::isManual());
  EXPECT_EQ(millis(), 5000u);
  std::this_thread::sleep_for(3ms);
  EXPECT_EQ(micros(), 5'000'000u);
  clock::advanceMillis(99);
  EXPECT_EQ(millis(), 5099u);
  delayMicroseconds(1500);  // advances instead of waiting
  EXPECT_EQ(micros(), 5'100'500u);
}

TEST(ManualClock, RealClockResumesAndIsMonotonic) {
  { ManualClock manual(0); }
  EXPECT_FALSE(clock::isManual());
  const unsigned long a = micros();
  delayMicroseconds(50);
  EXPECT_GE(micros(), a + 50);
}

TEST(SimGpio, InputLevelFollowsDriveThenPull) {
  SimGpio gpio;
  gpio.pinMode(3, INPUT);
  EXPECT_EQ(gpio.digitalRead(3), LOW);  // floating and no pull
  gpio.pullUpDnControl(3, PUD_UP);
  EXPECT_EQ(gpio.digitalRead(3), HIGH);
  gpio.pullUpDnControl(3, PUD_DOWN);
  EXPECT_EQ(gpio.digitalRead(3), LOW);
  gpio.pullUpDnControl(3, PUD_UP);
  gpio.setInput(3, LOW);  // a driven line beats the pull-up
  EXPECT_EQ(gpio.digitalRead(3), LOW);
  gpio.setInput(3, -1);  // disconnected again
  EXPECT_EQ(gpio.digitalRead(3), HIGH);
  EXPECT_EQ(gpio.pullOf(3), PUD_UP);

  // An output reads its own latch, whatever the outside drives.
  gpio.setInput(12, HIGH);
  gpio.pinMode(12, OUTPUT);
  EXPECT_EQ(gpio.digitalRead(12), LOW);
  gpio.digitalWrite(12, HIGH);
  EXPECT_EQ(gpio.digitalRead(12), HIGH);
  EXPECT_EQ(gpio.pinModeOf(12), OUTPUT);

  test::LogCapture log;
  EXPECT_EQ(gpio.digitalRead(64), LOW);
  gpio.digitalWrite(-1, HIGH);
  EXPECT_TRUE(log.contains("invalid pin 64"));
  EXPECT_TRUE(log.contains("invalid pin -1"));
}

TEST(SimGpio, OutputEdgesAreRecordedWithClockTimes) {
  ManualClock manual(1000);
  SimGpio gpio;
  gpio.pinMode(12, OUTPUT);  // latch LOW, line was LOW: no edge
  gpio.digitalWrite(12, HIGH);
  clock::advanceMicros(10);
  gpio.digitalWrite(12, HIGH);  // no change, no edge
  gpio.digitalWrite(12, LOW);
  delayMicroseconds(35);
  gpio.digitalWrite(12, HIGH);

  const auto edges = gpio.outputEdges(12);
  ASSERT_EQ(edges.size(), 3u);
  EXPECT_EQ(edges[0].level, HIGH);
  EXPECT_EQ(edges[0].us, 1000u);
  EXPECT_EQ(edges[1].level, LOW);
  EXPECT_EQ(edges[1].us, 1010u);
  EXPECT_EQ(edges[2].level, HIGH);
  EXPECT_EQ(edges[2].us, 1045u);
  EXPECT_EQ(edges[2].seq, 2u);
  EXPECT_EQ(gpio.nextOutputEdgeSeq(12), 3u);

  EXPECT_TRUE(gpio.waitOutputEdge(12, 1, HIGH, 0ms));
  EXPECT_FALSE(gpio.waitOutputEdge(12, 3, HIGH, 1ms));
  EXPECT_FALSE(gpio.waitOutputEdge(12, 2, LOW, 1ms));
  EXPECT_TRUE(gpio.outputEdges(5).empty());  // input pins record nothing
}

TEST(SimGpio, InterruptRunsOnMatchingEdgesOnItsOwnNamedThread) {
  SimGpio gpio;
  std::mutex m;
  std::vector<std::string> names;
  std::vector<std::thread::id> ids;
  const struct {
    int pin;
    int edge;
    uint64_t runs;  // after LOW->HIGH, HIGH->LOW, LOW->LOW
  } cases[] = {{5, INT_EDGE_FALLING, 1}, {6, INT_EDGE_RISING, 1}, {7, INT_EDGE_BOTH, 2}};

  for (const auto& c : cases) {
    ASSERT_EQ(gpio.wiringPiISR(c.pin, c.edge,
                               [&] {
                                 char name[40];
                                 getThreadName(name, sizeof name);
                                 std::lock_guard lock(m);
                                 names.emplace_back(name);
                                 ids.push_back(std::this_thread::get_id());
                               }),
              0);
  }
  for (const auto& c : cases) {
    gpio.setInput(c.pin, HIGH);
    ASSERT_TRUE(gpio.waitIsrIdle(c.pin, kWait));
    gpio.setInput(c.pin, LOW);
    gpio.setInput(c.pin, LOW);
    ASSERT_TRUE(gpio.waitIsrIdle(c.pin, kWait));
    EXPECT_EQ(gpio.isrRuns(c.pin), c.runs) << "pin " << c.pin;
  }

  std::lock_guard lock(m);
  ASSERT_EQ(names.size(), 4u);
  EXPECT_EQ(names[0], "gpio isr 5");
  EXPECT_EQ(names[1], "gpio isr 6");
  EXPECT_EQ(names[3], "gpio isr 7");
  EXPECT_NE(ids[0], std::this_thread::get_id());
  EXPECT_NE(ids[0], ids[1]);
  EXPECT_EQ(ids[2], ids[3]);  // one thread per pin

  test::LogCapture log;
  EXPECT_EQ(gpio.wiringPiISR(5, INT_EDGE_RISING, [] {}), -1);
  EXPECT_TRUE(log.contains("already has an interrupt routine"));
}

TEST(SimGpio, FloodOfEdgesRunsTheRoutineOncePerEdge) {
  SimGpio gpio;
  std::atomic<int> runs{0};
  gpio.setInput(13, HIGH);
  ASSERT_EQ(gpio.wiringPiISR(13, INT_EDGE_FALLING, [&] { runs.fetch_add(1); }), 0);
  constexpr int kEdges = 10000;
  for (int i = 0; i < kEdges; ++i) {  // far faster than the thread can run the routine
    gpio.setInput(13, LOW);
    gpio.setInput(13, HIGH);
  }
  ASSERT_TRUE(gpio.waitIsrIdle(13, kWait));
  EXPECT_EQ(runs.load(), kEdges);
  EXPECT_EQ(gpio.isrRuns(13), static_cast<uint64_t>(kEdges));
}

TEST(SimGpio, StopInterruptsJoinsThreadsAndDropsRoutines) {
  SimGpio gpio;
  std::atomic<int> runs{0};
  auto token = std::make_shared<int>(0);
  ASSERT_EQ(gpio.wiringPiISR(5, INT_EDGE_BOTH,
                             [&runs, token] {
                               if (runs.fetch_add(1) == 0) throw std::runtime_error("first run fails");
                             }),
            0);
  {
    test::LogCapture log;
    gpio.setInput(5, HIGH);
    gpio.setInput(5, LOW);
    ASSERT_TRUE(gpio.waitIsrIdle(5, kWait));
    EXPECT_EQ(runs.load(), 2);  // the thread survives a throwing routine
    EXPECT_TRUE(log.contains("first run fails"));
  }
  EXPECT_EQ(token.use_count(), 2);

  gpio.stopInterrupts();
  EXPECT_EQ(token.use_count(), 1);  // the routine and its thread record are gone
  gpio.setInput(5, HIGH);
  EXPECT_TRUE(gpio.waitIsrIdle(5, 0ms));
  EXPECT_EQ(runs.load(), 2);
  gpio.stopInterrupts();  // twice is harmless

  // The pin can be registered afresh.
  ASSERT_EQ(gpio.wiringPiISR(5, INT_EDGE_FALLING, [&runs] { runs.fetch_add(1); }), 0);
  gpio.setInput(5, LOW);
  ASSERT_TRUE(gpio.waitIsrIdle(5, kWait));
  EXPECT_EQ(runs.load(), 3);
}

TEST(SimGpio, DestructionDropsQueuedEdges) {
  auto gpio = std::make_unique<SimGpio>();
  std::atomic<int> runs{0};
  std::promise<void> entered, release;
  std::shared_future<void> released = release.get_future().share();
  ASSERT_EQ(gpio->wiringPiISR(9, INT_EDGE_BOTH,
                              [&runs, &entered, released] {
                                if (runs.fetch_add(1) == 0) {
                                  entered.set_value();
                                  released.wait();
                                }
                              }),
            0);
  for (int i = 0; i < 1000; ++i) gpio->setInput(9, i % 2 == 0 ? HIGH : LOW);
  entered.get_future().wait();  // the routine is busy with edge 1 of 1000
  // Lets the routine finish only once the pin's interrupt has been taken down, so the
  // thread then sees the stop with 999 edges still queued.
  SimGpio* raw = gpio.get();
  std::thread releaser([raw, &release] {
    raw->waitIsrIdle(9, kWait);
    release.set_value();
  });
  gpio.reset();
  releaser.join();
  EXPECT_EQ(runs.load(), 1);
}

}  // namespace
}  // namespace korvo
