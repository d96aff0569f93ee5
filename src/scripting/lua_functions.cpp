// The functions offered to scripts that act on the engine, the outputs and the video
// player. Wrong argument types raise a Lua error (logged by the runner); a missing
// subsystem is an ERROR line and no action.
#include "scripting/lua_functions.h"

#include <lauxlib.h>
#include <lua.h>

#include <SDL2/SDL_thread.h>

#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "base/log.h"
#include "bus/bus.h"
#include "scripting/lua_binding.h"
#include "sound/sdl_sound.h"
#include "video/dbus.h"

namespace korvo {

namespace {

// Lets no C++ exception other than Lua's own cross the interpreter: it becomes a Lua
// error with its text.
template <int (*F)(lua_State*)>
int guarded(lua_State* L) {
  std::string what;
  try {
    return F(L);
  } catch (const std::exception& e) {
    what = e.what();
  }
  return luaL_error(L, "%s", what.c_str());
}

int toInt(lua_State* L, int arg) { return static_cast<int>(luaL_checkinteger(L, arg)); }
int optInt(lua_State* L, int arg, int def) { return static_cast<int>(luaL_optinteger(L, arg, def)); }

// SDL keeps error state for every thread that calls into it through the engine: each
// thread that runs scripts (the event service's among them) releases it when it ends.
struct SdlThreadState {
  ~SdlThreadState() { SDL_TLSCleanup(); }
};

SoundEngine* engineFor(lua_State* L, const char* fn) {
  thread_local SdlThreadState sdlState;
  SoundEngine* e = bindingFrom(L).engine();
  if (!e) LOG(LEVEL_ERROR, "%s: the sound engine is not running", fn);
  return e;
}

Bus* busFor(lua_State* L, const char* fn) {
  Bus* b = bindingFrom(L).bus();
  if (!b) LOG(LEVEL_ERROR, "%s: the outputs are not running", fn);
  return b;
}

VideoPlayer* videoFor(lua_State* L, const char* fn) {
  VideoPlayer* v = bindingFrom(L).video();
  if (!v) LOG(LEVEL_ERROR, "%s: no video player control", fn);
  return v;
}

// ---- sound ----

int fadeTypes(lua_State* L, const char* fn, bool voice, bool sfx) {
  const int ms = toInt(L, 1);
  if (SoundEngine* e = engineFor(L, fn)) {
    if (voice) e->fadeSoundType(ms, VOICE);
    if (sfx) e->fadeSoundType(ms, SFX);
  }
  return 0;
}
int fadeOutAllEffects(lua_State* L) { return fadeTypes(L, "fadeOutAllEffects", true, true); }
int fadeOutVoice(lua_State* L) { return fadeTypes(L, "fadeOutVoice", true, false); }
int fadeOutSfx(lua_State* L) { return fadeTypes(L, "fadeOutSfx", false, true); }

int playSound(lua_State* L) {
  const int id = toInt(L, 1);
  const int a = optInt(L, 2, -1);
  const int b = optInt(L, 3, -1);
  if (SoundEngine* e = engineFor(L, "playSound")) e->handleSoundByTypeWithIdx(id, b, a);
  return 0;
}

int setVolume(lua_State* L) {
  const int v = toInt(L, 1);
  if (SoundEngine* e = engineFor(L, "setVolume")) e->setVolume(v);
  return 0;
}

int stopMusic(lua_State* L) {
  if (SoundEngine* e = engineFor(L, "stopMusic")) e->stopMusic();
  return 0;
}

int pauseMusic(lua_State* L) {
  if (SoundEngine* e = engineFor(L, "pauseMusic")) e->pauseMusic();
  return 0;
}

int resumeMusic(lua_State* L) {
  const int n = optInt(L, 1, 0);
  if (SoundEngine* e = engineFor(L, "resumeMusic")) e->resumeMusic(n);
  return 0;
}

int fadeMusic(lua_State* L) {
  const int ms = toInt(L, 1);
  if (SoundEngine* e = engineFor(L, "fadeMusic")) e->fadeMusic(ms);
  return 0;
}

int stopAllSamples(lua_State* L) {
  if (SoundEngine* e = engineFor(L, "stopAllSamples")) e->stopAllSamples();
  return 0;
}

// ---- outputs ----

int port(lua_State* L) {
  const int pin = toInt(L, 1);
  const int value = toInt(L, 2);
  if (Bus* b = busFor(L, "port")) b->setPortExtenderPin(pin, value);
  return 0;
}

int portseq(lua_State* L) {
  if (lua_type(L, 1) != LUA_TNUMBER) {
    LOG(LEVEL_ERROR, "first param (portnumber) must be a number");
    return 0;
  }
  const int portNumber = toInt(L, 1);
  std::vector<int> steps;
  for (int i = 2; i <= lua_gettop(L); i++) steps.push_back(toInt(L, i));
  LOG(LEVEL_DEBUG, "creating port sequence of len %d", static_cast<int>(steps.size()));
  if (Bus* b = busFor(L, "portseq")) b->portseq(portNumber, steps);
  return 0;
}

int send(lua_State* L) {
  std::size_t len = 0;
  const char* text = luaL_checklstring(L, 1, &len);
  if (Bus* b = busFor(L, "send")) {
    if (bindingFrom(L).settingsRef().enableSerial) b->serialSend(std::string_view(text, len));
    b->sendSocketCmd(std::string_view(text, len));
  }
  return 0;
}

int sendI2C(lua_State* L) {
  const int address = toInt(L, 1);
  const int reg = toInt(L, 2);
  std::optional<int> value;
  if (!lua_isnoneornil(L, 3)) value = toInt(L, 3);
  if (Bus* b = busFor(L, "sendI2C")) b->i2c().sendI2C(address, reg, value);
  return 0;
}

int sendI2CW(lua_State* L) {
  const int address = toInt(L, 1);
  const int reg = toInt(L, 2);
  if (lua_isnoneornil(L, 3)) {
    if (Bus* b = busFor(L, "sendI2CW")) b->i2c().sendI2C(address, reg, std::nullopt);
    return 0;
  }
  const int value = toInt(L, 3);
  if (Bus* b = busFor(L, "sendI2CW")) b->i2c().sendI2CW(address, reg, value);
  return 0;
}

// The log names "_log" as the function, as scripts' lines always have.
int log(lua_State* L) {
  const int level = toInt(L, 1);
  const char* text = luaL_checkstring(L, 2);
  const int l = level == 4 ? LEVEL_DEBUG : level == 3 ? LEVEL_INFO : LEVEL_ERROR;
  if (Log::instance().logLevel() >= l) logWrite(l, "_log", __FILE_NAME__, __LINE__, "%s", text);
  return 0;
}

// ---- video ----

int omxPause(lua_State* L) {
  if (VideoPlayer* v = videoFor(L, "omxPause")) v->omxPlayerPause();
  return 0;
}

int omxAction(lua_State* L) {
  const int action = toInt(L, 1);
  if (VideoPlayer* v = videoFor(L, "omxAction")) v->omxPlayerAction(action);
  return 0;
}

int omxSetPos(lua_State* L) {
  const long pos = static_cast<long>(luaL_checkinteger(L, 1));
  if (VideoPlayer* v = videoFor(L, "omxSetPos")) v->omxPlayerSetPosition(pos);
  return 0;
}

int omxStop(lua_State* L) {
  if (VideoPlayer* v = videoFor(L, "omxStop")) v->omxPlayerStop();
  return 0;
}

int omxPlay(lua_State* L) {
  const char* uri = luaL_checkstring(L, 1);
  if (VideoPlayer* v = videoFor(L, "omxPlay")) v->omxPlayerOpenUri(uri);
  return 0;
}

int omxGetStatus(lua_State* L) {
  VideoPlayer* v = videoFor(L, "omxGetStatus");
  lua_pushinteger(L, v ? v->omxGetStatus() : 0);
  return 1;
}

int omxGetPos(lua_State* L) {
  VideoPlayer* v = videoFor(L, "omxGetPos");
  lua_pushinteger(L, v ? static_cast<lua_Integer>(v->omxGetPos()) : 0);
  return 1;
}

int omxPlayWithBlend(lua_State* L) {
  const char* uri = luaL_checkstring(L, 1);
  const long blend = static_cast<long>(luaL_checkinteger(L, 2));
  if (VideoPlayer* v = videoFor(L, "omxPlayWithBlend")) v->omxPlayerOpenUriBlend(uri, blend);
  return 0;
}

// The registration list: installed into _G at once.
const luaL_Reg funclib[] = {
    {"print", guarded<lua_print>},
    {"fadeOutAllEffects", guarded<fadeOutAllEffects>},
    {"fadeOutVoice", guarded<fadeOutVoice>},
    {"fadeOutSfx", guarded<fadeOutSfx>},
    {"playSound", guarded<playSound>},
    {"port", guarded<port>},
    {"portseq", guarded<portseq>},
    {"send", guarded<send>},
    {"sendI2C", guarded<sendI2C>},
    {"sendI2CW", guarded<sendI2CW>},
    {"log", guarded<log>},
    {"setVolume", guarded<setVolume>},
    {"stopMusic", guarded<stopMusic>},
    {"pauseMusic", guarded<pauseMusic>},
    {"resumeMusic", guarded<resumeMusic>},
    {"fadeMusic", guarded<fadeMusic>},
    {"getSound", guarded<lua_getSound>},
    {"getCurrentSoundPack", guarded<lua_getCurrentSoundPack>},
    {"stopAllSamples", guarded<stopAllSamples>},
    {"omxPause", guarded<omxPause>},
    {"omxAction", guarded<omxAction>},
    {"omxSetPos", guarded<omxSetPos>},
    {"omxStop", guarded<omxStop>},
    {"omxPlay", guarded<omxPlay>},
    {"omxGetStatus", guarded<omxGetStatus>},
    {"omxGetPos", guarded<omxGetPos>},
    {"omxPlayWithBlend", guarded<omxPlayWithBlend>},
    {nullptr, nullptr},
};

}  // namespace

LuaBinding& bindingFrom(lua_State* L) {
  return *static_cast<LuaBinding*>(lua_touserdata(L, lua_upvalueindex(1)));
}

void registerFunctions(lua_State* L, LuaBinding* binding) {
  lua_pushglobaltable(L);
  lua_pushlightuserdata(L, binding);
  luaL_setfuncs(L, funclib, 1);
  lua_pop(L, 1);
}

}  // namespace korvo
