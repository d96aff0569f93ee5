// Audio output devices and their ALSA mixer controls. The device list comes from
// ALSA's PCM name hints; controls are read and written through the card's control
// interface. Any thread; no state of its own.
#pragma once

#include <string>
#include <vector>

namespace korvo {

struct AudioDeviceInfo {
  std::string name;         // ALSA PCM name, e.g. "hw:CARD=sndrpihifiberry,DEV=0"
  std::string description;  // the hint's full description
  std::string displayName;  // first line of the description (SDL's device name)
};

// PCM hints that can play, "null" skipped, "default" first. Never empty: without any
// hint the list holds "default".
std::vector<AudioDeviceInfo> getAudioDevices();

// The control device of a PCM name's card: "hw:CARD=x,DEV=0" -> "hw:x",
// "plughw:1,0" -> "hw:1", anything else (also "" and "default") -> "default".
std::string controlDeviceFor(const std::string& pcmName);

// JSON array of the card's mixer elements:
// [{"numid": 3, "name": "...", "type": "INTEGER", "count": 2, "min": 0, "max": 207,
//   "values": [180, 180]}, ...]; BOOLEAN values are true/false, ENUMERATED adds "items".
// "[]" with an ERROR line when the card cannot be opened.
std::string getAlsaControls(const std::string& deviceName);

// Sets value `index` of element `numid`. 0 on success, -1 with an ERROR line.
int setValueForControl(const std::string& deviceName, int numid, int index, long value);

// The va.ini key of one control value: "numid<N>_<I>".
std::string controlKey(int numid, int index);
// Parses "numid<N>_<I>=<V>"; false for any other line.
bool parseControlLine(const std::string& line, int* numid, int* index, long* value);

}  // namespace korvo
