// The GET handlers of the JSON API, by concern (api_sounds.cpp, api_soundsets.cpp,
// api_volume.cpp, api_devices.cpp, api_ports.cpp, api_recording.cpp, api_system.cpp).
// Each has the SimpleHandler shape: (connection, request path, 1024-byte work buffer).
//
// Thread: the HTTP thread. They reach the daemon through webContext().
#pragma once

#include "web/connection_info.h"

namespace korvo {

#define KORVO_SIMPLE_HANDLER(name) \
  enum MHD_Result name(struct MHD_Connection* connection, const char* url, char* buffer)

// sounds of the current set, playing
KORVO_SIMPLE_HANDLER(handlePlay);
KORVO_SIMPLE_HANDLER(handlePlayWithIndex);
KORVO_SIMPLE_HANDLER(handlePlayStop);
KORVO_SIMPLE_HANDLER(handleGetPlaying);
KORVO_SIMPLE_HANDLER(handlePlaySystemSound);
KORVO_SIMPLE_HANDLER(handlePlayCommand);
KORVO_SIMPLE_HANDLER(handleGetSounds);
KORVO_SIMPLE_HANDLER(handleGetSoundDetails);
KORVO_SIMPLE_HANDLER(handleGetSoundFile);
KORVO_SIMPLE_HANDLER(handleRemoveSample);
KORVO_SIMPLE_HANDLER(handleMoveToGroup);
// sound sets
KORVO_SIMPLE_HANDLER(handleListSoundSets);
KORVO_SIMPLE_HANDLER(handleSwitchSoundSet);
KORVO_SIMPLE_HANDLER(handleRemoveSoundSet);
KORVO_SIMPLE_HANDLER(handleGetCurrentSoundSet);
KORVO_SIMPLE_HANDLER(handleSoundSetnext);
// "/soundsets/<name>/altsound.zip": the set as an AltSound pack (application/zip download)
KORVO_SIMPLE_HANDLER(handleExportAltSound);
// volume, gain and ducking per type
KORVO_SIMPLE_HANDLER(handleGetVolume);
KORVO_SIMPLE_HANDLER(handleSetVolume);
KORVO_SIMPLE_HANDLER(handleGetGainByType);
KORVO_SIMPLE_HANDLER(handleSetGainByType);
KORVO_SIMPLE_HANDLER(handleGetDuckingByType);
KORVO_SIMPLE_HANDLER(handleSetDuckingByType);
// audio devices and their ALSA controls
KORVO_SIMPLE_HANDLER(handleGetAudioDevices);
KORVO_SIMPLE_HANDLER(handleSetAudioDevice);
KORVO_SIMPLE_HANDLER(handleGetAudioControls);
KORVO_SIMPLE_HANDLER(handleSetAudioControls);
// port-extender outputs
KORVO_SIMPLE_HANDLER(handleGetPorts);
KORVO_SIMPLE_HANDLER(handleSetPorts);
// session recording
KORVO_SIMPLE_HANDLER(handleRecordingStart);
KORVO_SIMPLE_HANDLER(handleRecordingStop);
KORVO_SIMPLE_HANDLER(handleRecordingState);
KORVO_SIMPLE_HANDLER(handleRecordingRequest);
// configuration, logs, system
KORVO_SIMPLE_HANDLER(handleGetConfig);
KORVO_SIMPLE_HANDLER(handleLogFileRequest);
KORVO_SIMPLE_HANDLER(handleLiveLogFileRequest);
KORVO_SIMPLE_HANDLER(handleRestart);
KORVO_SIMPLE_HANDLER(handleVersion);
// the mini display's frame buffer (1024 bytes, 8 pages of 128 columns); 404 without one
KORVO_SIMPLE_HANDLER(handleGetDisplay);

#undef KORVO_SIMPLE_HANDLER

}  // namespace korvo
