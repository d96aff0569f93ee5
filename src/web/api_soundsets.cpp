// The installed sound sets: list, switch, remove, current, next.
#include <cstdlib>
#include <cstring>

#include "base/stringutil.h"
#include "core/settings.h"
#include "sound/sdl_sound.h"
#include "web/api_common.h"
#include "web/api_handlers.h"
#include "web/responses.h"
#include "web/web_context.h"

namespace korvo {

namespace {

SoundEngine& engine() { return webContext().engine; }

// The set's path below the base directory (without the separating '/').
std::string relativeName(const std::string& path, const std::string& base) {
  if (!base.empty() && path.size() > base.size() && path.compare(0, base.size(), base) == 0 &&
      path[base.size()] == '/')
    return path.substr(base.size() + 1);
  return path;
}

// The one digit after `prefix`; -1 when it is not there.
int setNumberAfter(const char* url, const char* prefix) {
  char c = url[strlen(prefix)];
  return c >= '0' && c <= '9' ? c - '0' : -1;
}

}  // namespace

MHD_Result handleListSoundSets(MHD_Connection* connection, const char*, char*) {
  const char* refresh = queryArg(connection, "refresh");
  if (refresh && strcmp(refresh, "1") == 0) engine().searchSoundSets();
  const std::string& base = webContext().baseDir;
  const int current = settings.soundSet.load();
  Joined items;
  {
    auto lock = engine().lock();
    const SoundSetCatalogue& cat = engine().catalogue();
    for (int i = 1; i <= cat.maxSoundSets; ++i) {
      const SoundSet* set = cat.get(i);
      if (!set) continue;
      items.add(strFormat("{ \"id\": \"%d\", \"name\": \"%s\", \"selected\": %s, \"type\": %d  }", i,
                          escape(relativeName(set->basedir, base)).c_str(), i == current ? "true" : "false",
                          static_cast<int>(set->type)));
    }
  }
  return sendJsonResponse(connection, "[" + items.text() + "]");
}

MHD_Result handleSwitchSoundSet(MHD_Connection* connection, const char* url, char* buffer) {
  const int n = setNumberAfter(url, "/soundsets/");
  int type = -1;
  {
    auto lock = engine().lock();
    if (engine().catalogue().isValidSoundSetIndex(n)) type = static_cast<int>(engine().catalogue().get(n)->type);
  }
  if (type < 0) return failed(connection, buffer, "could not switch soundset");
  engine().switchToSoundSet(n);
  snprintf(buffer, kWorkBufferSize,
           "{  \"message\": \"switched to %d\", \"result\": \"success\", \"soundset\": \"%d\", \"type\": %d }", n, n,
           type);
  return sendJsonResponse(connection, buffer);
}

MHD_Result handleRemoveSoundSet(MHD_Connection* connection, const char* url, char* buffer) {
  const int n = setNumberAfter(url, "/soundsets/");
  if (engine().removeSoundSet(n) == 0) return success(connection, buffer, "soundset %d deleted", n);
  return failed(connection, buffer, "soundset %d not deleted", n);
}

MHD_Result handleGetCurrentSoundSet(MHD_Connection* connection, const char*, char* buffer) {
  const int current = settings.soundSet.load();
  int type = -1;
  {
    auto lock = engine().lock();
    if (const SoundSet* set = engine().catalogue().get(current)) type = static_cast<int>(set->type);
  }
  if (type < 0) return failed(connection, buffer, "no sound set loaded");
  snprintf(buffer, kWorkBufferSize, "{ \"soundset\": \"%d\", \"type\": %d }", current, type);
  return sendJsonResponse(connection, buffer);
}

MHD_Result handleSoundSetnext(MHD_Connection* connection, const char*, char* buffer) {
  engine().cycleSoundSet(1);
  snprintf(buffer, kWorkBufferSize, "{  \"soundset\": \"%d\" }", settings.soundSet.load());
  return sendJsonResponse(connection, buffer);
}

}  // namespace korvo
