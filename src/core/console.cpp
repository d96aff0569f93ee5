#include "core/console.h"

#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "base/log.h"

namespace korvo {

namespace {
termios gSavedAttrs{};
bool gSaved = false;
}  // namespace

void reset_terminal_mode() {
  if (gSaved) tcsetattr(STDIN_FILENO, TCSANOW, &gSavedAttrs);
}

void set_conio_terminal_mode() {
  LOG(LEVEL_DEBUG, "set terminal in raw mode");
  if (tcgetattr(STDIN_FILENO, &gSavedAttrs) != 0) return;  // not a terminal
  if (!gSaved) atexit(reset_terminal_mode);
  gSaved = true;
  termios raw = gSavedAttrs;
  cfmakeraw(&raw);
  raw.c_oflag |= OPOST;
  tcsetattr(STDIN_FILENO, TCSANOW, &raw);
}

bool dataRdy(int fd) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  timeval tv{0, 0};
  return select(fd + 1, &set, nullptr, nullptr, &tv) > 0;
}

int getch() {
  unsigned char c;
  return read(STDIN_FILENO, &c, 1) == 1 ? c : -1;
}

void KeyboardConsole::handleKey(int c) {
  LOG(LEVEL_DEBUG, "key input: %c, %d", c, c);
  auto missing = [c] { LOG(LEVEL_DEBUG, "key '%c': sound engine not running", c); };
  // Ctrl-C arrives as byte 3 in raw mode and goes through the digit rule with the
  // value 3 - '0': it deliberately does not quit.
  if ((c >= '0' && c <= '9') || c == 3) {
    if (musicToPlay_ < 0) musicToPlay_ = 0;
    musicToPlay_ = musicToPlay_ * 10 + (c - '0');
    printf("no -> %d : ", musicToPlay_);
    fflush(stdout);
    return;
  }
  switch (c) {
    case '\r':
    case '\n':
    case 'p':
      if (musicToPlay_ >= 0) {
        if (actions_.soundHandler) actions_.soundHandler(static_cast<unsigned>(musicToPlay_)); else missing();
        musicToPlay_ = -1;
      } else if (actions_.randomSampleId && actions_.soundHandler) {
        int id = actions_.randomSampleId();
        if (id >= 0) actions_.soundHandler(static_cast<unsigned>(id));
      } else {
        missing();
      }
      break;
    case '+':
    case '-':
      if (actions_.adjustVolume) actions_.adjustVolume(c == '+' ? 1 : -1); else missing();
      break;
    case 'd':
      if (actions_.dumpWhatsPlaying) actions_.dumpWhatsPlaying(); else missing();
      break;
    case 'f':
      if (actions_.fadeMusic) actions_.fadeMusic(1000); else missing();
      break;
    case 'm':
      if (actions_.cycleSoundSet) actions_.cycleSoundSet(1); else missing();
      break;
    case 'n':
      if (actions_.switchToSoundSet) actions_.switchToSoundSet(1); else missing();
      break;
    case 'q':
      if (actions_.quit) actions_.quit();
      break;
    default:
      break;
  }
}

ButtonActions buttonActionsFor(unsigned durationMs) {
  ButtonActions a;
  if (durationMs <= 300) {
    LOG(LEVEL_DEBUG, "got short click 0-300 ms -> cycle soundset");
    a.cycleSoundSet = true;
  }
  if (durationMs >= 300 && durationMs <= 1000) a.cycleAudioDevice = true;
  if (durationMs >= 2000) {
    LOG(LEVEL_DEBUG, "got long click > 2000 ms -> reboot");
    a.reboot = true;
  }
  return a;
}

}  // namespace korvo
