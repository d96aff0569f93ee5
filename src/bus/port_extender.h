// The MCP23017 port extender outputs (pins 100..115) and the timed toggle sequences
// that drive them ("PORTSEQ" command strings, Lua's portseq).
//
// Threads: sequences are created and added from the sound service thread, HTTP and
// Lua; the main loop advances them with updatePincom(now). The running list is guarded
// by one mutex; setPortExtenderPin may be called from any thread (the extender driver
// keeps each register update whole).
#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "bus/shaker.h"
#include "core/settings.h"
#include "platform/gpio.h"

namespace korvo {

// One running pin sequence: toggles `pin` after each interval in turn, first to on.
struct SequenceToPlay {
  int pin = 0;
  std::vector<int> intervals;  // milliseconds
  unsigned nextTime = 0;       // millis() of the next toggle
  int i = 0;                   // index of the next interval
  int state = 0;               // the value last written
  int no = 0;                  // serial number, for log lines
  int n_intervals() const { return static_cast<int>(intervals.size()); }
};

class PortExtender {
 public:
  PortExtender(Gpio& gpio, const Settings& s, PortStates& states, Shaker& shaker);

  // The number of tokens of `text` split at any of `delimiters`.
  static int countElements(std::string_view text, std::string_view delimiters);

  // The MCP23017 at 0x20 with pin base 100, all 16 pins outputs. False (ERROR line)
  // when the device does not answer; pin writes then only update the port states.
  bool setup();
  bool present() const { return present_; }

  // Switches one output. The enabled shaker pin also switches the shaker and then falls
  // through to the range check (so it logs the range error as well).
  void setPortExtenderPin(int pin, int value);

  // Parses "<pin> <ms> <ms> ..." (blank, comma or tab separated). Null only when the
  // text holds no token at all.
  std::unique_ptr<SequenceToPlay> createPortPinSeq(std::string_view text);
  // Appends to the running list; null is ignored.
  void addPortPinSequence(std::unique_ptr<SequenceToPlay> seq);
  // The "PORT <pin> <ON|OFF>" and "PORTSEQ <sequence>" command strings of samples.
  void sendPortCmd(std::string_view cmd);
  // Lua's portseq(port, step, ...): starts "<port> <step> <step> ...".
  void portseq(int port, const std::vector<int>& steps);

  // Main loop: advances every running sequence (in order of addition), then the
  // shaker pattern.
  void updatePincom(unsigned now);
  std::size_t runningSequences() const;

 private:
  using SeqList = std::list<std::unique_ptr<SequenceToPlay>>;
  // Advances one sequence; returns the next one to visit. Caller holds mutex_.
  SeqList::iterator doPinPlayback(SeqList::iterator seq, unsigned now);
  SeqList::iterator removePortPinSequence(SeqList::iterator seq);

  Gpio& gpio_;
  const Settings& settings_;
  PortStates& states_;
  Shaker& shaker_;
  bool present_ = false;

  mutable std::mutex mutex_;  // guards playingSequences_ and sequenceInstance_
  SeqList playingSequences_;
  int sequenceInstance_ = 0;
};

}  // namespace korvo
