// The soak's loads for the Lua binding and the front panel. INTEGRATION HOOK: once the
// scripting and panel branches are merged, give each a `run` that drives its part
// through SoakParts and counts every command as answered or dropped with its reason.
#include "soak_hooks.h"

namespace korvo::soak {

const SoakLoad luaEventLoad{"lua-events", nullptr};
const SoakLoad panelInputLoad{"panel-input", nullptr};

}  // namespace korvo::soak
