// Playing sounds and the sounds of the loaded set.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/stringutil.h"
#include "sound/sdl_sound.h"
#include "soundsets/editing.h"
#include "web/api_common.h"
#include "web/api_handlers.h"
#include "web/responses.h"
#include "web/web_context.h"

namespace korvo {

namespace {

SoundEngine& engine() { return webContext().engine; }

// "{ \"id\": ... }" of one sound; engine lock held.
std::string soundDetails(const AudioSample& s) {
  std::string out = strFormat("{ \"id\": %u, \"name\": \"%s\", \"size\": %u, \"path\": \"%s\", ", s.id,
                              escape(s.name).c_str(), s.size, escape(s.basepath).c_str());
  out += strFormat("\"preload\": %s, \"gain\": %u, \"ducking\": %u, \"type\": %d, \"category\": \"%s\", \"samples\": [ ",
                   s.preload ? "true" : "false", s.gain, s.ducking, static_cast<int>(s.type), audioTypeName(s.type));
  Joined files;
  for (const std::string& f : s.samples) files.add("\"" + escape(_basename(f)) + "\"");
  out += files.text() + "], \"shakerSeq\": \"";
  Joined seq(" ");
  for (uint32_t v : s.shakersequence) seq.add(std::to_string(static_cast<int>(v)));
  out += seq.text() + "\", \"serialCmd\": \"" + escape(s.serialcmd) + "\" }";
  return out;
}

}  // namespace

MHD_Result handlePlay(MHD_Connection* connection, const char* url, char* buffer) {
  int id = atoi(url + strlen("/sounds/play/"));
  engine().handleSoundByType(id);
  return success(connection, buffer, "sound %d is playing", id);
}

MHD_Result handlePlayWithIndex(MHD_Connection* connection, const char* url, char* buffer) {
  int id = 0, idx = 0;
  if (sscanf(url + strlen("/sounds/play/"), "%d/%d", &id, &idx) < 2) return failed(connection, buffer, "bad url");
  engine().handleSoundByTypeWithIdx(id, idx, -1);
  return success(connection, buffer, "sound %d/%d is playing", id, idx);
}

MHD_Result handlePlayStop(MHD_Connection* connection, const char*, char* buffer) {
  engine().stopAllSamples();
  engine().fadeMusic(500);
  engine().resetFadedMusic(0);
  return success(connection, buffer, "music stopped");
}

// What plays now: the id on each mixer channel and on the music stream, -1 where idle.
// Read lock-free; a sample that ends meanwhile may still be listed once.
MHD_Result handleGetPlaying(MHD_Connection* connection, const char*, char*) {
  Joined ids(", ");
  for (int ch = 0; ch < kMixChannels; ++ch) {
    unsigned id = engine().idPlayingOnChannel(ch);
    ids.add(id == kChannelIdle ? "-1" : std::to_string(id));
  }
  int music = engine().soundIsPlayingMusic() ? engine().musicIdPlaying() : -1;
  return sendJsonResponse(connection, "{ \"channels\": [" + ids.text() + "], \"music\": " + std::to_string(music) + " }");
}

MHD_Result handlePlaySystemSound(MHD_Connection* connection, const char* url, char* buffer) {
  const char* name = url + strlen("/system/sounds/play/");
  if (engine().playSystemSound(name, 0) == 0) return success(connection, buffer, "system sound '%s' is playing", name);
  return failed(connection, buffer, "system sound '%s' not found", name);
}

MHD_Result handlePlayCommand(MHD_Connection* connection, const char*, char* buffer) {
  const char* cmd = queryArg(connection, "cmd");
  const char* debug = queryArg(connection, "debug");
  LOG(LEVEL_DEBUG, "handlePlayCommand: %s", cmd ? cmd : "");
  if (isEmptyString(cmd)) return sendJsonResponse(connection, "{  \"result\": \"failed\", \"message\": \"bad request\" }");
  if (isEmptyString(debug)) {
    engine().playCommand(cmd);
    return sendJsonResponse(connection, "{  \"result\": \"success\", \"message\": \"cmd is playing\" }");
  }
  const auto& runLua = webContext().runLuaWithDebug;
  if (!runLua) return failed(connection, buffer, "lua not available");
  Joined lines;
  for (const std::string& line : runLua(cmd)) lines.add("\"" + escape(line) + "\"");
  return sendJsonResponse(connection, "{  \"result\": \"success\", \"message\": \"cmd is running\" , \"output\": [" +
                                          lines.text() + "] }");
}

MHD_Result handleGetSounds(MHD_Connection* connection, const char* url, char*) {
  const char* name = url + strlen("/sounds/category/");
  int type = 0;
  for (int t = 1; t < kAudioTypeCount; ++t)
    if (strcmp(name, audioTypeNames[t]) == 0) type = t;
  if (type == 0) return error404(connection, url);
  Joined items;
  {
    auto lock = engine().lock();
    for (const auto& node : engine().index().samplesMap())
      if (node.value && node.value->type == type)
        items.add(strFormat("{ \"id\": %u,   \"name\": \"%s\" } ", node.value->id, escape(node.value->name).c_str()));
  }
  return sendJsonResponse(connection, "[ " + items.text() + "]");
}

MHD_Result handleGetSoundDetails(MHD_Connection* connection, const char* url, char*) {
  int id = atoi(url + strlen("/sounds/"));
  std::string body;
  {
    auto lock = engine().lock();
    if (const AudioSample* s = engine().getSampleForId(id)) body = soundDetails(*s);
  }
  if (body.empty()) return error400(connection, url);
  return sendJsonResponse(connection, body);
}

MHD_Result handleGetSoundFile(MHD_Connection* connection, const char* url, char*) {
  int id = 0, idx = 0;
  if (sscanf(url, "/sounds/%d/%d/file", &id, &idx) < 2) return error400(connection, url);
  std::string path;
  {
    auto lock = engine().lock();
    const AudioSample* s = engine().getSampleForId(id);
    if (s && !s->samples.empty()) {
      idx = std::clamp(idx, 0, static_cast<int>(s->samples.size()) - 1);
      path = s->samples[static_cast<std::size_t>(idx)];
    }
  }
  if (path.empty()) return error404(connection, url);
  return sendFile(connection, path, mime(path));
}

MHD_Result handleRemoveSample(MHD_Connection* connection, const char* url, char* buffer) {
  int id = 0, n = 0;
  if (sscanf(url, "/sounds/%d/sample/%d/remove", &id, &n) < 2) return error400(connection, url);
  int rc;
  {
    auto lock = engine().lock();
    rc = removeSampleFromSound(engine().index(), static_cast<unsigned>(id), n);
  }
  if (rc != 0) return error400(connection, url);
  return success(connection, buffer, "sample removed");
}

MHD_Result handleMoveToGroup(MHD_Connection* connection, const char* url, char* buffer) {
  int id = 0;
  char group[16] = {};
  if (sscanf(url + strlen("/sounds/"), "%d/move/%15[0-9a-z]", &id, group) < 2)
    return failed(connection, buffer, "bad url");
  int rc;
  {
    auto lock = engine().lock();
    rc = engine().index().moveSoundToGroup(static_cast<unsigned>(id), getAudioTypeForString(group));
  }
  if (rc != 0) return failed(connection, buffer, "sound %d could not be moved to %s", id, group);
  return success(connection, buffer, "sound %d was move to %s", id, group);
}

}  // namespace korvo
