#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "base/log.h"
#include "support/testutil.h"

using namespace korvo;

namespace {

class LiveLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log::instance().resetLiveLog();
    setLiveLogFilter(nullptr);
  }
  void TearDown() override {
    setLiveLogLevel(LEVEL_NONE);
    setLiveLogFilter(nullptr);
    Log::instance().resetLiveLog();
  }
};

TEST(Log, LinePrefixCarriesTimeLevelThreadFunctionFileAndLine) {
  test::LogCapture cap(LEVEL_DEBUG);
  std::thread([] {
    setThreadName("isr wpc");
    LOG(LEVEL_WARN, "value %d", 42);
  }).join();
  std::thread([] {
    setThreadName("SndService");
    LOG(LEVEL_INFO, "x");
  }).join();
  std::string text = cap.text();
  // Short names are right-aligned in 8 columns, long ones cut to 8.
  std::regex warn(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} WARN   isr wpc \[operator\(\)\] \[log_test\.cpp:\d+\] value 42\n)");
  std::regex info(R"(INFO  SndServi \[operator\(\)\] \[log_test\.cpp:\d+\] x\n)");
  EXPECT_TRUE(std::regex_search(text, warn)) << text;
  EXPECT_TRUE(std::regex_search(text, info)) << text;
}

TEST_F(LiveLogTest, LevelsGateBothLogs) {
  test::LogCapture cap(LEVEL_NONE);
  setLiveLogLevel(LEVEL_TRACE);
  LOG(LEVEL_ERROR, "suppressed");
  EXPECT_EQ(cap.text(), "");
  EXPECT_TRUE(Log::instance().readLiveLog(0).empty());

  // A line reaches the live log only when it passes both thresholds.
  Log::instance().setLogLevel(LEVEL_INFO);
  setLiveLogLevel(LEVEL_WARN);
  LOG(LEVEL_DEBUG, "debug");
  LOG(LEVEL_INFO, "info");
  LOG(LEVEL_WARN, "warn");
  auto live = Log::instance().readLiveLog(0);
  ASSERT_EQ(live.size(), 1u);
  EXPECT_NE(live[0].msg.find("warn"), std::string::npos);
  EXPECT_EQ(cap.text().find("debug"), std::string::npos);
  EXPECT_NE(cap.text().find("info"), std::string::npos);
}

TEST_F(LiveLogTest, RingKeepsTheNewestHundredAndReadsTwentyFiveAfterSince) {
  for (int i = 1; i <= 101; ++i) insertIntoLiveLog(("line " + std::to_string(i)).c_str(), 1000u + i);
  auto first = Log::instance().readLiveLog(0);
  ASSERT_EQ(first.size(), 25u);
  EXPECT_EQ(first.front().inc, 2);  // the 101st overwrote the first
  EXPECT_EQ(first.back().inc, 26);
  EXPECT_EQ(first.front().msg, "line 2");

  auto tail = Log::instance().readLiveLog(90);
  ASSERT_EQ(tail.size(), 11u);
  EXPECT_EQ(tail.front().inc, 91);
  EXPECT_EQ(tail.back().inc, 101);
  EXPECT_TRUE(Log::instance().readLiveLog(101).empty());
}

TEST_F(LiveLogTest, FilterAndOwnPollingAreDropped) {
  insertIntoLiveLog("GET /livelog?since=3", 1);
  EXPECT_TRUE(Log::instance().readLiveLog(0).empty());
  setLiveLogFilter("pincom");
  insertIntoLiveLog("sdl_sound: played", 2);
  insertIntoLiveLog("pincom: byte 0x12", 3);
  auto live = Log::instance().readLiveLog(0);
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].msg, "pincom: byte 0x12");
  EXPECT_EQ(live[0].inc, 1);
}

TEST_F(LiveLogTest, LongLinesAreCutForTheLiveCopyOnly) {
  test::LogCapture cap(LEVEL_DEBUG);
  setLiveLogLevel(LEVEL_DEBUG);
  std::string big(3000, 'x');
  LOG(LEVEL_INFO, "%s", big.c_str());
  EXPECT_NE(cap.text().find(big + "\n"), std::string::npos);
  auto live = Log::instance().readLiveLog(0);
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].msg.size(), 1023u);
}

