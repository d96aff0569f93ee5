// Loads of the stress soak that belong to parts built on other branches. Each is empty
// until the integrator wires it (soak_hooks.cpp): the Lua event flood (events through the
// UDP service into Lua's eventHandler, and Lua commands calling back into the engine)
// and the front-panel input (encoder turns, button presses, ADC volume on the sim I2C
// devices). An empty hook is reported as not wired and the soak runs without it.
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
  // Runs on its own thread until `stop`; `count("sent")`, `count("answered")`,
  // `count("dropped <reason>")` for each command it gives.
  std::function<void(SoakParts& parts, const std::atomic<bool>& stop, const std::function<void(const std::string&)>& count)> run;
};

namespace soak {
extern const SoakLoad luaEventLoad;    // INTEGRATION HOOK: Lua events
extern const SoakLoad panelInputLoad;  // INTEGRATION HOOK: front-panel input
}  // namespace soak

}  // namespace korvo
