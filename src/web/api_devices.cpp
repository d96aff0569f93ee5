// Audio output devices and their ALSA mixer controls.
#include <regex.h>

#include <cstdio>
#include <cstdlib>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "core/settings.h"
#include "sound/audio_device.h"
#include "sound/sdl_sound.h"
#include "web/api_common.h"
#include "web/api_handlers.h"
#include "web/responses.h"
#include "web/web_context.h"

namespace korvo {

namespace {

SoundEngine& engine() { return webContext().engine; }

const std::string& shownName(const AudioDeviceInfo& d) { return d.displayName.empty() ? d.name : d.displayName; }

// The number in group `g` of a match; false with an ERROR line when it does not read.
bool getIntForGroup(const char* url, const regmatch_t* groups, int g, long* out) {
  const regmatch_t& m = groups[g];
  if (m.rm_so < 0) return false;
  std::string text(url + m.rm_so, static_cast<std::size_t>(m.rm_eo - m.rm_so));
  char* end = nullptr;
  *out = strtol(text.c_str(), &end, 10);
  if (end == text.c_str() || *end != '\0') {
    LOG(LEVEL_ERROR, "could not read value from group(%d)", g);
    return false;
  }
  return true;
}

RegexHandle compileControlPattern() {
  RegexHandle re(new regex_t);
  if (regcomp(re.get(), "^/audioDevices/([0-9]+)/control/([0-9]+)/value/([0-9]+)/(-?[0-9]+)$", REG_EXTENDED) != 0)
    delete re.release();
  return re;
}

// Sets the value on device n's card; the open device goes through the engine, which
// keeps the value for later settings writes, any other card is written directly.
void setControl(const AudioDeviceInfo& device, int numid, int index, long value) {
  const std::string open = engine().currentAudioDevice();
  if (device.name == open || (open.empty() && device.name == "default")) {
    engine().setControlValue(numid, index, value);
    return;
  }
  if (setValueForControl(device.name, numid, index, value) != 0) return;
  const std::string key = controlKey(numid, index) + "=";
  const std::string line = key + std::to_string(value);
  if (updateConfigFile(engine().transientSettingsFile().c_str(), key.c_str(), line.c_str()) != 0)
    LOG(LEVEL_ERROR, "could not store %s", line.c_str());
}

}  // namespace

MHD_Result handleGetAudioDevices(MHD_Connection* connection, const char*, char*) {
  const std::string configured = settings.audioDevice.get();
  Joined items;
  for (const AudioDeviceInfo& d : engine().listAudioDevices())
    items.add(strFormat("{ \"name\": \"%s\", \"descr\": \"%s\", \"selected\": %s }", escape(shownName(d)).c_str(),
                        escape(d.description).c_str(), !configured.empty() && d.name == configured ? "true" : "false"));
  return sendJsonResponse(connection, "[" + items.text() + "]");
}

MHD_Result handleSetAudioDevice(MHD_Connection* connection, const char* url, char* buffer) {
  int n = 0;
  if (sscanf(url, "/audioDevices/%d", &n) != 1)
    return failed(connection, buffer, "bad audio device number. for more information see logfile");
  const auto devices = engine().listAudioDevices();
  if (engine().reopenAudioDevice(n) != n)
    return failed(connection, buffer,
                  "audio device: %d could not be set, either > max(%d) or error on open -> see logfile", n,
                  static_cast<int>(devices.size()) - 1);
  return success(connection, buffer, "switched to audio device: %s",
                 shownName(devices[static_cast<std::size_t>(n)]).c_str());
}

MHD_Result handleGetAudioControls(MHD_Connection* connection, const char* url, char*) {
  int n = 0;
  if (sscanf(url, "/audioDevices/%d", &n) != 1) return error404(connection, url);
  const auto devices = engine().listAudioDevices();
  if (n < 0 || static_cast<std::size_t>(n) >= devices.size()) return error404(connection, url);
  return sendJsonResponse(connection, getAlsaControls(devices[static_cast<std::size_t>(n)].name));
}

MHD_Result handleSetAudioControls(MHD_Connection* connection, const char* url, char* buffer) {
  static const RegexHandle pattern = compileControlPattern();
  regmatch_t groups[5];
  long card = 0, numid = 0, index = 0, value = 0;
  if (!pattern || regexec(pattern.get(), url, 5, groups, 0) != 0 || !getIntForGroup(url, groups, 1, &card) ||
      !getIntForGroup(url, groups, 2, &numid) || !getIntForGroup(url, groups, 3, &index) ||
      !getIntForGroup(url, groups, 4, &value))
    return failed(connection, buffer, "bad url");
  const auto devices = engine().listAudioDevices();
  if (card < 0 || static_cast<std::size_t>(card) >= devices.size()) return error404(connection, url);
  LOG(LEVEL_DEBUG, "setting value=%ld for card: %ld, control: %ld, index: %ld", value, card, numid, index);
  setControl(devices[static_cast<std::size_t>(card)], static_cast<int>(numid), static_cast<int>(index), value);
  return success(connection, buffer, "value set");
}

}  // namespace korvo
