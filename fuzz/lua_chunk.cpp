// fuzz-lib: korvo_scripting
// Lua chunks as the web command box and sample command strings hand them over: every
// input is loaded and run in one interpreter with the daemon's functions (no engine, bus
// or video behind them), under a short time limit. Nothing may crash the daemon.
#include <cstdint>
#include <string>

#include "base/log.h"
#include "core/settings.h"
#include "scripting/lua_binding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static korvo::LuaBinding* lua = [] {
    korvo::setLogLevel(korvo::LEVEL_NONE);
    korvo::initSettings(&korvo::settings);
    static korvo::Configuration config(korvo::settings);
    auto* l = new korvo::LuaBinding(korvo::settings);
    l->lua_init(config.masterConfigMap());
    l->setTimeLimitMs(50);
    // Generated chunks must not touch the machine's files or start programs.
    l->lua_run("os = nil io = nil require = nil package = nil dofile = nil loadfile = nil");
    return l;
  }();
  const std::string chunk(reinterpret_cast<const char*>(data), size);
  lua->lua_run_with_debug(chunk);
  lua->lua_reset_output();
  return 0;
}
