#include "app/korvo.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "core/log.h"
#include "core/stringutil.h"
#include "core/sysinfo.h"
#include "platform/clock.h"

namespace korvo {

Korvo::Korvo() = default;

Korvo::~Korvo() {
  if (logFile_) {
    setLogDevice(stdout);
    fclose(logFile_);
  }
}

void Korvo::setCurrDir(const char* argv0) {
  currDir_ = argv0 ? argv0 : "";
  auto pos = currDir_.find_last_of('/');
  if (pos != std::string::npos) currDir_.resize(pos);
}

void Korvo::openLogFile(const std::string& name) {
  // A log file that cannot be opened leaves logging on standard output.
  if (FILE* f = fopen(name.c_str(), "a")) {
    logFile_ = f;
    setLogDevice(f);
  }
}

ConsoleActions Korvo::consoleActions() {
  ConsoleActions a;
  a.quit = [this] { loop_.quit(); };
  return a;
}

int Korvo::startUp(int argc, char** argv, char** envp) {
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
  if (!opt_.logFileName.empty()) openLogFile(opt_.logFileName);
  if (opt_.baseDir.empty()) {
    LOG(LEVEL_WARN, "no base path given, using the current directory");
    opt_.baseDir = ".";
  }

  boardModel_ = readBoardModel();
  boardSerial_ = readBoardSerial();
  LOG(LEVEL_INFO, "VELT!Audio starting, version %s, serial: %u, on: %s", kVersion, boardSerial_,
      boardModel_.c_str());

  // Put the bus pins into a safe state early.
  gpio_ = createGpio();
  if (!gpio_) {
    LOG(LEVEL_ERROR, "no usable gpio backend, exiting");
    return 1;
  }
  gpio_->wiringPiSetup();
  startTime_ = millis();

  if (opt_.enableDebug) {
    set_conio_terminal_mode();
    terminalRaw_ = true;
  }
  dumpEnvironment(envp);

  if (!opt_.dspXmlFile.empty()) {
    LOG(LEVEL_INFO, "dsp xml def set to '%s'", opt_.dspXmlFile.c_str());
    LOG(LEVEL_WARN, "DSP programming is not available in this build, ignoring %s", opt_.dspXmlFile.c_str());
  }

  LOG(LEVEL_INFO, "loading settings from %s", "va.ini");
  config_.readSettings("va.ini");
  config_.readMasterConfig(opt_.baseDir.c_str(), gpio_->hasI2C());

  if (opt_.testIOonly) {
    LOG(LEVEL_ERROR, "hardware IO test mode is not available in this build");
    return 1;
  }
  if (!gpio_->hasI2C()) settings.enable_minidisplay = 0;

  console_ = std::make_unique<KeyboardConsole>(consoleActions());
  return -1;
}

void Korvo::runMainLoop() {
  // Periodic work is spread by iteration counts, not timers: every callee here must
  // return at once so the loop keeps its 1 ms cadence.
  for (unsigned long n = 1; loop_.keepRunning(); ++n) {
    loop_.checkStopTime(millis());
    MainLoop::sleepToNextMillisecond();
    if (opt_.enableDebug && dataRdy(STDIN_FILENO)) {
      int c = getch();
      if (c >= 0) console_->handleKey(c);
    }
    if (logFile_ && n % 10000 == 0) flushLog();
  }
}

void Korvo::shutdown() {
  LOG(LEVEL_INFO, "shutting down");
  if (terminalRaw_) reset_terminal_mode();
  if (gpio_) gpio_->stopInterrupts();
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
  if (a.reboot) rebootMachine();
}

int Korvo::main(int argc, char** argv, char** envp) {
  int rc = startUp(argc, argv, envp);
  if (rc >= 0) return rc;
  loop_.installSignalHandlers();
  runMainLoop();
  shutdown();
  return loop_.exitCode();
}

}  // namespace korvo
