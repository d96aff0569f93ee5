#include "app/korvo.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <SDL2/SDL.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "bus/io_test.h"
#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "core/sysinfo.h"
#include "platform/clock.h"
#include "soundsets/altsound.h"
#include "soundsets/xsnd.h"

namespace korvo {

namespace {

// KORVO_SERVICE_PRIO=1..99 runs the sound service thread at SCHED_FIFO (the packaged unit
// allows it through LimitRTPRIO). Off by default: on a machine shared with other busy
// work it measured worse, on a dedicated board it keeps uploads from delaying commands.
int servicePriorityFromEnvironment() {
  const char* text = getenv("KORVO_SERVICE_PRIO");
  if (!text || !*text) return 0;
  int prio = -1;
  const auto [end, ec] = std::from_chars(text, text + strlen(text), prio);
  if (ec != std::errc() || *end != '\0' || prio < 0 || prio > 99) {
    LOG(LEVEL_WARN, "KORVO_SERVICE_PRIO '%s' ignored: not a priority from 0 to 99", text);
    return 0;
  }
  return prio;
}

}  // namespace

Korvo::Korvo() = default;

Korvo::~Korvo() {
  if (http_) http_->stopHttpService();
  if (bus_) bus_->shutdown();
  if (engine_) engine_->soundShutdown();
  Log::instance().closeLogFile();
}

void Korvo::setCurrDir(const char* argv0) {
  currDir_ = argv0 ? argv0 : "";
  auto pos = currDir_.find_last_of('/');
  if (pos != std::string::npos) currDir_.resize(pos);
}

ConsoleActions Korvo::consoleActions() {
  ConsoleActions a;
  a.quit = [this] { loop_.quit(); };
  SoundEngine* e = engine_.get();
  if (!e) return a;
  a.soundHandler = [e](unsigned id) { e->soundHandler(id); };
  a.randomSampleId = [e] { return e->randomSampleId(); };
  a.adjustVolume = [e](int step) { e->adjustVolume(step); };
  a.dumpWhatsPlaying = [e] { e->dumpWhatsPlaying(); };
  a.fadeMusic = [e](int ms) { e->fadeMusic(ms); };
  a.cycleSoundSet = [e](int n) { e->cycleSoundSet(n); };
  a.switchToSoundSet = [e](int n) { e->switchToSoundSet(n); };
  return a;
}

std::string Korvo::findSoundsDir() const {
  // The prompts live beside the program when installed, in the source tree when run
  // from a build directory; KORVO_SOUNDS_DIR overrides both.
  if (const char* env = getenv("KORVO_SOUNDS_DIR")) return env;
  for (const std::string& dir : {currDir_ + "/sounds", std::string("sounds")})
    if (isDirectory(dir)) return dir;
#ifdef KORVO_SOURCE_SOUNDS_DIR
  if (isDirectory(KORVO_SOURCE_SOUNDS_DIR)) return KORVO_SOURCE_SOUNDS_DIR;
#endif
  return "sounds";
}

void Korvo::createSoundEngine() {
  // SDL would otherwise replace our SIGINT/SIGTERM handlers with its own, which only
  // queue an event nobody reads.
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  engine_ = std::make_unique<SoundEngine>(settings);
  panelEngine_.store(engine_.get(), std::memory_order_release);
  engine_->setSoundsDir(findSoundsDir());
  engine_->setTransientSettingsFile("va.ini");
  engine_->setCopyMapping(opt_.copyLocalConfig != 0);
  protocolPort_ = std::make_unique<SoundEngineProtocolPort>(*engine_);
  handlers_ = std::make_unique<ProtocolHandlers>(*protocolPort_, settings);

  SoundHooks& h = engine_->hooks();
  Bus* bus = bus_.get();
  h.setPortExtenderPin = [bus](int pin, bool on) { bus->setPortExtenderPin(pin, on ? 1 : 0); };
  h.addPortPinSequence = [bus](const std::string& text) { bus->addPortPinSequence(text); };
  h.playbackShakerSequence = [bus](const std::vector<uint32_t>& seq) { bus->playbackShakerSequence(seq); };
  h.serialSend = [bus](const std::string& text) { bus->serialSend(text); };
  h.sendSocketCmd = [bus](const std::string& text) { bus->sendSocketCmd(text); };
  h.writeSettings = [this](const std::vector<std::string>& extra) { config_.writeSettings("va.ini", extra); };
  ProtocolHandlers* handlers = handlers_.get();
  h.suppressNotFound = [handlers](int id) { return handlers->suppressNotFound(id) != 0; };
  h.gpio = gpio_.get();
  h.showDisplayLine = [this](int x, int y, const std::string& text) {
    if (panel_) panel_->showDisplayLine(x, y, text);
  };
  engine_->index().hooks().captureStarted = [bus] { return bus->pincom().gpioInitDone(); };
}

void Korvo::startScripting() {
  if (!settings.luaEnabled) return;
  const char* session = getenv("DBUS_SESSION_BUS_ADDRESS");
  video_ = std::make_unique<VideoPlayer>(opt_.baseDir, "/tmp", session ? session : "");
  lua_ = std::make_unique<LuaBinding>(settings);
  lua_->setTimeLimitMs(settings.luaTimeLimit > 0 ? static_cast<unsigned>(settings.luaTimeLimit) : 0);
  if (lua_->lua_init(config_.masterConfigMap()) != 0) {
    lua_.reset();
    return;
  }
  lua_->setBus(bus_.get());
  lua_->setVideo(video_.get());
  for (const std::string& dir : {currDir_, opt_.baseDir}) {
    const char* sep = !dir.empty() && dir.back() == '/' ? "" : "/";
    const std::string path = dir + sep + "init.lua";
    LOG(LEVEL_DEBUG, "looking for %s", path.c_str());
    if (fileExists(path)) lua_->lua_runfile(path);
  }
  Bus* bus = bus_.get();
  lua_->lua_register_eventcallback([bus](EventService::Handler fn) { bus->addEventHandler(std::move(fn)); });
}

void Korvo::connectScripting() {
  if (!lua_) return;
  lua_->setEngine(engine_.get());
  LuaBinding* lua = lua_.get();
  SoundHooks& h = engine_->hooks();
  h.luaRun = [lua](const std::string& chunk) { lua->post(chunk); };
  h.setLuaGlobal = [lua](const char* name, int value) { lua->postGlobalInt(name, value); };
}

void Korvo::startWebService(const char* argv0) {
  webContext_ = std::make_unique<WebContext>(*engine_);
  WebContext& w = *webContext_;
  Bus* bus = bus_.get();
  w.recorder = &bus->recorder();
  w.configuration = &config_;
  w.getNumberOfPorts = [] { return PortStates::getNumberOfPorts(); };
  w.getPortStates = [bus] { return bus->pincom().portStates().getPortStates(); };
  w.setPortExtenderPin = [bus](int pin, bool on) { bus->setPortExtenderPin(pin, on ? 1 : 0); };
  w.baseDir = opt_.baseDir;
  w.transientSettingsFile = engine_->transientSettingsFile();
  w.stopMainLoop = [this](int delayMs, int code) { loop_.stopMainLoop(delayMs, code); };
  w.updateServer = settings.updateServer;
  w.httpPassword = settings.httpPassword;
  if (LuaBinding* lua = lua_.get())
    w.runLuaWithDebug = [lua](const std::string& chunk) {
      lua->lua_reset_output();
      lua->lua_run_with_debug(chunk);
      return lua->lua_get_print_buffer();
    };
  wirePanelAndDsp(w);
  http_ = std::make_unique<HttpService>(w);
  // Without a log file the web service offers the base directory, as it always has.
  const std::string& logFile = opt_.logFileName.empty() ? opt_.baseDir : opt_.logFileName;
  if (http_->startHttpService(logFile, argv0, opt_.httpPort) != 0) http_.reset();
}

void Korvo::writeConversions(int setCount) {
  if (opt_.xsndFile.empty() && opt_.csvFile.empty()) return;
  auto lock = engine_->lock();
  // Writing an empty index would replace a good container or table with an empty one.
  if (setCount <= 0 || engine_->index().samplesMap().mapSize() == 0) {
    LOG(LEVEL_ERROR, "no sound set loaded: nothing to convert, %s not written",
        !opt_.xsndFile.empty() ? opt_.xsndFile.c_str() : opt_.csvFile.c_str());
    return;
  }
  if (!opt_.xsndFile.empty() &&
      writeSamplesToBinary(engine_->index(), opt_.xsndFile, opt_.stripPaths != 0) != 0)
    LOG(LEVEL_ERROR, "writing sound set to %s failed", opt_.xsndFile.c_str());
  if (!opt_.csvFile.empty() && writeSamplesToCsv(engine_->index(), opt_.csvFile, opt_.baseDir, true) != 0)
    LOG(LEVEL_ERROR, "writing csv to %s failed", opt_.csvFile.c_str());
}

namespace {

// A read-only file system (a card mounted read-only after errors) still plays; the owner
// learns once at start why nothing is saved, instead of only from each failed write.
// One line for the working and the base directory when they share a file system.
void warnIfReadOnly(const std::string& baseDir) {
  std::error_code ec;
  const std::filesystem::path work = std::filesystem::current_path(ec);
  const std::filesystem::path base = std::filesystem::weakly_canonical(baseDir, ec);
  struct stat workStat{}, baseStat{};
  const bool sameFs = ::stat(work.c_str(), &workStat) == 0 && ::stat(base.c_str(), &baseStat) == 0 &&
                      workStat.st_dev == baseStat.st_dev;
  for (const std::filesystem::path& dir : {work, base}) {
    if (access(dir.c_str(), W_OK) != 0 && errno == EROFS)
      LOG(LEVEL_WARN, "%s is on a read-only file system: settings, uploads and edits are not saved", dir.c_str());
    if (sameFs) break;
  }
}

}  // namespace

void Korvo::removeStaleTemporaryFiles() const {
  // Left by writes that a power cut interrupted; some are whole sound sets in size.
  removeStaleTemporaries(".");
  removeStaleTemporaries(opt_.baseDir, kSetDirectoryDepth + 1);
  warnIfReadOnly(opt_.baseDir);
}

int Korvo::parseCommandLine(int argc, char** argv) {
  setLogDevice(stdout);
  if (argc <= 1) {
    usage(stderr, argc > 0 ? argv[0] : "korvo", false);
    return 1;
  }
  srand(static_cast<unsigned>(time(nullptr)));
  setCurrDir(argv[0]);
  setThreadName("MelloSnd");
  initSettings(&settings);

  ParseResult parsed = parseOptions(argc, argv, opt_, settings);
  if (parsed.exit) return parsed.exitCode;
  if (opt_.baseDir.empty()) {
    LOG(LEVEL_WARN, "no base path given, using the current directory");
    opt_.baseDir = ".";
  }
  return -1;
}

bool Korvo::openBus() {
  boardModel_ = readBoardModel();
  boardSerial_ = readBoardSerial();
  LOG(LEVEL_INFO, "VELT!Audio starting, version %s, serial: %u, on: %s", kVersion, boardSerial_,
      boardModel_.c_str());
  // Put the bus pins into a safe state early.
  gpio_ = createGpio();
  if (!gpio_) {
    LOG(LEVEL_ERROR, "no usable gpio backend, exiting");
    return false;
  }
  bus_ = std::make_unique<Bus>(*gpio_, settings);
  bus_->preInitGpio();
  startTime_ = millis();
  return true;
}

void Korvo::readConfiguration(char** envp) {
  if (opt_.enableDebug) {
    set_conio_terminal_mode();
    terminalRaw_ = true;
  }
  dumpEnvironment(envp);
  loadDspDefinition();
  LOG(LEVEL_INFO, "loading settings from %s", "va.ini");
  config_.readSettings("va.ini");
  config_.readMasterConfig(opt_.baseDir.c_str(), gpio_->hasI2C());
  applyDspSettings();
}

void Korvo::startSoundEngine() {
  createSoundEngine();
  connectScripting();
  if (opt_.enableAudio && engine_->soundInit(20, opt_.baseDir.c_str(), settings.channels, settings.frequency) != 0)
    opt_.enableAudio = 0;
  if (settings.sayVersion) engine_->sayVersion(kVersion);
  // Scans the catalogue; with no set it plays the install hints and leaves an empty
  // index, else it clamps settings.soundSet to the sets found and loads that set.
  const int sets = engine_->startSoundSets(opt_.baseDir);
  writeConversions(sets);
  if (settings.sayMode) engine_->sayMode(settings.protocol);
}

void Korvo::startCapture() {
  bus_->openOutputs();
  engine_->setVolumeInternal(settings.volume);
  SoundEngine* e = engine_.get();
  ProtocolHandlers* handlers = handlers_.get();
  bus_->initGpio({[e](unsigned v) { e->soundHandler(v); },
                  [handlers](const uint8_t* c, unsigned v) { handlers->soundWpcHandler(c, static_cast<int>(v)); },
                  [handlers](const uint8_t* c, unsigned v) { handlers->soundWSHandler(c, static_cast<int>(v)); }});
  bus_->startSession(opt_.playbackFile, opt_.recordFile);
}

int Korvo::startUp(int argc, char** argv, char** envp) {
  if (int rc = parseCommandLine(argc, argv); rc >= 0) return rc;
  removeStaleTemporaryFiles();
  if (!openBus()) return 1;
  readConfiguration(envp);
  if (opt_.testIOonly) {
    // The IO test runs until the process is killed, as it always has.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    return pincom_main(*gpio_, settings);
  }
  startMiniDisplay();
  startScripting();
  if (settings.enable_eventsrv) bus_->startEventService(opt_.httpPort);
  startSoundEngine();
  showStartupDisplay();
  startCapture();
  startPanelInputs();
  if (opt_.enableAudio) {
    engine_->setServiceThreadPriority(servicePriorityFromEnvironment());
    engine_->startSoundServiceThread();
  }
  if (opt_.enableHttpService) startWebService(argv[0]);
  registerButton();
  console_ = std::make_unique<KeyboardConsole>(consoleActions());
  LOG(LEVEL_INFO, "start-up done, entering the main loop");
  return -1;
}

void Korvo::runMainLoop() {
  // Periodic work is spread by iteration counts, not timers: every callee here must
  // return at once so the loop keeps its 1 ms cadence.
  for (unsigned long n = 1; loop_.keepRunning(); ++n) {
    loop_.checkStopTime(millis());
    senseEncoder();
    bus_->ackMusicIfDue(n, engine_->soundIsPlayingMusic() != 0);
    unsigned now = static_cast<unsigned>(millis());
    bus_->updatePincom(now);
    bus_->updatePlayback(now);
    engine_->updateSound(now);
    updateFrontPanel(now);
    MainLoop::sleepToNextMillisecond();
    if (opt_.enableDebug && dataRdy(STDIN_FILENO)) {
      int c = getch();
      if (c >= 0) console_->handleKey(c);
    }
    doRotaryEncoder();
    // Lines are flushed as they are written; this reports repeats held back meanwhile.
    if (n % kRepeatReportEvery == 0) flushLog();
    checkWifi(n);
  }
}

void Korvo::shutdown() {
  LOG(LEVEL_INFO, "shutting down");
  if (terminalRaw_) reset_terminal_mode();
  // The web service first: its handlers reach into the bus and the engine.
  if (http_) http_->stopHttpService();
  // Capture first: no interrupt may post to an engine that is shutting down.
  if (bus_) bus_->shutdown();
  if (engine_) engine_->soundShutdown();
  if (lua_) lua_->lua_exit();
  flushLog();
  if (loop_.exitCode() == 2) rebootMachine();
}

void Korvo::rebootMachine() {
  // Rebooting a laptop or CI machine because a test asked for a restart would be a
  // disaster: off the board, only an explicitly configured command runs.
  const char* cmd = getenv("KORVO_REBOOT_CMD");
  if (!cmd && boardModel_.find("Raspberry Pi") == std::string::npos) {
    LOG(LEVEL_WARN, "not rebooting: not running on the board (set KORVO_REBOOT_CMD to override)");
    return;
  }
  if (!cmd) cmd = "reboot";
  LOG(LEVEL_INFO, "rebooting with '%s'", cmd);
  flushLog();
  pid_t pid = fork();
  if (pid == 0) {
    execlp(cmd, cmd, static_cast<char*>(nullptr));
    _exit(127);
  }
  if (pid > 0) {
    int status = 0;
    waitpid(pid, &status, 0);
  }
}

void Korvo::buttonClicked(unsigned durationMs) {
  ButtonActions a = buttonActionsFor(durationMs);
  // Through the ring: loading a set must not hold up the main loop.
  if (a.cycleSoundSet && engine_) postNextSoundSet();
  if (a.cycleAudioDevice && engine_) engine_->cycleAudioDevice();
  if (a.reboot) rebootMachine();
}

int Korvo::main(int argc, char** argv, char** envp) {
  // Installed before start-up so a stop request during a long start (prompts, set
  // load) ends the daemon in order as soon as the loop is reached.
  loop_.installSignalHandlers();
  int rc = startUp(argc, argv, envp);
  if (rc >= 0) return rc;
  runMainLoop();
  shutdown();
  return loop_.exitCode();
}

}  // namespace korvo
