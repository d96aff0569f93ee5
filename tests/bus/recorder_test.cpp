// Recording a session from the pins with -R and replaying it with -P.
#include <gtest/gtest.h>

#include <set>

#include "bus/session_recorder.h"
#include "bus_fixture.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

using V = std::vector<unsigned>;

class Recorder : public BusTest {
 protected:
  // The main loop's calls over `ms` milliseconds of the manual clock, `step` at a time.
  void runLoop(SessionRecorder& rec, unsigned ms, unsigned step = 1) {
    for (unsigned t = 0; t < ms; t += step) {
      clock::advanceMillis(step);
      rec.updatePlayback(static_cast<unsigned>(millis()));
    }
  }
  TempDir dir;
};

TEST_F(Recorder, RecordedSessionReplaysTheSameCommandsWithItsTiming) {
  clock::useManualClock(1'000'000);
  const std::string file = (dir / "session.rec").string();
  start(WHITESTAR);
  SessionRecorder rec(*pincom);
  ASSERT_TRUE(rec.startRecording(file));
  ASSERT_TRUE(machine->sendCommand({0x00, 0x11}));
  clock::advanceMillis(500);
  ASSERT_TRUE(machine->sendCommand({0xFD, 0xFE, 0x01, 0x02}));
  clock::advanceMillis(40);  // a lone byte then a gap: dropped on replay as live
  ASSERT_TRUE(machine->sendByte(0x07));
  clock::advanceMillis(40);
  ASSERT_TRUE(machine->sendCommand({0xF0, 0x00}));
  EXPECT_TRUE(rec.recordedSomething());
  ASSERT_TRUE(rec.stopRecording());
  const V live = log.values();
  ASSERT_EQ(live, (V{0x0011, 0xFDFE, 0}));
  EXPECT_EQ(readFile(file).rfind("# bus recording v1 protocol=WHITESTAR\n", 0), 0u);

  log.clear();
  ASSERT_TRUE(rec.startPlayback(file));
  EXPECT_EQ(rec.replayLength(), 9u);
  for (int i = 0; i < 1000 && rec.isReplaying(); ++i) {
    clock::advanceMillis(1);
    rec.updatePlayback(static_cast<unsigned>(millis()));
  }
  EXPECT_FALSE(rec.isReplaying());
  EXPECT_EQ(log.values(), live);
}

TEST_F(Recorder, ReplaySkipsMalformedLinesAndWarnsOnOtherProtocol) {
  clock::useManualClock(1'000'000);
  const std::string file = (dir / "bad.rec").string();
  writeFile(file,
            "# bus recording v1 protocol=WPC\n# a comment\n0 0x01\ngarbage line\n5 0x1FF\n\n7 12\n"
            "10 0x02\r\n-3 0x03\n20 0x04 trailing\n30 0xff\n\x01\x02\xff\n");
  start(DATAEAST);
  SessionRecorder rec(*pincom);
  LogCapture cap;
  ASSERT_TRUE(rec.startPlayback(file));
  EXPECT_TRUE(cap.contains("made with protocol WPC, replaying it as DATAEAST"));
  EXPECT_TRUE(cap.contains("bad.rec:4: malformed recording line skipped"));
  EXPECT_TRUE(cap.contains("bad.rec:12: malformed recording line skipped"));
  EXPECT_EQ(rec.replayLength(), 3u);
  runLoop(rec, 100);
  EXPECT_EQ(log.values(), (V{0x01, 0x02}));  // 0xFF is the idle bus
  // Each replayed byte is visible at the default level.
  EXPECT_TRUE(cap.contains("INFO") && cap.contains("replayed byte 0x02\n"));
}

