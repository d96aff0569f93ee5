// print and the tables scripts read: sounds, the current sound set, the configuration.
#include <lauxlib.h>
#include <lua.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <set>
#include <string>

#include "scripting/lua_binding.h"
#include "scripting/lua_functions.h"
#include "sound/sdl_sound.h"

namespace korvo {

namespace {

constexpr std::size_t kMaxIndent = 1024;

// Lines of one print call; the count is capped so one print of a huge table cannot
// flood the log (the buffer keeps only the newest 2000 anyway).
class PrintSink {
 public:
  explicit PrintSink(LuaBinding& b) : b_(b) {}
  bool full() const { return lines_ >= PrintBuffer::kLines; }
  void line(const std::string& text) {
    if (full()) {
      cut_ = true;
      return;
    }
    ++lines_;
    b_.printLine(text);
  }
  void cut() { cut_ = true; }
  ~PrintSink() {
    if (cut_) b_.printLine("... print cut after " + std::to_string(lines_) + " lines");
  }

 private:
  LuaBinding& b_;
  int lines_ = 0;
  bool cut_ = false;
};

std::string numberText(lua_Number n) {
  char buf[64];
  if (std::isfinite(n) && n == std::floor(n) && std::fabs(n) < 9.2e18)
    std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(n));
  else
    std::snprintf(buf, sizeof buf, "%.14g", n);
  return buf;
}

std::string otherText(lua_State* L, int idx) {
  char buf[128];
  std::snprintf(buf, sizeof buf, "%s@0x%08" PRIxPTR, luaL_typename(L, idx),
                reinterpret_cast<uintptr_t>(lua_topointer(L, idx)));
  return buf;
}

// A key or a scalar value as text.
std::string scalarText(lua_State* L, int idx) {
  switch (lua_type(L, idx)) {
    case LUA_TNIL: return "nil";
    case LUA_TNUMBER: return numberText(lua_tonumber(L, idx));
    case LUA_TSTRING: {
      std::size_t len = 0;
      const char* s = lua_tolstring(L, idx, &len);
      return std::string(s, len);
    }
    case LUA_TBOOLEAN: return lua_toboolean(L, idx) ? "true" : "false";
    default: return otherText(L, idx);
  }
}

// Nested lines of the table at `idx`, four blanks per level. A table already being
// printed further up is not entered again.
void print_table(lua_State* L, int idx, const std::string& indent, std::set<const void*>& path, PrintSink& out) {
  idx = lua_absindex(L, idx);
  const int top = lua_gettop(L);
  if (!lua_checkstack(L, 4)) return;
  path.insert(lua_topointer(L, idx));
  lua_pushnil(L);
  while (lua_next(L, idx) != 0) {
    if (out.full()) {
      out.cut();
      break;
    }
    // Keys are copied as text: lua_tostring on the key itself would confuse lua_next.
    lua_pushvalue(L, -2);
    const std::string key = scalarText(L, -1);
    lua_pop(L, 1);
    if (lua_istable(L, -1)) {
      if (path.count(lua_topointer(L, -1))) {
        out.line(indent + key + " = { ... }");
      } else {
        out.line(indent + key + " = { ");
        const std::string inner = indent.size() + 4 <= kMaxIndent ? indent + "    " : indent;
        print_table(L, -1, inner, path, out);
        out.line(indent + "}");
      }
    } else {
      out.line(indent + key + " = " + scalarText(L, -1));
    }
    lua_pop(L, 1);
  }
  lua_settop(L, top);  // after an early end lua_next's key and value are still there
  path.erase(lua_topointer(L, idx));
}

void setString(lua_State* L, const char* name, const std::string& value) {
  if (value.empty())
    lua_pushnil(L);
  else
    lua_pushlstring(L, value.data(), value.size());
  lua_setfield(L, -2, toCamelCase(name).c_str());
}

void setInt(lua_State* L, const char* name, lua_Integer value) {
  lua_pushinteger(L, value);
  lua_setfield(L, -2, toCamelCase(name).c_str());
}

// The table of one sound.
void push_sound(lua_State* L, const AudioSample& s) {
  lua_createtable(L, 0, 7);
  setString(L, "name", s.name);
  setString(L, "serialcmd", s.serialcmd);
  setString(L, "basepath", s.basepath);
  setInt(L, "type", s.type);
  setInt(L, "gain", s.gain);
  setInt(L, "preload", s.preload ? 1 : 0);
  lua_createtable(L, static_cast<int>(s.samples.size()), 0);
  for (std::size_t i = 0; i < s.samples.size(); i++) {
    lua_pushlstring(L, s.samples[i].data(), s.samples[i].size());
    lua_rawseti(L, -2, static_cast<int>(i + 1));
  }
  lua_setfield(L, -2, "samples");
}

void pushTypeArray(lua_State* L, const char* name, const SampleIndex& index, bool gain) {
  lua_createtable(L, kAudioTypeCount, 0);
  for (int t = 0; t < kAudioTypeCount; t++) {
    lua_pushinteger(L, gain ? index.gainByType(t) : index.duckingByType(t));
    lua_rawseti(L, -2, t + 1);
  }
  lua_setfield(L, -2, name);
}

}  // namespace

