// The protocol handlers' volume commands, stops and ignored ids, per protocol.
#include <gtest/gtest.h>

#include "engine_fixture.h"
#include "support/manual_clock.h"

namespace korvo::test {
namespace {

using S = std::vector<std::string>;
using Cmd = std::array<uint8_t, 4>;

// Each command is handed over as the capture does: the bytes and the assembled value.
TEST(ProtocolHandlers, VolumeCommandsStopsAndOrdinaryCommands) {
  test::ManualClock manual(10'000'000);
  struct Case {
    int protocol;
    std::vector<Cmd> cmds;
    S want;
  };
  const Case cases[] = {
      // WPC: 0x79 v ~v is a volume (scaled by four); a bad complement is an ordinary command.
      {WPC, {{0x79, 0x10, 0xEF}, {0x79, 0x10, 0xEE}, {0x05}, {0x00}}, {"vol 64", "cmd 121", "cmd 5", "stop"}},
      // DCS: 0x55 0xAA v ~v halves the value and counts a zero.
      {WPCDCS, {{0x55, 0xAA, 0xFF, 0x00}, {0x55, 0xAA, 0x00, 0xFF}, {0x55, 0xAB, 0x00, 0xFF}},
       {"vol 127", "zero", "vol 0", "cmd 85"}},
      // Whitestar: 0xFE 0x10..0x2F is volume 31..0, posted only on change, zero counted each time;
      // a stop is sound command 0, never STOP_ALL.
      {WHITESTAR,
       {{0xFE, 0x2F}, {0xFE, 0x2F}, {0xFE, 0x10}, {0xFE, 0x0F}, {0xFE, 0x30}, {0xFE, 0x1B}, {0xFE, 0x1B}, {0, 0}},
       {"zero", "vol 0", "zero", "vol 124", "snd 65039", "snd 65072", "vol 80", "snd 0"}},
      {WHITESTAR_X, {{0xFE, 0x2E}}, {"vol 4"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(protocolName(c.protocol));
    Settings s;
    initSettings(&s);
    s.protocol = c.protocol;
    RequestLog log;
    ProtocolHandlers h(log, s);
    for (const Cmd& cmd : c.cmds) {
      if (c.protocol == WHITESTAR || c.protocol == WHITESTAR_X)
        h.soundWSHandler(cmd.data(), cmd[0] * 256 + cmd[1]);
      else
        h.soundWpcHandler(cmd.data(), cmd[0]);
    }
    EXPECT_EQ(log.all(), c.want);
    if (c.protocol == WHITESTAR) {
      EXPECT_EQ(h.currentWsVolume(), 20);
    }
  }
}

TEST(ProtocolHandlers, ControlIdsAreSuppressedOnlyForWpcBoards) {
  Settings s;
  initSettings(&s);
  RequestLog log;
  ProtocolHandlers h(log, s);
  struct Case { int protocol, id, want; };
  for (const Case& c : {Case{WPC, 0x6123, 1}, Case{WPC, 0x03E5, 1}, Case{WPC, 0x7123, 0}, Case{WPC, 0x03C0, 0},
                        Case{WPCDCS, 0x6000, 1}, Case{DATAEAST, 0x6123, 0}, Case{DATAEAST, 0x03E5, 0}}) {
    s.protocol = c.protocol;
    EXPECT_EQ(h.suppressNotFound(c.id), c.want) << c.protocol << " " << c.id;
  }
  // The same bytes as a DCS volume are none under WPC.
  s.protocol = WPC;
  const uint8_t dcsVolume[4] = {0x55, 0xAA, 0xFF, 0x00};
  EXPECT_EQ(h.getVolume(dcsVolume), -1);
}

}  // namespace
}  // namespace korvo::test
