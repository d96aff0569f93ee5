// Calls out of the engine into subsystems above or beside it (bus outputs, Lua, the
// display, the settings file). The owner wires them at start-up; an empty hook means the
// subsystem is absent and the call does nothing. The engine runs every hook after its
// lock is released, one at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace korvo {

class Gpio;

struct SoundHooks {
  // "PORT <pin> <on|off>": one port-extender pin.
  std::function<void(int pin, bool on)> setPortExtenderPin;
  // "PORTSEQ <text>": build a pin sequence from the text and queue it.
  std::function<void(const std::string& sequence)> addPortPinSequence;
  // Shaker motor pattern of a sample that starts (when shakerEnabled).
  std::function<void(const std::vector<uint32_t>& sequence)> playbackShakerSequence;
  // Lua: run a chunk; set an integer global ("musicPlayingId", "effectiveVolume").
  std::function<void(const std::string& chunk)> luaRun;
  std::function<void(const char* name, int value)> setLuaGlobal;
  // Auxiliary outputs.
  std::function<void(const std::string& text)> serialSend;
  std::function<void(const std::string& text)> sendSocketCmd;
  // A line of the mini display at pixel row y.
  std::function<void(int x, int y, const std::string& text)> showDisplayLine;
  // Persist the transient settings ("va.ini": volume, sound set, audio device) in one
  // write, with `extraLines` (the mixer controls' "numid<n>_<i>=<v>" lines) appended.
  std::function<void(const std::vector<std::string>& extraLines)> writeSettings;
  // The protocol handlers' list of ids ignored silently when the set lacks them.
  std::function<bool(int id)> suppressNotFound;
  // I2C for "I2CWRITE" commands (not owned; may be null).
  Gpio* gpio = nullptr;
};

}  // namespace korvo
