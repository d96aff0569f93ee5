// The owner object of the daemon: it holds every subsystem, brings them up in a fixed
// order, runs the 1 kHz main loop on the calling (main) thread and shuts them down in
// reverse order. Members are declared in start-up order so that destruction undoes
// start-up.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "app/wifi_fallback.h"
#include "bus/bus.h"
#include "core/console.h"
#include "core/mainloop.h"
#include "core/options.h"
#include "core/settings.h"
#include "dsp/dsp.h"
#include "panel/front_panel.h"
#include "platform/gpio.h"
#include "scripting/lua_binding.h"
#include "sound/protocol_handlers.h"
#include "sound/sdl_sound.h"
#include "video/dbus.h"
#include "web/httpservice.h"
#include "web/web_context.h"

namespace korvo {

class Korvo {
 public:
  Korvo();
  ~Korvo();
  Korvo(const Korvo&) = delete;
  Korvo& operator=(const Korvo&) = delete;

  // The whole life of the process: start-up, main loop, shutdown. Returns the exit code.
  int main(int argc, char** argv, char** envp);

  MainLoop& mainLoop() { return loop_; }
  Configuration& configuration() { return config_; }
  const Options& options() const { return opt_; }
  Gpio* gpio() { return gpio_.get(); }
  Bus* bus() { return bus_.get(); }
  SoundEngine* engine() { return engine_.get(); }
  FrontPanel* panel() { return panel_.get(); }
  Dsp* dsp() { return dsp_.get(); }
  const std::string& baseDir() const { return opt_.baseDir; }

  // Runs the reboot command after shutdown (exit code 2) or on a long button press.
  void rebootMachine();
  // The front-panel button callback.
  void buttonClicked(unsigned durationMs);

 private:
  // Main loop rounds between reports of held-back log repeats (about a second).
  static constexpr unsigned long kRepeatReportEvery = 1000;
  // Sets keep files down to base/<set>/<type>/<sound>/.
  static constexpr int kSetDirectoryDepth = 3;

  // Returns -1 to go on with the main loop, or the exit code to leave with.
  int startUp(int argc, char** argv, char** envp);
  void runMainLoop();
  void shutdown();

  // The start-up steps, in order. Each logs its own failures.
  // Log device, options (a -f file takes the lines of the options after it), base path.
  int parseCommandLine(int argc, char** argv);
  // Temporaries of interrupted writes in the working and base directories and the sets.
  void removeStaleTemporaryFiles() const;
  // Board information, the GPIO backend and the bus pins in their safe state.
  bool openBus();
  // Debug terminal, environment dump, DSP definitions, "va.ini" and "mellosound.ini".
  void readConfiguration(char** envp);
  // The engine, announcements, the catalogue and the stored set, -K / -T conversions.
  void startSoundEngine();
  // Side outputs, the stored volume, the bus capture and recording or replay.
  void startCapture();

  // The front panel and the DSP, each step in its own function.
  // With -X: the DSP definition, its settings joining the catalogue.
  void loadDspDefinition();
  // After "mellosound.ini": the DSP program and settings (only with an I2C bus).
  void applyDspSettings();
  // The mini display when enabled and present.
  void startMiniDisplay();
  // Version, serial and address lines; the Wi-Fi fallback's start.
  void showStartupDisplay();
  // The encoder (rotarySupport) and the Data East volume input.
  void startPanelInputs();
  // The button.
  void registerButton();
  // The main loop's panel work: encoder sensing, button and volume input, encoder
  // actions, and the Wi-Fi check.
  void senseEncoder();
  void updateFrontPanel(unsigned now);
  void doRotaryEncoder();
  void checkWifi(unsigned long n);
  PanelActions panelActions();
  // The button and the encoder's click: the service thread switches the set.
  void postNextSoundSet();
  // The web service's /display frame and its DSP settings changes.
  void wirePanelAndDsp(WebContext& w);

  void setCurrDir(const char* argv0);
  ConsoleActions consoleActions();
  void createSoundEngine();
  // With enable_lua: the interpreter, "init.lua" from the program's directory and then
  // the base directory, the event handler; the video player it controls.
  void startScripting();
  // The engine's Lua hooks (command strings, globals) once the engine exists.
  void connectScripting();
  // The last start-up step (-H): the web service on opt_.httpPort.
  void startWebService(const char* argv0);
  // Start-up conversions of the loaded set: -K writes it as an xsnd container, -T
  // as an AltSound table. With no set loaded (`setCount` 0 or an empty index) nothing
  // is written.
  void writeConversions(int setCount);
  std::string findSoundsDir() const;

  Options opt_;
  std::string currDir_;
  Configuration config_{settings};
  std::string boardModel_;
  unsigned boardSerial_ = 0;
  std::unique_ptr<Gpio> gpio_;
  // The bus is built before the engine and shut down explicitly before it, so no
  // interrupt can reach an engine that is going away.
  std::unique_ptr<Bus> bus_;
  // Programmed from the main thread at start, changed from the HTTP thread later.
  std::unique_ptr<Dsp> dsp_;
  unsigned long startTime_ = 0;
  // Built before the engine and closed after it: the engine's hooks and the event
  // service call into the interpreter until they are shut down.
  std::unique_ptr<VideoPlayer> video_;
  std::unique_ptr<LuaBinding> lua_;
  std::unique_ptr<SoundEngine> engine_;
  std::unique_ptr<SoundEngineProtocolPort> protocolPort_;
  std::unique_ptr<ProtocolHandlers> handlers_;
  // After the engine: the display thread asks the engine for set names until it stops.
  std::unique_ptr<FrontPanel> panel_;
  // The engine as the display thread sees it: published once the engine exists, since that
  // thread starts before the engine does and must not read engine_ while it is assigned.
  std::atomic<SoundEngine*> panelEngine_{nullptr};
  std::unique_ptr<WifiFallback> wifi_;
  bool terminalRaw_ = false;
  // Started last and stopped first: its handlers use the engine, the bus and the loop.
  std::unique_ptr<WebContext> webContext_;
  std::unique_ptr<HttpService> http_;
  std::unique_ptr<KeyboardConsole> console_;
  MainLoop loop_;
};

}  // namespace korvo
