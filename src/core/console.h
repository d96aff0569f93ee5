// The keyboard debug console (-d) and the front-panel button decisions.
#pragma once

#include <functional>

namespace korvo {

// Raw terminal mode for standard input, output post-processing kept so newlines
// still print properly. The previous attributes are restored by
// reset_terminal_mode, also registered to run at exit.
void set_conio_terminal_mode();
void reset_terminal_mode();
// True when a byte is waiting on fd (select with a zero time-out).
bool dataRdy(int fd);
// One byte from standard input, -1 if none.
int getch();

// What the console's keys do. An action left empty logs that it is not available.
struct ConsoleActions {
  std::function<void(unsigned)> soundHandler;   // send a sound command
  std::function<int()> randomSampleId;          // id of a random sample, -1 if none
  std::function<void(int)> adjustVolume;        // +1 / -1 step
  std::function<void()> dumpWhatsPlaying;
  std::function<void(int)> fadeMusic;           // fade the music out over ms
  std::function<void(int)> cycleSoundSet;       // +1: next set
  std::function<void(int)> switchToSoundSet;    // 1-based set number
  std::function<void()> quit;
};

class KeyboardConsole {
 public:
  explicit KeyboardConsole(ConsoleActions actions) : actions_(std::move(actions)) {}
  // Acts on one key (doKeyBoardRequest without the read).
  void handleKey(int c);
  int pendingNumber() const { return musicToPlay_; }

 private:
  ConsoleActions actions_;
  int musicToPlay_ = -1;  // the number typed so far, -1 = none
};

// The front-panel button: <= 300 ms cycles the sound set, 300..1000 ms cycles the
// audio device, >= 2000 ms reboots. The ranges meet at exactly 300 ms (both run);
// 1001..1999 ms does nothing.
struct ButtonActions {
  bool cycleSoundSet = false;
  bool cycleAudioDevice = false;
  bool reboot = false;
};
ButtonActions buttonActionsFor(unsigned durationMs);

}  // namespace korvo
