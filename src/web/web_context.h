// Everything an HTTP handler reaches: the engine, the recorder, the port outputs, the
// directories and the main loop's stop. The owner object (or a test) fills one
// WebContext and hands it to HttpService, which keeps a pointer to it while it runs.
//
// Threads: handlers and post callbacks run on the service's one HTTP thread and get
// their context through webContext(). Engine state is reached only through the
// engine's public methods (which lock) or under engine.lock() for index() and
// catalogue(); never both at once.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace korvo {

class SoundEngine;
class SessionRecorder;
class Configuration;

struct WebContext {
  explicit WebContext(SoundEngine& e) : engine(e) {}

  SoundEngine& engine;
  // Null when the daemon runs without a bus (the recording routes then fail).
  SessionRecorder* recorder = nullptr;
  // The catalogue behind /config and the configuration save (null: no catalogue).
  Configuration* configuration = nullptr;

  // Port-extender outputs (empty functions: no outputs, /ports lists none).
  std::function<int()> getNumberOfPorts;
  std::function<std::vector<uint8_t>()> getPortStates;
  std::function<void(int pin, bool on)> setPortExtenderPin;

  // Base path of the sound sets, without trailing slash.
  std::string baseDir;
  // The program's directory (argv[0] up to its last '/'; "." resolved to the cwd).
  std::string programDir;
  // The log file served at /log (the -f file, else the base directory).
  std::string logFile;
  // The transient settings file ("va.ini") that ALSA control values are kept in.
  std::string transientSettingsFile = "va.ini";
  // The static web UI; empty = chosen at start ("html" beside the program, else the
  // installed share directory).
  std::string webRoot;

  // Ends the main loop after delayMs with `code` (2 = reboot afterwards).
  std::function<void(int delayMs, int code)> stopMainLoop;
  // Runs a Lua chunk with the print buffer reset and returns the lines it printed (its
  // error text as the last one). Empty function: Lua is off or not built.
  std::function<std::vector<std::string>(const std::string& chunk)> runLuaWithDebug;

  // Network and system paths ("/etc/hostname", wpa_supplicant files, ...) are joined
  // under this prefix so tests run on a temporary tree. "/" on the device.
  std::string rootPrefix = "/";
  // Base URL of the maker's update server (mellosound.ini `update_server`).
  std::string updateServer;
  // HTTP Basic password (mellosound.ini `http_password`); empty = the API is open.
  // Never logged and never sent back.
  std::string httpPassword;
  // The mini display's frame buffer (1024 bytes) for /display; empty function: no
  // display, /display answers 404. Any thread.
  std::function<std::vector<uint8_t>()> displayFrame;
  // The configuration save's "key=value" lines, after the file was written: applies the
  // DSP settings among them at once. Empty function: no DSP.
  std::function<void(const std::string& lines)> applyConfigLines;
  // Build flag reported by /version; restarts are not allowed when it is set.
  unsigned srvBuild = 0;
};

// The context of the service whose request runs on the calling thread. Valid only on
// an HTTP thread, inside a handler or post callback.
WebContext& webContext();

}  // namespace korvo
