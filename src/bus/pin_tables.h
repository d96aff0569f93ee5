// The wiring of the sound bus per wire protocol, as data. Every pin number the capture,
// the acknowledge lines and the simulated CPU board use comes from these tables, so a
// wrong row is corrected here and nowhere else. Pin numbers are wiringPi numbers.
#pragma once

#include <array>
#include <cstdint>

#include "core/settings.h"

namespace korvo {

// Entry i of a row is the pin of data bit i (bit 0 = least significant).
using AddressPinRow = std::array<int, 8>;
using AddressPinTable = std::array<AddressPinRow, kProtocolCount>;

// Strobe input, music acknowledge output, sound acknowledge output.
struct TriggerPinRow {
  int strobe;
  int musicAck;
  int soundAck;
};

// Indexed by WIREPROTOCOL.
extern const AddressPinTable kAddressPins;
extern const std::array<TriggerPinRow, kProtocolCount> triggerPins;
// The strobe's interrupt edge (INT_EDGE_FALLING / INT_EDGE_RISING) of the Data East and
// Whitestar families; 0 for protocols strobed otherwise.
extern const std::array<int, kProtocolCount> edgeForDataEastWhiteStar;

// WPC and WPC-DCS strobe on the write-enable line and have no acknowledge.
constexpr int kWpcStrobePin = 13;
// Driven low at the end of every initGpio (the bus transceiver's enable).
constexpr int kPin10 = 10;
// The I2S sound interface occupies pin 1; the data bit wired there is read from 25.
constexpr int kI2SOccupiedPin = 1;
constexpr int kI2SReplacementPin = 25;

// Physical header pin 0..40 -> wiringPi pin; 0 where the header pin is not a GPIO.
extern const std::array<uint8_t, 41> fromPhysicalToWiringPi;
// The table lookup with a range check: -1 for a header pin outside 0..40 or not a GPIO.
int physicalToWiringPi(int physicalPin);

// Where the protocol's bytes arrive.
enum class StrobeKind { DataEast, Whitestar, Wpc, None };
StrobeKind strobeKindOf(int protocol);
bool hasAcknowledge(int protocol);
// The pin whose edge signals a byte (the write-enable pin for WPC/WPCDCS), -1 for SYS11.
int strobePinOf(int protocol);
int strobeEdgeOf(int protocol);

// The table with the I2S remap applied to every row (pin 1 -> pin 25).
AddressPinTable remapForI2S(AddressPinTable table);

// A valid protocol index, DATAEAST for anything out of range.
inline int sanitizeProtocol(int protocol) {
  return protocol >= 0 && protocol < kProtocolCount ? protocol : DATAEAST;
}

}  // namespace korvo