TEST_F(Recorder, LiveFileIsWrittenOnceASecondAndMissingFilesAreRefused) {
  clock::useManualClock(1'000'000);
  start(DATAEAST);
  SessionRecorder rec(*pincom);
  LogCapture cap;
  EXPECT_FALSE(rec.startPlayback("/nonexistent/dir/x.rec"));
  EXPECT_FALSE(rec.startRecording("/nonexistent/dir/x.rec"));
  EXPECT_FALSE(rec.stopRecording());
  EXPECT_TRUE(cap.contains("cannot open recording"));
  const std::string file = (dir / "live.rec").string();
  ASSERT_TRUE(rec.startRecording(file));
  ASSERT_TRUE(machine->sendByte(0x21));  // capture goes on
  EXPECT_EQ(log.values(), V{0x21});
  EXPECT_EQ(readFile(file).find("0x21"), std::string::npos);
  clock::advanceMillis(1000);
  rec.updatePlayback(static_cast<unsigned>(millis()));
  EXPECT_NE(readFile(file).find("0 0x21\n"), std::string::npos);
}

TEST_F(Recorder, DemoSessionParsesCleanlyWithDemoSetIds) {
  clock::useManualClock(0);
  start(DATAEAST);
  SessionRecorder rec(*pincom);
  LogCapture cap;
  ASSERT_TRUE(rec.startPlayback((sourceDir() / "demo" / "session.rec").string()));
  EXPECT_FALSE(cap.contains("malformed"));
  EXPECT_FALSE(cap.contains("replaying it as"));
  runLoop(rec, 600000, 10);
  EXPECT_FALSE(rec.isReplaying());
  const std::set<unsigned> demoIds = {1, 2, 10, 11, 12, 13, 14, 20, 21, 22, 30, 40};
  ASSERT_FALSE(log.values().empty());
  for (unsigned v : log.values()) EXPECT_TRUE(demoIds.count(v)) << v;
}

// With -R during -P the replayed bytes are what the capture read, so they are recorded.
TEST_F(Recorder, ReplayedBytesAreRecordedLikeLiveOnes) {
  clock::useManualClock(1'000'000);
  const std::string in = (dir / "in.rec").string();
  const std::string out = (dir / "out.rec").string();
  writeFile(in, "# bus recording v1 protocol=DATAEAST\n0 0x11\n50 0x12\n");
  start(DATAEAST);
  SessionRecorder rec(*pincom);
  ASSERT_TRUE(rec.startPlayback(in));
  ASSERT_TRUE(rec.startRecording(out));
  runLoop(rec, 100);
  ASSERT_FALSE(rec.isReplaying());
  ASSERT_TRUE(rec.stopRecording());
  EXPECT_EQ(log.values(), (V{0x11, 0x12}));
  const std::string text = readFile(out);
  EXPECT_NE(text.find(" 0x11\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" 0x12\n"), std::string::npos) << text;
  EXPECT_EQ(pincom->bytesRead(), 2u);
}

// A main loop held up (a set switch) must not make the replay burst every overdue byte
// into the sound ring: the schedule moves by the delay and the spacing stays.
TEST_F(Recorder, ReplayAfterAStallKeepsTheRecordedSpacing) {
  clock::useManualClock(1'000'000);
  const std::string in = (dir / "spaced.rec").string();
  std::string text = "# bus recording v1 protocol=DATAEAST\n";
  for (int i = 0; i < 10; ++i) text += std::to_string(i * 100) + " 0x" + std::to_string(10 + i) + "\n";
  writeFile(in, text);
  start(DATAEAST);
  SessionRecorder rec(*pincom);
  ASSERT_TRUE(rec.startPlayback(in));
  runLoop(rec, 150);
  ASSERT_EQ(log.values().size(), 2u);
  clock::advanceMillis(3000);  // the stall
  rec.updatePlayback(static_cast<unsigned>(millis()));
  EXPECT_EQ(log.values().size(), 3u);
  // From here on one byte per 100 ms, as recorded.
  for (std::size_t want = 4; want <= 10; ++want) {
    runLoop(rec, 99);
    EXPECT_EQ(log.values().size(), want - 1);
    runLoop(rec, 1);
    EXPECT_EQ(log.values().size(), want);
  }
  EXPECT_FALSE(rec.isReplaying());
}

}  // namespace
}  // namespace korvo::test
