// Loads of the stress soak for the parts beside the bus and the web service: the Lua
// event flood (UDP events into Lua's eventHandler, which plays sounds, and the engine's
// posts into Lua from another thread) and the front-panel input (encoder turns and
// clicks, button presses, the Data East volume pot on the sim ADC). A load without a
// `run` is reported as not wired and the soak runs without it.
#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "bus/event_service.h"
#include "core/settings.h"
#include "sound/sdl_sound.h"

namespace korvo {

struct SoakParts {
  SoundEngine& engine;
  EventService& events;
  Settings& settings;
};

struct SoakLoad {
  std::string name;
  // Runs on its own thread until `stop`; `count("sent <what>")` for each command it
  // gives and `count("answered <what>")` or `count("dropped <reason>")` for its fate.
  std::function<void(SoakParts& parts, const std::atomic<bool>& stop, const std::function<void(const std::string&)>& count)> run;
};

namespace soak {
extern const SoakLoad luaEventLoad;
extern const SoakLoad panelInputLoad;
}  // namespace soak

}  // namespace korvo
