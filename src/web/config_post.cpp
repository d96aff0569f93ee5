// The url-encoded forms: the configuration page's save (every key at once) and the
// single-field updates of one sound's metadata.
#include "web/config_post.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/log.h"
#include "core/settings.h"
#include "sound/sdl_sound.h"
#include "web/ops_handlers.h"
#include "web/uploads.h"
#include "web/web_context.h"

namespace korvo {

namespace {

// The lines gathered so far live in ci.buffer as text; ci.processed counts the keys.
std::string_view configLines(const ConnectionInfo& ci) {
  return {ci.buffer.data(), strnlen(ci.buffer.data(), ci.buffer.size())};
}

bool appendConfig(ConnectionInfo& ci, std::string_view text) {
  std::string_view have = configLines(ci);
  if (have.size() + text.size() + 1 > ci.buffer.size()) return false;
  std::memcpy(ci.buffer.data() + have.size(), text.data(), text.size());
  ci.buffer[have.size() + text.size()] = '\0';
  return true;
}

// The page never receives the password (/config sends it empty), so an empty password
// field in its form means "unchanged": the stored password is written back in its place.
std::string withStoredPassword(std::string_view lines, const std::string& stored) {
  std::string out;
  while (!lines.empty()) {
    const std::size_t end = lines.find('\n');
    const std::string_view line = lines.substr(0, end == std::string_view::npos ? lines.size() : end + 1);
    lines.remove_prefix(line.size());
    if (line == "http_password=\n" || line == "http_password=")
      out.append("http_password=" + stored + "\n");
    else
      out.append(line);
  }
  return out;
}

MHD_Result saveConfig(ConnectionInfo& ci) {
  LOG(LEVEL_INFO, "Processed: %d of Total: %d Keys -> update config", static_cast<int>(ci.processed), ci.noOfKeys);
  if (ci.processed == 0) {
    LOG(LEVEL_ERROR, "configuration form without settings refused");
    return decide(ci, false, "Config not valid.");
  }
  WebContext& ctx = contextOf(ci);
  const std::string lines = withStoredPassword(configLines(ci), ctx.httpPassword);
  if (!ctx.configuration || ctx.configuration->updateMasterConfig(ctx.baseDir.c_str(), lines) != 0)
    return decide(ci, false, "Config could not be saved.");
  // DSP settings are heard at once, before the restart that applies the rest.
  if (ctx.applyConfigLines) ctx.applyConfigLines(lines);
  // The settings are read at start-up only: the daemon restarts to apply them, after the
  // answer has had time to reach the page.
  if (!ctx.srvBuild && ctx.stopMainLoop) ctx.stopMainLoop(2000, 1);
  return decide(ci, true, "Config updated. Please reload.");
}

}  // namespace

bool isConfigLineSafe(std::string_view key, std::string_view value) {
  if (key.empty() || key.find('=') != std::string_view::npos) return false;
  for (std::string_view part : {key, value})
    if (part.find_first_of("\r\n") != std::string_view::npos || part.find('\0') != std::string_view::npos) return false;
  return true;
}

MHD_Result configPostCallback(void* cls, MHD_ValueKind kind, const char* key, const char* filename,
                              const char* contentType, const char* transferEncoding, const char* data, uint64_t off,
                              size_t size) {
  ConnectionInfo& ci = connectionOf(cls);
  logPostCall(ci, true, kind, key, filename, contentType, transferEncoding, data, off, size);
  if (ci.answerstring) return MHD_NO;
  if (kind != MHD_POSTDATA_KIND) return MHD_NO;
  std::string_view value(data ? data : "", size);
  // The marker the service feeds at the end of the body: every key has arrived. At the
  // start of a value it stands for an empty one.
  if (value == kEmptyValue) {
    if (off > 0) return saveConfig(ci);
    value = {};
  }
  if (!key || !data) return MHD_YES;
  if (!isConfigLineSafe(key, value)) {
    LOG(LEVEL_ERROR, "configuration form refused: key '%s' or its value is not one line", key);
    return decide(ci, false, "Config not valid.");
  }
  bool fits;
  if (off > 0) {  // a long value goes on: it belongs before the line's end
    ci.buffer[configLines(ci).size() - 1] = '\0';
    fits = appendConfig(ci, value) && appendConfig(ci, "\n");
  } else {
    ci.processed += 1;
    fits = appendConfig(ci, std::string(key) + "=" + std::string(value) + "\n");
  }
  if (!fits) {
    LOG(LEVEL_ERROR, "configuration form refused: more than %d bytes", ConnectionInfo::kBufferSize - 1);
    return decide(ci, false, "Config not valid.");
  }
  if (static_cast<int>(ci.processed) < ci.noOfKeys) return MHD_YES;
  return saveConfig(ci);
}

// ---- single-field updates of one sound ----

namespace {

struct SoundUpdate {
  const char* what;  // for the DEBUG line "update <what> for <id>, <value>"; null = none
  int (*apply)(SampleIndex& index, unsigned id, const char* value);
  const char* ok;            // the answer of result 0
  const char* notSupported;  // of result 2; null: `ok` whatever the result
  const char* otherwise;     // of any other result
};

int applySerial(SampleIndex& i, unsigned id, const char* v) { return i.updateSerialCmdForSample(id, v); }
int applyShaker(SampleIndex& i, unsigned id, const char* v) { return i.updateShakerCmdForSample(id, v); }
int applyGain(SampleIndex& i, unsigned id, const char* v) { return i.updateGainForSample(id, v); }
int applyDucking(SampleIndex& i, unsigned id, const char* v) { return i.updateDuckingForSample(id, v); }
int applyName(SampleIndex& i, unsigned id, const char* v) { return i.updateNameForSample(id, v); }
int applyPreload(SampleIndex& i, unsigned id, const char* v) { return i.updatePreloadForSample(id, v); }
int applyType(SampleIndex& i, unsigned id, const char* v) { return i.updateTypeForSample(id, v ? atoi(v) : 0); }

const SoundUpdate* updateFor(ConnType type) {
  static const SoundUpdate kSerial{nullptr, applySerial, "serialCmd updated", nullptr, nullptr};
  static const SoundUpdate kShaker{"shaker", applyShaker, "shaker updated", nullptr, nullptr};
  static const SoundUpdate kGain{"gain", applyGain, "gain updated", nullptr, nullptr};
  static const SoundUpdate kDucking{"ducking", applyDucking, "ducking updated", nullptr, nullptr};
  static const SoundUpdate kName{"name", applyName, "name updated", "name update not supported",
                                 "could not update name (invalid)"};
  static const SoundUpdate kPreload{"preload", applyPreload, "preload updated", "preload per effect not supported",
                                    "could not set preload"};
  static const SoundUpdate kType{"type", applyType, "type updated", "something went wrong", "something went wrong"};
  switch (type) {
    case UPDATE_SERIAL_POST: return &kSerial;
    case UPDATE_SHAKER_POST: return &kShaker;
    case UPDATE_GAIN_POST: return &kGain;
    case UPDATE_DUCKING_POST: return &kDucking;
    case UPDATE_NAME_POST: return &kName;
    case UPDATE_PRELOAD_POST: return &kPreload;
    case UPDATE_TYPE_POST: return &kType;
    default: return nullptr;
  }
}

}  // namespace

MHD_Result updateSoundPostCallback(void* cls, MHD_ValueKind kind, const char* key, const char* filename,
                                   const char* contentType, const char* transferEncoding, const char* data,
                                   uint64_t off, size_t size) {
  ConnectionInfo& ci = connectionOf(cls);
  logPostCall(ci, false, kind, key, filename, contentType, transferEncoding, data, off, size);
  if (ci.answerstring || kind != MHD_POSTDATA_KIND) return MHD_NO;
  if (!key || !data) return MHD_YES;
  int id = 0;
  const SoundUpdate* update = updateFor(ci.connectiontype);
  if (!update) return MHD_NO;
  if (sscanf(ci.url.c_str(), "/sounds/%d/", &id) != 1) {
    LOG(LEVEL_ERROR, "no sound id in %s", ci.url.c_str());
    return decide(ci, false, "no sound id given");
  }
  LOG(LEVEL_DEBUG, "POST req count %d, size %lu", ci.count, static_cast<unsigned long>(size));
  const std::string text(data, size);
  const char* value = text == kEmptyValue ? nullptr : text.c_str();
  if (update->what) LOG(LEVEL_DEBUG, "update %s for %d, %s", update->what, id, value ? value : "(null)");
  SoundEngine& engine = contextOf(ci).engine;
  int rc;
  {
    auto lock = engine.lock();
    rc = update->apply(engine.index(), static_cast<unsigned>(id), value);
  }
  // Serial, shaker, gain and ducking report their problems only in the log.
  if (!update->notSupported || rc == 0) return decide(ci, true, update->ok);
  return decide(ci, false, rc == 2 ? update->notSupported : update->otherwise);
}

}  // namespace korvo
