// The ALSA side of the audio devices: the device list and the card's mixer controls.
#include "sound/audio_device.h"

#include <SDL2/SDL.h>
#include <alsa/asoundlib.h>

#include <cstdio>
#include <cstring>

#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

namespace {

std::string jsonEscape(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20)
          out += strFormat("\\u%04x", c);
        else
          out += static_cast<char>(c);
    }
  }
  return out;
}

using CtlPtr = Handle<snd_ctl_t, snd_ctl_close>;

CtlPtr openCtl(const std::string& deviceName) {
  const std::string ctlName = controlDeviceFor(deviceName);
  snd_ctl_t* ctl = nullptr;
  const int rc = snd_ctl_open(&ctl, ctlName.c_str(), 0);
  if (rc < 0) {
    LOG(LEVEL_ERROR, "could not open mixer controls of '%s': %s", ctlName.c_str(), snd_strerror(rc));
    return nullptr;
  }
  return CtlPtr(ctl);
}

}  // namespace

std::vector<AudioDeviceInfo> getAudioDevices() {
  std::vector<AudioDeviceInfo> out;
  void** hints = nullptr;
  if (snd_device_name_hint(-1, "pcm", &hints) == 0 && hints) {
    for (void** h = hints; *h; h++) {
      char* name = snd_device_name_get_hint(*h, "NAME");
      char* desc = snd_device_name_get_hint(*h, "DESC");
      char* ioid = snd_device_name_get_hint(*h, "IOID");
      // IOID absent means both directions; "Input" devices cannot play.
      const bool canPlay = !ioid || std::strcmp(ioid, "Output") == 0;
      if (name && canPlay && std::strcmp(name, "null") != 0) {
        AudioDeviceInfo d;
        d.name = name;
        d.description = desc ? desc : name;
        const std::size_t nl = d.description.find('\n');
        d.displayName = nl == std::string::npos ? d.description : d.description.substr(0, nl);
        if (d.name == "default")
          out.insert(out.begin(), d);
        else
          out.push_back(d);
      }
      std::free(name);
      std::free(desc);
      std::free(ioid);
    }
    snd_device_name_free_hint(hints);
  }
  if (out.empty() || out.front().name != "default") {
    bool has = false;
    for (const auto& d : out) has = has || d.name == "default";
    if (!has) out.insert(out.begin(), AudioDeviceInfo{"default", "Default Audio Device", "Default Audio Device"});
  }
  return out;
}

std::string controlDeviceFor(const std::string& pcmName) {
  const std::size_t card = pcmName.find("CARD=");
  if (card != std::string::npos) {
    std::string c = pcmName.substr(card + 5);
    const std::size_t comma = c.find(',');
    if (comma != std::string::npos) c.resize(comma);
    if (!c.empty()) return "hw:" + c;
  }
  for (const char* prefix : {"plughw:", "hw:"}) {
    if (startsWithMatchCase(pcmName, prefix)) {
      std::string c = pcmName.substr(std::strlen(prefix));
      const std::size_t comma = c.find(',');
      if (comma != std::string::npos) c.resize(comma);
      if (!c.empty()) return "hw:" + c;
    }
  }
  return "default";
}

namespace {

// The values of one element: null when unreadable, true/false, or numbers.
std::string valuesJson(snd_ctl_elem_type_t type, unsigned count, const snd_ctl_elem_value_t* value, bool readable) {
  std::string e = "[";
  for (unsigned v = 0; v < count; v++) {
    if (v) e += ", ";
    if (!readable)
      e += "null";
    else if (type == SND_CTL_ELEM_TYPE_BOOLEAN)
      e += snd_ctl_elem_value_get_boolean(value, v) ? "true" : "false";
    else if (type == SND_CTL_ELEM_TYPE_ENUMERATED)
      e += strFormat("%u", snd_ctl_elem_value_get_enumerated(value, v));
    else
      e += strFormat("%ld", snd_ctl_elem_value_get_integer(value, v));
  }
  return e + "]";
}

std::string itemsJson(snd_ctl_t* ctl, snd_ctl_elem_info_t* info) {
  std::string e = "[";
  const unsigned items = snd_ctl_elem_info_get_items(info);
  for (unsigned it = 0; it < items; it++) {
    snd_ctl_elem_info_set_item(info, it);
    if (snd_ctl_elem_info(ctl, info) < 0) break;
    if (it) e += ", ";
    e += "\"" + jsonEscape(snd_ctl_elem_info_get_item_name(info)) + "\"";
  }
  return e + "]";
}

// One element as JSON; "" for types other than INTEGER, BOOLEAN and ENUMERATED.
std::string elementJson(snd_ctl_t* ctl, snd_ctl_elem_id_t* id) {
  snd_ctl_elem_info_t* info = nullptr;
  snd_ctl_elem_info_alloca(&info);
  snd_ctl_elem_info_set_id(info, id);
  if (snd_ctl_elem_info(ctl, info) < 0) return "";
  const snd_ctl_elem_type_t type = snd_ctl_elem_info_get_type(info);
  if (type != SND_CTL_ELEM_TYPE_INTEGER && type != SND_CTL_ELEM_TYPE_BOOLEAN && type != SND_CTL_ELEM_TYPE_ENUMERATED)
    return "";
  const unsigned valueCount = snd_ctl_elem_info_get_count(info);
  snd_ctl_elem_value_t* value = nullptr;
  snd_ctl_elem_value_alloca(&value);
  snd_ctl_elem_value_set_id(value, id);
  const bool readable = snd_ctl_elem_info_is_readable(info) && snd_ctl_elem_read(ctl, value) == 0;
  std::string e = strFormat("{\"numid\": %u, \"name\": \"%s\", \"type\": \"%s\", \"count\": %u",
                            snd_ctl_elem_id_get_numid(id), jsonEscape(snd_ctl_elem_id_get_name(id)).c_str(),
                            snd_ctl_elem_type_name(type), valueCount);
  if (type == SND_CTL_ELEM_TYPE_INTEGER)
    e += strFormat(", \"min\": %ld, \"max\": %ld", snd_ctl_elem_info_get_min(info), snd_ctl_elem_info_get_max(info));
  e += ", \"values\": " + valuesJson(type, valueCount, value, readable);
  if (type == SND_CTL_ELEM_TYPE_ENUMERATED) e += ", \"items\": " + itemsJson(ctl, info);
  return e + "}";
}

// Writes `value` into slot `index` of `v` as the element's type wants it. 0, or -1 with
// an ERROR line.
int putValue(snd_ctl_elem_info_t* info, snd_ctl_elem_value_t* v, int numid, int index, long value) {
  switch (snd_ctl_elem_info_get_type(info)) {
    case SND_CTL_ELEM_TYPE_BOOLEAN:
      snd_ctl_elem_value_set_boolean(v, static_cast<unsigned>(index), value != 0);
      return 0;
    case SND_CTL_ELEM_TYPE_ENUMERATED:
      snd_ctl_elem_value_set_enumerated(v, static_cast<unsigned>(index), static_cast<unsigned>(value));
      return 0;
    case SND_CTL_ELEM_TYPE_INTEGER:
      if (value < snd_ctl_elem_info_get_min(info) || value > snd_ctl_elem_info_get_max(info)) {
        LOG(LEVEL_ERROR, "value %ld out of range for mixer control numid=%d", value, numid);
        return -1;
      }
      snd_ctl_elem_value_set_integer(v, static_cast<unsigned>(index), value);
      return 0;
    default:
      LOG(LEVEL_ERROR, "mixer control numid=%d has an unsupported type", numid);
      return -1;
  }
}

}  // namespace

