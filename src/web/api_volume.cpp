// Master volume, and gain and ducking per sound type.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/settings.h"
#include "sound/sdl_sound.h"
#include "web/api_handlers.h"
#include "web/responses.h"
#include "web/web_context.h"

namespace korvo {

namespace {

SoundEngine& engine() { return webContext().engine; }

// The one-digit type after `prefix`; -1 outside the type tables (the route allows 7..9).
int typeAfter(const char* url, const char* prefix) {
  int t = url[strlen(prefix)] - '0';
  return t >= 0 && t < kAudioTypeCount ? t : -1;
}

enum MHD_Result sendTypeValue(MHD_Connection* connection, const char* url, char* buffer, const char* prefix,
                              const char* key, bool gain) {
  const int t = typeAfter(url, prefix);
  if (t < 0) return error400(connection, url);
  int value;
  {
    auto lock = engine().lock();
    const SampleIndex& index = engine().index();
    value = gain ? index.gainByType(t) : index.duckingByType(t);
  }
  snprintf(buffer, kWorkBufferSize, "{  \"type\": \"%d\", \"%s\": \"%d\" }", t, key, value);
  return sendJsonResponse(connection, buffer);
}

// "<t>/<v>" after the prefix; false when two numbers are not there.
bool typeAndValue(const char* url, const char* prefix, int* t, int* v) {
  return sscanf(url + strlen(prefix), "%d/%d", t, v) == 2;
}

}  // namespace

MHD_Result handleGetVolume(MHD_Connection* connection, const char*, char* buffer) {
  snprintf(buffer, kWorkBufferSize, "{  \"volume\": \"%d\" }", settings.volume.load());
  return sendJsonResponse(connection, buffer);
}

MHD_Result handleSetVolume(MHD_Connection* connection, const char* url, char* buffer) {
  const int v = atoi(url + strlen("/volume/"));
  if (engine().setVolume(v) != 0) return failed(connection, buffer, "could not set volume");
  return success(connection, buffer, "volume set to %d", v);
}

MHD_Result handleGetGainByType(MHD_Connection* connection, const char* url, char* buffer) {
  return sendTypeValue(connection, url, buffer, "/gainByType/", "gain", true);
}

MHD_Result handleGetDuckingByType(MHD_Connection* connection, const char* url, char* buffer) {
  return sendTypeValue(connection, url, buffer, "/duckByType/", "ducking", false);
}

MHD_Result handleSetGainByType(MHD_Connection* connection, const char* url, char* buffer) {
  int t = 0, g = 0, rc = 1;
  if (typeAndValue(url, "/gainByType/", &t, &g)) {
    auto lock = engine().lock();
    rc = engine().index().setGainByType(t, g);
  }
  if (rc != 0) return failed(connection, buffer, "could not update gain");
  return success(connection, buffer, "gain updated for type");
}

MHD_Result handleSetDuckingByType(MHD_Connection* connection, const char* url, char* buffer) {
  int t = 0, d = 0, rc = 1;
  if (typeAndValue(url, "/duckByType/", &t, &d)) {
    auto lock = engine().lock();
    rc = engine().index().setDuckingByType(t, d);
  }
  if (rc != 0) return failed(connection, buffer, "could not update ducking");
  return success(connection, buffer, "ducking updated for type");
}

}  // namespace korvo
