#include "scripting/lua_binding.h"

// The C++ build of Lua: no extern "C", so lua_error unwinds C++ destructors.
#include <lauxlib.h>
#include <lua.h>
#include <lualib.h>

#include <cctype>

#include "base/log.h"
#include "core/options.h"
#include "platform/clock.h"
#include "scripting/lua_functions.h"

namespace korvo {

namespace {

// Instructions between two checks of the time limit while a script runs normally.
constexpr int kHookInstructions = 1000;

LuaBinding* bindingOf(lua_State* L) {
  lua_getfield(L, LUA_REGISTRYINDEX, kBindingKey);
  auto* b = static_cast<LuaBinding*>(lua_touserdata(L, -1));
  lua_pop(L, 1);
  return b;
}

void countHook(lua_State* L, lua_Debug*) {
  LuaBinding* b = bindingOf(L);
  if (!b || !b->overTime()) return;
  // From now on every instruction fails, so a script that catches the error with pcall
  // cannot go on looping: the first instruction outside its pcall ends it.
  lua_sethook(L, countHook, LUA_MASKCOUNT, 1);
  luaL_error(L, "script stopped: ran longer than the time limit");
}

// The text of the error object on top of the stack.
std::string errorText(lua_State* L) {
  const char* msg = lua_tostring(L, -1);
  if (msg) return msg;
  return std::string("(error object is a ") + luaL_typename(L, -1) + " value)";
}

// Removes "exit" from the global "os"; nothing else is taken away.
void disable_some_library_calls(lua_State* L) {
  lua_getglobal(L, "os");
  if (lua_istable(L, -1)) {
    lua_pushnil(L);
    lua_setfield(L, -2, "exit");
  }
  lua_pop(L, 1);
}

}  // namespace

void LuaBinding::StateClose::operator()(lua_State* L) const noexcept { lua_close(L); }

LuaBinding::LuaBinding(Settings& s) : settings_(s) {}

LuaBinding::~LuaBinding() {
  std::lock_guard lk(luaMutex_);
  luaVM_.reset();
}

int LuaBinding::lua_init(const SettingsCatalogue& catalogue) {
  std::lock_guard lk(luaMutex_);
  luaVM_.reset(luaL_newstate());
  lua_State* L = luaVM_.get();
  if (!L) {
    LOG(LEVEL_ERROR, "init lua failed.");
    return -1;
  }
  luaVMstartTime_ = millis();
  lua_pushlightuserdata(L, this);
  lua_setfield(L, LUA_REGISTRYINDEX, kBindingKey);
  luaL_openlibs(L);
  registerFunctions(L, this);
  lua_pushstring(L, kVersion);
  lua_setglobal(L, "version");
  pushconfig(L, catalogue);
  lua_setglobal(L, "config");
  disable_some_library_calls(L);
  lua_getglobal(L, "_VERSION");
  LOG(LEVEL_INFO, "lua_init. lua version '%s'", lua_tostring(L, -1));
  lua_pop(L, 1);
  return 0;
}

void LuaBinding::lua_exit() {
  std::lock_guard lk(luaMutex_);
  if (!luaVM_) return;
  LOG(LEVEL_INFO, "lua_exit");
  luaVM_.reset();
}

bool LuaBinding::running() const {
  std::lock_guard lk(luaMutex_);
  return static_cast<bool>(luaVM_);
}

bool LuaBinding::overTime() const {
  const unsigned limit = timeLimitMs_.load();
  return limit > 0 && millis() - runStart_ > limit;
}

void LuaBinding::enter() {
  if (depth_++ == 0) {
    runStart_ = millis();
    lua_sethook(luaVM_.get(), countHook, LUA_MASKCOUNT, kHookInstructions);
  }
}

void LuaBinding::leave() { --depth_; }

void LuaBinding::withState(const Work& work) {
  {
    std::lock_guard lk(luaMutex_);
    if (luaVM_) {
      struct Depth {
        LuaBinding& b;
        explicit Depth(LuaBinding& x) : b(x) { b.enter(); }
        ~Depth() { b.leave(); }
      } depth(*this);
      work(luaVM_.get());
    }
  }
  drainPending();
}

void LuaBinding::drainPending() {
  for (;;) {
    {
      std::lock_guard q(pendingMutex_);
      if (pending_.empty()) return;
    }
    std::unique_lock lk(luaMutex_, std::try_to_lock);
    // Whoever holds the state runs the queue before letting it go.
    if (!lk.owns_lock()) return;
    std::deque<Work> work;
    {
      std::lock_guard q(pendingMutex_);
      work.swap(pending_);
    }
    for (const Work& w : work) {
      if (!luaVM_) break;
      enter();
      try {
        w(luaVM_.get());
      } catch (...) {
        leave();
        throw;
      }
      leave();
    }
  }
}

void LuaBinding::enqueue(Work work) {
  {
    std::lock_guard q(pendingMutex_);
    if (pending_.size() >= kMaxPending) {
      LOG(LEVEL_ERROR, "lua busy: %zu commands waiting, one dropped", pending_.size());
      return;
    }
    pending_.push_back(std::move(work));
  }
  drainPending();
}

int LuaBinding::runLoaded(lua_State* L, int loadStatus, bool toPrintBuffer) {
  const int base = lua_gettop(L) - 1;
  int status = loadStatus;
  if (status == LUA_OK) status = lua_pcall(L, 0, LUA_MULTRET, 0);
  if (status != LUA_OK) {
    const std::string msg = errorText(L);
    if (toPrintBuffer)
      print_.add(msg);
    else
      LOG(LEVEL_ERROR, "lua error: %s", msg.c_str());
  }
  lua_settop(L, base < 0 ? 0 : base);
  return status == LUA_OK ? 0 : 1;
}

int LuaBinding::lua_runfile(const std::string& path) {
  LOG(LEVEL_DEBUG, "running lua script: '%s'", path.c_str());
  int rc = 1;
  withState([&](lua_State* L) { rc = runLoaded(L, luaL_loadfile(L, path.c_str()), false); });
  return rc;
}

int LuaBinding::lua_run(const std::string& text) {
  int rc = 1;
  withState([&](lua_State* L) {
    rc = runLoaded(L, luaL_loadbuffer(L, text.data(), text.size(), text.c_str()), false);
  });
  return rc;
}

int LuaBinding::lua_run_with_debug(const std::string& text) {
  int rc = 1;
  withState([&](lua_State* L) {
    rc = runLoaded(L, luaL_loadbuffer(L, text.data(), text.size(), text.c_str()), true);
  });
  return rc;
}

bool LuaBinding::lua_register_eventcallback(const std::function<void(Handler)>& addEventHandler) {
  LOG(LEVEL_INFO, "checking for event handler function '%s' ...", "eventHandler");
  bool found = false;
  withState([&](lua_State* L) {
    lua_getglobal(L, "eventHandler");
    found = lua_isfunction(L, -1);
    lua_pop(L, 1);
  });
  if (!found || !addEventHandler) return false;
  LOG(LEVEL_INFO, "adding lua event callback handler: %s", "eventHandler");
  // Outside the Lua mutex: the event service takes its own lock here.
  addEventHandler([this](const std::string& text) { event_callback_handler(text); });
  return true;
}

void LuaBinding::event_callback_handler(const std::string& text) {
  withState([&](lua_State* L) {
    const int base = lua_gettop(L);
    lua_getglobal(L, "eventHandler");
    if (!lua_isfunction(L, -1)) {
      lua_settop(L, base);
      return;
    }
    lua_pushlstring(L, text.data(), text.size());
    if (lua_pcall(L, 1, 0, 0) != LUA_OK) LOG(LEVEL_ERROR, "lua error: %s", errorText(L).c_str());
    lua_settop(L, base);
  });
}

void LuaBinding::lua_setglobal_string(const char* name, const std::string& value) {
  withState([&](lua_State* L) {
    lua_pushlstring(L, value.data(), value.size());
    lua_setglobal(L, name);
  });
}

void LuaBinding::lua_setglobal_int(const char* name, int value) {
  withState([&](lua_State* L) {
    lua_pushinteger(L, value);
    lua_setglobal(L, name);
  });
}

void LuaBinding::post(const std::string& chunk) {
  enqueue([this, chunk](lua_State* L) {
    runLoaded(L, luaL_loadbuffer(L, chunk.data(), chunk.size(), chunk.c_str()), false);
  });
}

void LuaBinding::postGlobalInt(const char* name, int value) {
  enqueue([name = std::string(name), value](lua_State* L) {
    lua_pushinteger(L, value);
    lua_setglobal(L, name.c_str());
  });
}

void LuaBinding::printLine(const std::string& line) {
  LOG(LEVEL_INFO, "%s", line.c_str());
  print_.add(line);
}

std::string toCamelCase(const std::string& name) {
  std::string out;
  out.reserve(name.size());
  for (std::size_t i = 0; i < name.size(); i++) {
    if (name[i] == '_') {
      if (i + 1 < name.size()) out += static_cast<char>(std::toupper(static_cast<unsigned char>(name[++i])));
      continue;
    }
    out += name[i];
  }
  return out;
}

}  // namespace korvo
