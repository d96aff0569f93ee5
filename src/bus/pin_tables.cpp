#include "bus/pin_tables.h"

#include "platform/gpio.h"

namespace korvo {

const AddressPinTable kAddressPins = {{
    /* DATAEAST    */ {3, 1, 2, 0, 4, 5, 6, 7},
    /* WPC         */ {0, 1, 2, 3, 4, 5, 6, 7},
    /* DATAEAST2   */ {0, 1, 2, 3, 4, 5, 6, 7},
    /* DATAEAST3   */ {1, 0, 19, 7, 10, 3, 14, 2},
    /* SYS11       */ {0, 1, 2, 3, 4, 5, 6, 7},
    /* WPCDCS      */ {0, 1, 2, 3, 4, 5, 6, 7},
    /* DATAEAST_X  */ {3, 1, 2, 0, 4, 5, 6, 7},
    /* WHITESTAR   */ {3, 1, 2, 0, 4, 5, 6, 7},
    // The inverted-strobe Whitestar board is wired like WHITESTAR; only the strobe edge
    // differs. (Older tables carried an all-zero row here, which reads every bit from
    // pin 0 and makes every command 0x00 or 0xFF.)
    /* WHITESTAR_X */ {3, 1, 2, 0, 4, 5, 6, 7},
}};

const std::array<TriggerPinRow, kProtocolCount> triggerPins = {{
    /* DATAEAST    */ {13, 14, 12},
    /* WPC         */ {0, 0, 0},
    /* DATAEAST2   */ {13, 14, 12},
    /* DATAEAST3   */ {16, 5, 12},
    /* SYS11       */ {0, 0, 0},
    /* WPCDCS      */ {0, 0, 0},
    /* DATAEAST_X  */ {13, 14, 12},
    /* WHITESTAR   */ {13, 14, 12},
    /* WHITESTAR_X */ {13, 14, 12},
}};

const std::array<int, kProtocolCount> edgeForDataEastWhiteStar = {
    /* DATAEAST    */ INT_EDGE_FALLING,
    /* WPC         */ 0,
    /* DATAEAST2   */ INT_EDGE_FALLING,
    /* DATAEAST3   */ INT_EDGE_FALLING,
    /* SYS11       */ 0,
    /* WPCDCS      */ 0,
    /* DATAEAST_X  */ INT_EDGE_RISING,
    /* WHITESTAR   */ INT_EDGE_FALLING,
    /* WHITESTAR_X */ INT_EDGE_RISING,
};

const std::array<uint8_t, 41> fromPhysicalToWiringPi = {
    0, 0, 0, 8, 0, 9, 0, 7, 15, 0,    //  0.. 9
    16, 0, 1, 2, 0, 3, 4, 0, 5, 12,   // 10..19
    0, 13, 6, 14, 10, 0, 11, 30, 31, 21,  // 20..29
    0, 22, 26, 23, 0, 24, 27, 25, 28, 0,  // 30..39
    29,                                   // 40
};

int physicalToWiringPi(int physicalPin) {
  if (physicalPin < 0 || physicalPin >= static_cast<int>(fromPhysicalToWiringPi.size())) return -1;
  const int pin = fromPhysicalToWiringPi[physicalPin];
  // Header pin 11 is wiringPi 0; every other 0 marks power, ground or an ID pin.
  if (pin == 0 && physicalPin != 11) return -1;
  return pin;
}

StrobeKind strobeKindOf(int protocol) {
  switch (protocol) {
    case DATAEAST:
    case DATAEAST2:
    case DATAEAST3:
    case DATAEAST_X:
      return StrobeKind::DataEast;
    case WHITESTAR:
    case WHITESTAR_X:
      return StrobeKind::Whitestar;
    case WPC:
    case WPCDCS:
      return StrobeKind::Wpc;
    default:
      return StrobeKind::None;
  }
}

bool hasAcknowledge(int protocol) {
  const StrobeKind k = strobeKindOf(protocol);
  return k == StrobeKind::DataEast || k == StrobeKind::Whitestar;
}

int strobePinOf(int protocol) {
  switch (strobeKindOf(protocol)) {
    case StrobeKind::DataEast:
    case StrobeKind::Whitestar:
      return triggerPins[protocol].strobe;
    case StrobeKind::Wpc:
      return kWpcStrobePin;
    default:
      return -1;
  }
}

int strobeEdgeOf(int protocol) {
  switch (strobeKindOf(protocol)) {
    case StrobeKind::DataEast:
    case StrobeKind::Whitestar:
      return edgeForDataEastWhiteStar[protocol];
    case StrobeKind::Wpc:
      return INT_EDGE_FALLING;
    default:
      return 0;
  }
}

AddressPinTable remapForI2S(AddressPinTable table) {
  for (auto& row : table)
    for (int& pin : row)
      if (pin == kI2SOccupiedPin) pin = kI2SReplacementPin;
  return table;
}

}  // namespace korvo