std::string getAlsaControls(const std::string& deviceName) {
  CtlPtr ctl = openCtl(deviceName);
  if (!ctl) return "[]";
  snd_ctl_elem_list_t* list = nullptr;
  snd_ctl_elem_list_alloca(&list);
  if (snd_ctl_elem_list(ctl.get(), list) < 0) return "[]";
  const unsigned count = snd_ctl_elem_list_get_count(list);
  if (snd_ctl_elem_list_alloc_space(list, count) < 0) return "[]";
  std::string json = "[";
  if (snd_ctl_elem_list(ctl.get(), list) == 0) {
    for (unsigned i = 0; i < snd_ctl_elem_list_get_used(list); i++) {
      snd_ctl_elem_id_t* id = nullptr;
      snd_ctl_elem_id_alloca(&id);
      snd_ctl_elem_list_get_id(list, i, id);
      const std::string e = elementJson(ctl.get(), id);
      if (e.empty()) continue;
      json += (json.size() > 1 ? ", " : "") + e;
    }
  }
  snd_ctl_elem_list_free_space(list);
  return json + "]";
}

int setValueForControl(const std::string& deviceName, int numid, int index, long value) {
  if (numid <= 0 || index < 0) {
    LOG(LEVEL_ERROR, "invalid control numid=%d index=%d", numid, index);
    return -1;
  }
  CtlPtr ctl = openCtl(deviceName);
  if (!ctl) return -1;
  snd_ctl_elem_id_t* id = nullptr;
  snd_ctl_elem_id_alloca(&id);
  snd_ctl_elem_id_set_numid(id, static_cast<unsigned>(numid));
  snd_ctl_elem_info_t* info = nullptr;
  snd_ctl_elem_info_alloca(&info);
  snd_ctl_elem_info_set_id(info, id);
  if (snd_ctl_elem_info(ctl.get(), info) < 0) {
    LOG(LEVEL_ERROR, "no mixer control numid=%d", numid);
    return -1;
  }
  if (static_cast<unsigned>(index) >= snd_ctl_elem_info_get_count(info)) {
    LOG(LEVEL_ERROR, "mixer control numid=%d has no value %d", numid, index);
    return -1;
  }
  snd_ctl_elem_value_t* v = nullptr;
  snd_ctl_elem_value_alloca(&v);
  snd_ctl_elem_value_set_id(v, id);
  if (snd_ctl_elem_read(ctl.get(), v) < 0) {
    LOG(LEVEL_ERROR, "could not read mixer control numid=%d", numid);
    return -1;
  }
  if (putValue(info, v, numid, index, value) != 0) return -1;
  const int rc = snd_ctl_elem_write(ctl.get(), v);
  if (rc < 0) {
    LOG(LEVEL_ERROR, "could not set mixer control numid=%d: %s", numid, snd_strerror(rc));
    return -1;
  }
  LOG(LEVEL_DEBUG, "mixer control numid=%d[%d] = %ld", numid, index, value);
  return 0;
}

std::string controlKey(int numid, int index) { return strFormat("numid%d_%d", numid, index); }

bool parseControlLine(const std::string& line, int* numid, int* index, long* value) {
  int n = 0, i = 0, consumed = 0;
  long v = 0;
  if (std::sscanf(line.c_str(), "numid%d_%d=%ld%n", &n, &i, &v, &consumed) != 3) return false;
  if (n <= 0 || i < 0) return false;
  *numid = n;
  *index = i;
  *value = v;
  return true;
}

}  // namespace korvo
