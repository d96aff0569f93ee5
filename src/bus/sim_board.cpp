#include "bus/sim_board.h"

namespace korvo {

namespace {
SimBusWiring wiringFrom(int protocol, const AddressPinRow& row) {
  SimBusWiring w;
  w.dataPins = row;
  w.strobePin = strobePinOf(protocol);
  w.strobeEdge = strobeEdgeOf(protocol);
  w.ackPin = hasAcknowledge(protocol) ? triggerPins[protocol].soundAck : -1;
  return w;
}
}  // namespace

SimBusWiring simBusWiring(int protocol, bool enableI2S) {
  protocol = sanitizeProtocol(protocol);
  const AddressPinTable table = enableI2S ? remapForI2S(kAddressPins) : kAddressPins;
  return wiringFrom(protocol, table[protocol]);
}

SimBusWiring simBusWiring(const Pincom& pincom) {
  return wiringFrom(pincom.protocol(), pincom.addressPins()[pincom.protocol()]);
}

SimMachine::SimMachine(SimGpio& gpio, const Pincom& pincom, unsigned gapMicros)
    : driver_(gpio, [&] {
        SimBusWiring w = simBusWiring(pincom);
        w.gapMicros = gapMicros;
        return w;
      }()) {}

}  // namespace korvo
