#include "bus/port_extender.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/log.h"
#include "base/stringutil.h"
#include "platform/clock.h"

namespace korvo {

namespace {
constexpr std::string_view kSeqDelimiters = " ,\t";

// The tokens of `text` split at runs of any of `delimiters`, empty tokens skipped.
std::vector<std::string_view> tokens(std::string_view text, std::string_view delimiters) {
  std::vector<std::string_view> out;
  std::size_t pos = 0;
  while (pos < text.size()) {
    pos = text.find_first_not_of(delimiters, pos);
    if (pos == std::string_view::npos) break;
    std::size_t end = text.find_first_of(delimiters, pos);
    if (end == std::string_view::npos) end = text.size();
    out.push_back(text.substr(pos, end - pos));
    pos = end;
  }
  return out;
}

// atoi over a view: leading sign and digits, 0 when there are none.
int toInt(std::string_view s) { return std::atoi(std::string(s).c_str()); }
}  // namespace

int PortExtender::countElements(std::string_view text, std::string_view delimiters) {
  return static_cast<int>(tokens(text, delimiters).size());
}

PortExtender::PortExtender(Gpio& gpio, const Settings& s, PortStates& states, Shaker& shaker)
    : gpio_(gpio), settings_(s), states_(states), shaker_(shaker) {}

bool PortExtender::setup() {
  if (!gpio_.mcp23017Setup(portExtenderPinOffset, kPortExtenderAddress)) {
    LOG(LEVEL_ERROR, "port extender at i2c address 0x%02x does not answer", kPortExtenderAddress);
    present_ = false;
    return false;
  }
  for (int i = 0; i < portExtenderPinNumber; ++i) gpio_.pinMode(portExtenderPinOffset + i, OUTPUT);
  present_ = true;
  LOG(LEVEL_INFO, "port extender set up at i2c address 0x%02x, pins %d..%d", kPortExtenderAddress,
      portExtenderPinOffset, portExtenderPinOffset + portExtenderPinNumber - 1);
  return true;
}

void PortExtender::setPortExtenderPin(int pin, int value) {
  if (settings_.shakerEnabled && pin == settings_.pinShaker) {
    if (value)
      shaker_.shakerOn();
    else
      shaker_.shakerOff();
    // No return: the shaker's physical pin number also goes through the range check.
  }
  if (pin >= portExtenderPinOffset && pin < portExtenderPinOffset + portExtenderPinNumber) {
    LOG(LEVEL_INFO, "setting port pin %d to %d", pin, value);
    // Without an extender on the bus the state is still tracked, so the web page and
    // scripts see what the samples asked for.
    if (present_) gpio_.digitalWrite(pin, value ? HIGH : LOW);
    states_.set(pin, value != 0);
    return;
  }
  LOG(LEVEL_ERROR, "pin number must be >= %d and < %d", portExtenderPinOffset,
      portExtenderPinOffset + portExtenderPinNumber);
}

std::unique_ptr<SequenceToPlay> PortExtender::createPortPinSeq(std::string_view text) {
  const auto parts = tokens(text, kSeqDelimiters);
  if (parts.empty()) {
    LOG(LEVEL_ERROR, "empty port sequence");
    return nullptr;
  }
  auto seq = std::make_unique<SequenceToPlay>();
  seq->intervals.reserve(parts.size() - 1);
  LOG(LEVEL_INFO, "creating port sequence of len %d", static_cast<int>(parts.size() - 1));
  seq->nextTime = static_cast<unsigned>(millis());
  {
    std::lock_guard lock(mutex_);
    seq->no = sequenceInstance_++;
  }
  // The pin is checked when it is switched (setPortExtenderPin logs a bad one).
  seq->pin = toInt(parts[0]);
  for (std::size_t k = 1; k < parts.size(); ++k) seq->intervals.push_back(toInt(parts[k]));
  return seq;
}

void PortExtender::addPortPinSequence(std::unique_ptr<SequenceToPlay> seq) {
  if (!seq) return;
  std::lock_guard lock(mutex_);
  playingSequences_.push_back(std::move(seq));
}

void PortExtender::sendPortCmd(std::string_view cmd) {
  const std::string text(cmd);
  if (startsWithMatchCase(text, "PORTSEQ ")) {
    addPortPinSequence(createPortPinSeq(std::string_view(text).substr(8)));
    return;
  }
  if (startsWithMatchCase(text, "PORT ")) {
    int pin = 0;
    char state[64] = {0};
    if (std::sscanf(text.c_str(), "PORT %d %63s", &pin, state) != 2) {
      LOG(LEVEL_ERROR, "failed to parse cmd: '%s'", text.c_str());
      return;
    }
    setPortExtenderPin(pin, equalsIgnoreCase(state, "ON") ? 1 : 0);
    return;
  }
  LOG(LEVEL_ERROR, "unknown port cmd: '%s'", text.c_str());
}

void PortExtender::portseq(int port, const std::vector<int>& steps) {
  std::string text = std::to_string(port);
  for (int s : steps) text += " " + std::to_string(s);
  addPortPinSequence(createPortPinSeq(text));
}

PortExtender::SeqList::iterator PortExtender::removePortPinSequence(SeqList::iterator seq) {
  return playingSequences_.erase(seq);
}

PortExtender::SeqList::iterator PortExtender::doPinPlayback(SeqList::iterator it, unsigned now) {
  SequenceToPlay& seq = **it;
  if (seq.nextTime < now) {
    LOG(LEVEL_INFO, "working on seq %d", seq.no);
    seq.state = !seq.state;
    setPortExtenderPin(seq.pin, seq.state);
    // The last interval is never waited for: the sequence ends at its last toggle.
    const int d = seq.i < seq.n_intervals() ? seq.intervals[seq.i] : 0;
    seq.nextTime = now + static_cast<unsigned>(d > 0 ? d : 0);
    ++seq.i;
    if (seq.i >= seq.n_intervals()) {
      LOG(LEVEL_INFO, "removing seq %d", seq.no);
      return removePortPinSequence(it);
    }
  }
  return std::next(it);
}

void PortExtender::updatePincom(unsigned now) {
  {
    std::lock_guard lock(mutex_);
    for (auto it = playingSequences_.begin(); it != playingSequences_.end();) it = doPinPlayback(it, now);
  }
  shaker_.update(now);
}

std::size_t PortExtender::runningSequences() const {
  std::lock_guard lock(mutex_);
  return playingSequences_.size();
}

}  // namespace korvo