TEST_F(LiveLogTest, ConcurrentWritersAndReadersKeepSequenceOrder) {
  test::LogCapture cap(LEVEL_DEBUG);
  setLiveLogLevel(LEVEL_DEBUG);
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t)
    writers.emplace_back([] {
      for (int i = 0; i < 500; ++i) LOG(LEVEL_DEBUG, "n %d", i);
    });
  int since = 0;
  for (int round = 0; round < 200; ++round) {
    for (const auto& e : Log::instance().readLiveLog(since)) {
      EXPECT_GT(e.inc, since);
      since = e.inc;
    }
  }
  for (auto& w : writers) w.join();
  EXPECT_LE(since, 2000);
}

// A flood of one line (bad datagrams, unknown ids) is written once, then summed up.
TEST(Log, RepeatedLinesAreCollapsedIntoOneWithACount) {
  test::LogCapture cap(LEVEL_DEBUG);
  auto flood = [](int n) {
    for (int i = 0; i < n; ++i) LOG(LEVEL_WARN, "unknown id %d", 7);
  };
  flood(500);
  LOG(LEVEL_WARN, "unknown id %d", 8);
  flood(1);
  LOG(LEVEL_INFO, "quiet again");
  const std::string text = cap.text();
  auto count = [&](const std::string& needle) {
    std::size_t n = 0;
    for (std::size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count("unknown id 7\n"), 2u) << text;
  EXPECT_EQ(count("last message repeated 499 times\n"), 1u) << text;
  EXPECT_EQ(count("repeated"), 1u) << text;  // a single repeat-free line gets no summary
  EXPECT_LT(text.find("repeated 499"), text.find("unknown id 8"));
  // The summary carries the repeated line's level and place.
  std::regex summary(R"(WARN .*\[log_test\.cpp:\d+\] last message repeated 499 times)");
  EXPECT_TRUE(std::regex_search(text, summary)) << text;
}

TEST(Log, AnEndlessFloodIsSummedUpEveryFewSeconds) {
  test::LogCapture cap(LEVEL_DEBUG);
  auto datagram = [] { LOG(LEVEL_WARN, "bad datagram"); };  // one place: one line
  for (int i = 0; i < 3; ++i) datagram();
  EXPECT_EQ(cap.text().find("repeated"), std::string::npos);
  Log::instance().flushRepeats(Log::steadyMillis() + Log::kRepeatSummaryMs);
  EXPECT_NE(cap.text().find("last message repeated 2 times\n"), std::string::npos) << cap.text();
  // The flood goes on: still no new copy of the line, the count starts again.
  datagram();
  Log::instance().flushRepeats(Log::steadyMillis() + 2 * Log::kRepeatSummaryMs);
  const std::string text = cap.text();
  EXPECT_EQ(text.find("bad datagram"), text.rfind("bad datagram")) << text;
  EXPECT_NE(text.find("last message repeated 1 times\n"), std::string::npos) << text;
}

// A service manager reads the log through a pipe: every line must be there at once,
// not when a stdio buffer fills.
TEST(Log, EveryLineReachesTheFileAtOnce) {
  test::TempDir dir;
  const std::string path = (dir / "korvo.log").string();
  const int level = Log::instance().logLevel();
  FILE* previous = Log::instance().logDevice();
  ASSERT_TRUE(Log::instance().openLogFile(path));
  LOG(LEVEL_ERROR, "first line");
  EXPECT_NE(test::readFile(path).find("first line\n"), std::string::npos);
  Log::instance().closeLogFile();
  EXPECT_EQ(Log::instance().logDevice(), stdout);
  Log::instance().setLogDevice(previous);
  Log::instance().setLogLevel(level);
  EXPECT_FALSE(Log::instance().openLogFile((dir / "missing" / "x.log").string()));
}

}  // namespace