int lua_print(lua_State* L) {
  LuaBinding& b = bindingFrom(L);
  PrintSink out(b);
  const int n = lua_gettop(L);
  std::string line;
  bool pending = true;  // print() with no argument prints one empty line
  for (int i = 1; i <= n; i++) {
    if (lua_istable(L, i)) {
      if (!line.empty()) out.line(line);
      line.clear();
      std::set<const void*> path;
      print_table(L, i, "", path, out);
      pending = false;
      continue;
    }
    if (!line.empty()) line += '\t';
    line += scalarText(L, i);
    pending = true;
  }
  if (pending) out.line(line);
  return 0;
}

int lua_getSound(lua_State* L) {
  const int id = static_cast<int>(luaL_checkinteger(L, 1));
  SoundEngine* e = bindingFrom(L).engine();
  if (!e) {
    lua_pushnil(L);
    return 1;
  }
  auto lk = e->lock();
  const AudioSample* s = e->getSampleForId(id);
  if (s)
    push_sound(L, *s);
  else
    lua_pushnil(L);
  return 1;
}

int lua_getCurrentSoundPack(lua_State* L) {
  SoundEngine* e = bindingFrom(L).engine();
  if (!e) {
    lua_pushnil(L);
    return 1;
  }
  auto lk = e->lock();
  const SoundSet* set = e->catalogue().get(e->currentSoundSet());
  if (!set) {
    lua_pushnil(L);
    return 1;
  }
  const SampleIndex& index = e->index();
  lua_createtable(L, 0, 10);
  setString(L, "name", set->name);
  setString(L, "basedir", set->basedir);
  setInt(L, "n_samples", index.samplesMap().mapSize());
  setInt(L, "attract_timeout", set->attract_timeout);
  lua_pushboolean(L, set->fade_sfx_on_music_change);
  lua_setfield(L, -2, toCamelCase("fade_sfx_on_music_change").c_str());
  setInt(L, "fade_sfx_on_music_change_time", set->fade_sfx_on_music_change_time);
  pushTypeArray(L, "gain", index, true);
  pushTypeArray(L, "ducking", index, false);
  lua_newtable(L);
  for (const auto& node : index.samplesMap()) {
    if (!node.value || !lua_checkstack(L, 8)) continue;
    push_sound(L, *node.value);
    lua_setfield(L, -2, std::to_string(node.key).c_str());
  }
  lua_setfield(L, -2, "samples");
  return 1;
}

void pushconfig(lua_State* L, const SettingsCatalogue& catalogue) {
  lua_newtable(L);
  for (const SettingsMap& row : catalogue) {
    if (row.type == GROUP || row.name.empty()) continue;
    if (row.type == STRING) {
      const std::string v = row.stringValue();
      lua_pushlstring(L, v.data(), v.size());
    } else {
      lua_pushinteger(L, row.intValue());
    }
    lua_setfield(L, -2, row.name.c_str());
  }
}

}  // namespace korvo
