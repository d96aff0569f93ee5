#include "web/routes.h"

#include <cstring>

#include "base/log.h"
#include "web/api_handlers.h"
#include "web/httpservice.h"
#include "web/ops_handlers.h"

namespace korvo {

namespace {

constexpr RequestHandlerMapping get(const char* pattern, SimpleHandler h) {
  return {pattern, SIMPLE, GET_REQ, h, nullptr};
}
constexpr RequestHandlerMapping post(const char* pattern, ConnType type, PostCallbackHandler cb) {
  return {pattern, POSTCB, type, nullptr, cb};
}

const RequestHandlerMapping kMappings[kRouteCount] = {
    get("^/$", handleIndexRequest),
    get("^/.*/$", handleIndexRequest),
    get("^/.*/index\\.html$", handleIndexRequest),
    get("^/(log|mellon\\.log)$", handleLogFileRequest),
    get("^/livelog$", handleLiveLogFileRequest),
    get("^/recording$", handleRecordingRequest),
    get("^/version$", handleVersion),
    get("^/playCommand$", handlePlayCommand),
    get("^/ports$", handleGetPorts),
    get("^/ports/[0-9]+/[0-9]?$", handleSetPorts),
    get("^/volume/[0-9][0-9]?[0-9]?$", handleSetVolume),
    get("^/volume$", handleGetVolume),
    get("^/network$", handleGetNetwork),
    get("^/wifi$", handleGetWifi),
    get("^/setupWifi$", handleSetWifi),
    get("^/soundsets/[0-9]/remove$", handleRemoveSoundSet),
    get("^/soundsets/[0-9]$", handleSwitchSoundSet),
    get("^/soundsets$", handleListSoundSets),
    get("^/audioDevices$", handleGetAudioDevices),
    get("^/audioDevices/[0-9]+$", handleSetAudioDevice),
    get("^/audioDevices/[0-9]+/controls$", handleGetAudioControls),
    get("^/audioDevices/[0-9]+/control/[0-9]+/value/[0-9]+/-?[0-9]+$", handleSetAudioControls),
    get("^/soundset$", handleGetCurrentSoundSet),
    get("^/soundset/next$", handleSoundSetnext),
    get("^/sounds/play/[0-9]*$", handlePlay),
    get("^/system/sounds/play/[a-zA-Z0-9_-]+\\.[A-Za-z]{3}$", handlePlaySystemSound),
    get("^/sounds/play/[0-9]*/[0-9]*$", handlePlayWithIndex),
    get("^/sounds/[0-9]*/move/[0-9a-z]*$", handleMoveToGroup),
    get("^/sounds/play/stop$", handlePlayStop),
    get("^/recording/start$", handleRecordingStart),
    get("^/recording/stop$", handleRecordingStop),
    get("^/recording/state$", handleRecordingState),
    get("^/config$", handleGetConfig),
    get("^/sounds/[0-9]*$", handleGetSoundDetails),
    get("^/sounds/[0-9]{1,5}/[0-9]{1,3}/file$", handleGetSoundFile),
    get("^/sounds/category/[a-z]*$", handleGetSounds),
    get("^/sounds/[0-9]*/sample/[0-9][0-9]?/remove$", handleRemoveSample),
    get("^/restart$", handleRestart),
    // No end anchor on these two: "/hostnameX" is a host-name request too.
    get("^/hostname", handleGetHostname),
    get("^/setHostname", handleSetHostname),
    get("^/gainByType/[0-9]$", handleGetGainByType),
    get("^/gainByType/[0-9]/[0-9]{1,3}$", handleSetGainByType),
    get("^/duckByType/[0-9]$", handleGetDuckingByType),
    get("^/duckByType/[0-9]/[0-9]{1,3}$", handleSetDuckingByType),
    get("^/firmware/auto$", handleDownloadFirmwareAuto),
    get("^/display$", handleGetDisplay),
    get("^/sounds/playing$", handleGetPlaying),
    get("^/soundsets/.+/altsound\\.zip$", handleExportAltSound),
    post("^/config$", CONFIG_POST, configPostCallback),
    post("^/recording$", UPLOAD_REC_POST, recordingPostCallback),
    post("^/soundsets$", SOUNDSET_UPLOAD_POST, uploadSoundsetPostCallback),
    post("^/firmware$", FIRMWARE_UPLOAD_POST, uploadFirmwarePostCallback),
    post("^/sounds/[0-9]*/sample/add$", SAMPLE_UPLOAD_POST, sampleUploadPostCallback),
    post("^/sounds/[0-9]*/serial$", UPDATE_SERIAL_POST, updateSoundPostCallback),
    post("^/sounds/[0-9]*/shaker$", UPDATE_SHAKER_POST, updateSoundPostCallback),
    post("^/sounds/[0-9]*/gain$", UPDATE_GAIN_POST, updateSoundPostCallback),
    post("^/sounds/[0-9]*/ducking$", UPDATE_DUCKING_POST, updateSoundPostCallback),
    post("^/sounds/[0-9]*/name$", UPDATE_NAME_POST, updateSoundPostCallback),
    post("^/sounds/[0-9]*/preload$", UPDATE_PRELOAD_POST, updateSoundPostCallback),
    post("^/sounds/[0-9]*/type$", UPDATE_TYPE_POST, updateSoundPostCallback),
};

}  // namespace

std::span<const RequestHandlerMapping> reqMappings() { return kMappings; }

void RouteTable::initRequestHandlerMappings() {
  LOG(LEVEL_INFO, "init req mappings");
  for (std::size_t i = 0; i < kRouteCount; ++i) {
    RegexHandle re(new regex_t);
    int rc = regcomp(re.get(), kMappings[i].urlPattern, REG_EXTENDED);
    LOG(LEVEL_INFO, "compile regex for '%s' -> %d", kMappings[i].urlPattern, rc);
    if (rc == 0)
      matcher_[i] = std::move(re);
    else
      delete re.release();  // nothing compiled, nothing to regfree
  }
  inited_ = true;
}

const RequestHandlerMapping* RouteTable::find(const char* path, const char* method) const {
  const bool isGet = strcmp(method, MHD_HTTP_METHOD_GET) == 0;
  const bool isPost = strcmp(method, MHD_HTTP_METHOD_POST) == 0;
  for (std::size_t i = 0; i < kRouteCount; ++i) {
    if (!matcher_[i]) continue;
    regmatch_t groups[10];
    int rc = regexec(matcher_[i].get(), path, 10, groups, 0);
    if (rc != 0) {
      if (rc != REG_NOMATCH) {
        char text[128];
        regerror(rc, matcher_[i].get(), text, sizeof text);
        LOG(LEVEL_DEBUG, "error %d->%s", rc, text);
      }
      continue;
    }
    const RequestHandlerMapping& row = kMappings[i];
    if ((row.type == SIMPLE && isGet) || (row.type == POSTCB && isPost)) return &row;
  }
  return nullptr;
}

}  // namespace korvo
