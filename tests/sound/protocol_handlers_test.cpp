// The protocol handlers' volume commands, ignored ids and the volume-zero gesture.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "engine_fixture.h"
#include "sound/protocol_handlers.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

class RecordingEngine : public ProtocolEngine {
 public:
  void soundHandler(unsigned id) override { got.push_back("snd " + std::to_string(id)); }
  void postSoundCommand(int id) override { got.push_back("cmd " + std::to_string(id)); }
  void postSetVolume(int v) override { got.push_back("vol " + std::to_string(v)); }
  void postStopAll() override { got.push_back("stop"); }
  void countVolumeZero(unsigned) override { ++zeros; }
  std::vector<std::string> got;
  int zeros = 0;
};

using S = std::vector<std::string>;

class ProtocolHandlersTest : public ::testing::Test {
 protected:
  ProtocolHandlersTest() {
    initSettings(&s);
    clock::useManualClock(10'000'000);
  }
  ~ProtocolHandlersTest() override { clock::useRealClock(); }
  void wpc(std::initializer_list<uint8_t> b, int id) {
    uint8_t c[4] = {0, 0, 0, 0};
    std::copy(b.begin(), b.end(), c);
    h.soundWpcHandler(c, id);
  }
  void ws(uint8_t b0, uint8_t b1) {
    const uint8_t c[4] = {b0, b1, 0, 0};
    h.soundWSHandler(c, b0 * 256 + b1);
  }
  Settings s;
  RecordingEngine engine;
  ProtocolHandlers h{engine, s};
};

TEST_F(ProtocolHandlersTest, WpcVolumeNeedsTheComplementAndScalesByFour) {
  s.protocol = WPC;
  wpc({0x79, 0x10, 0xEF}, 0x79);
  wpc({0x79, 0x10, 0xEE}, 0x79);
  wpc({0x05}, 5);
  wpc({0x00}, 0);
  EXPECT_EQ(engine.got, (S{"vol 64", "cmd 121", "cmd 5", "stop"}));
}

TEST_F(ProtocolHandlersTest, DcsVolumeHalvesAndCountsZero) {
  s.protocol = WPCDCS;
  wpc({0x55, 0xAA, 0xFF, 0x00}, 0x55);
  wpc({0x55, 0xAA, 0x00, 0xFF}, 0x55);
  wpc({0x55, 0xAB, 0x00, 0xFF}, 0x55);
  EXPECT_EQ(engine.got, (S{"vol 127", "vol 0", "cmd 85"}));
  EXPECT_EQ(engine.zeros, 1);
  // The same bytes under another protocol are no volume command.
  s.protocol = WPC;
  const uint8_t c[4] = {0x55, 0xAA, 0xFF, 0x00};
  EXPECT_EQ(h.getVolume(c), -1);
}

TEST_F(ProtocolHandlersTest, WhitestarVolumeRangeAndRepeats) {
  s.protocol = WHITESTAR;
  ws(0xFE, 0x2F);  // volume 0
  ws(0xFE, 0x2F);  // counted again, not posted again
  ws(0xFE, 0x10);  // 31
  ws(0xFE, 0x0F);  // ordinary
  ws(0xFE, 0x30);  // ordinary
  ws(0xFE, 0x1B);  // 20
  ws(0xFE, 0x1B);
  EXPECT_EQ(engine.got, (S{"vol 0", "vol 124", "snd 65039", "snd 65072", "vol 80"}));
  EXPECT_EQ(engine.zeros, 2);
  EXPECT_EQ(h.currentWsVolume(), 20);
  s.protocol = WHITESTAR_X;
  ws(0xFE, 0x2E);
  EXPECT_EQ(engine.got.back(), "vol 4");
  // A Whitestar stop is a sound command 0, never STOP_ALL.
  ws(0x00, 0x00);
  EXPECT_EQ(engine.got.back(), "snd 0");
}

TEST_F(ProtocolHandlersTest, ControlIdsAreSuppressedOnlyForWpcBoards) {
  s.protocol = WPC;
  EXPECT_EQ(h.suppressNotFound(0x6123), 1);
  EXPECT_EQ(h.suppressNotFound(0x03E5), 1);
  EXPECT_EQ(h.suppressNotFound(0x7123), 0);
  EXPECT_EQ(h.suppressNotFound(0x03C0), 0);
  s.protocol = WPCDCS;
  EXPECT_EQ(h.suppressNotFound(0x6000), 1);
  s.protocol = DATAEAST;
  EXPECT_EQ(h.suppressNotFound(0x6123), 0);
  EXPECT_EQ(h.suppressNotFound(0x03E5), 0);
  EXPECT_EQ(ProtocolHandlers::idsToIgnoreForWpc(0x6FFF), 1);
}

// Through the real engine: the handlers' requests land on its ring, and two DCS
// volume-zero commands become a one-set step once the machine has been quiet 800 ms.
class ProtocolHandlersOnEngine : public EngineFixture {};

TEST_F(ProtocolHandlersOnEngine, TwoZeroVolumeCommandsSwitchToTheNextSet) {
  makeSet("one");
  makeSet("two");
  clock::useManualClock(1'000'000);
  openEngine();
  loadSets();
  drain();
  settings.protocol = WPCDCS;
  SoundEngineProtocolPort port(*engine);
  ProtocolHandlers h(port, settings);
  const uint8_t zero[4] = {0x55, 0xAA, 0x00, 0xFF};
  const uint8_t loud[4] = {0x55, 0xAA, 0xC8, 0x37};
  h.soundWpcHandler(loud, 0x55);
  h.soundWpcHandler(zero, 0x55);
  clock::advanceMillis(300);
  h.soundWpcHandler(zero, 0x55);
  const uint8_t sound[4] = {0x00, 0x0A, 0, 0};
  h.soundWpcHandler(sound, 10);
  const uint8_t stop[4] = {0, 0, 0, 0};
  h.soundWpcHandler(stop, 0);

  std::vector<std::pair<int, int>> reqs;  // type, id or volume
  SoundServiceRequest req;
  while (engine->ring().queueGet(&req, 0) == 1) reqs.emplace_back(req.type, req.type == SET_VOLUME ? req.volume : req.id);
  EXPECT_EQ(reqs, (std::vector<std::pair<int, int>>{
                      {SET_VOLUME, 100}, {SET_VOLUME, 0}, {SET_VOLUME, 0}, {HANDLE_SND_CMD, 10}, {STOP_ALL, 0}}));

  const int before = settings.soundSet.load();
  clock::advanceMillis(801);
  engine->updateSound(static_cast<unsigned>(millis()));
  ASSERT_EQ(1, engine->ring().queueGet(&req, 0));
  EXPECT_EQ(SWITCH_SOUNDSET, req.type);
  EXPECT_EQ(1, req.id);
  engine->doSoundService(req);
  EXPECT_EQ(before % 2 + 1, settings.soundSet.load());
}

}  // namespace
}  // namespace korvo::test
