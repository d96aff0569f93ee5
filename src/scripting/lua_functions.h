// The functions Lua scripts call and the tables they get, installed into a fresh state.
// Every function runs with the Lua mutex held, on the thread that runs the script.
#pragma once

#include "core/settings.h"

struct lua_State;

namespace korvo {

class LuaBinding;

// Registry field holding the LuaBinding of a state (light userdata).
inline constexpr const char* kBindingKey = "korvo.binding";

// Installs every function into _G, each bound to `binding`.
void registerFunctions(lua_State* L, LuaBinding* binding);
// Pushes the `config` table: one field per catalogue row by its name, STRING rows as
// strings, GROUP rows skipped, all others as integers.
void pushconfig(lua_State* L, const SettingsCatalogue& catalogue);

// The binding of the running function (its first upvalue).
LuaBinding& bindingFrom(lua_State* L);

// Functions whose work is building text or tables (lua_tables.cpp).
int lua_print(lua_State* L);
int lua_getSound(lua_State* L);
int lua_getCurrentSoundPack(lua_State* L);

}  // namespace korvo
