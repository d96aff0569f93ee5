#include "sound/protocol_handlers.h"

#include "base/log.h"
#include "platform/clock.h"
#include "sound/sdl_sound.h"

namespace korvo {

void SoundEngineProtocolPort::soundHandler(unsigned id) { engine_.soundHandler(id); }

void SoundEngineProtocolPort::postSoundCommand(int id) {
  SoundServiceRequest req = engine_.ring().buildRequest(HANDLE_SND_CMD);
  req.id = id;
  engine_.ring().queuePut(req);
}

void SoundEngineProtocolPort::postSetVolume(int volume) {
  SoundServiceRequest req = engine_.ring().buildRequest(SET_VOLUME);
  req.volume = volume;
  engine_.ring().queuePut(req);
}

void SoundEngineProtocolPort::postStopAll() { engine_.ring().queuePut(engine_.ring().buildRequest(STOP_ALL)); }

void SoundEngineProtocolPort::countVolumeZero(unsigned now) { engine_.countVolumeZero(now); }

ProtocolHandlers::ProtocolHandlers(ProtocolEngine& engine, const Settings& s) : engine_(engine), settings_(s) {}

int ProtocolHandlers::getVolume(const uint8_t* cmd) const {
  switch (settings_.protocol.load()) {
    case WPC:
      if (cmd[0] == 0x79 && cmd[1] + cmd[2] == 255) return cmd[1];
      return -1;
    case WPCDCS:
      if (cmd[0] == 0x55 && cmd[1] == 0xAA && cmd[2] + cmd[3] == 255) return cmd[2];
      return -1;
    case WHITESTAR:
    case WHITESTAR_X:
      if (cmd[0] == 0xFE && cmd[1] >= 16 && cmd[1] <= 47) return 47 - cmd[1];
      return -1;
    default:
      return -1;
  }
}

void ProtocolHandlers::soundWpcHandler(const uint8_t* cmd, int id) {
  LOG(LEVEL_DEBUG, "wpcSoundHandler cmd: 0x%02x 0x%02x 0x%02x 0x%02x, id: %d", cmd[0], cmd[1], cmd[2], cmd[3], id);
  const int vol = getVolume(cmd);
  if (vol >= 0) {
    if (vol == 0) engine_.countVolumeZero(static_cast<unsigned>(millis()));
    LOG(LEVEL_DEBUG, "Setting volume to %d", vol);
    // The machine's scale onto the 0..128 master: WPC 0..31, DCS 0..255.
    engine_.postSetVolume(settings_.protocol.load() == WPC ? vol * 4 : vol / 2);
  } else if (id > 0) {
    engine_.postSoundCommand(id);
  } else {
    engine_.postStopAll();
  }
}

void ProtocolHandlers::soundWSHandler(const uint8_t* cmd, int id) {
  LOG(LEVEL_DEBUG, "soundWSHandler cmd: 0x%02x 0x%02x 0x%02x 0x%02x, id: %d", cmd[0], cmd[1], cmd[2], cmd[3], id);
  const int vol = getVolume(cmd);
  if (vol < 0) {
    engine_.soundHandler(static_cast<unsigned>(id));
    return;
  }
  if (vol == 0) engine_.countVolumeZero(static_cast<unsigned>(millis()));
  // The machine repeats its volume command; only a change is posted.
  if (currentWsVolume_.exchange(vol) != vol) {
    LOG(LEVEL_DEBUG, "Setting volume to %d", vol);
    engine_.postSetVolume(vol * 4);
  }
}

int ProtocolHandlers::idsToIgnoreForWpc(int id) {
  if ((id & 0xF000) == 0x6000 || (id & 0x03E0) == 0x03E0) {
    LOG(LEVEL_DEBUG, "ignore wpc / dcs command 0x%04x", id);
    return 1;
  }
  return 0;
}

int ProtocolHandlers::suppressNotFound(int id) const {
  const int p = settings_.protocol.load();
  if (p == WPC || p == WPCDCS) return idsToIgnoreForWpc(id);
  return 0;
}

}  // namespace korvo
