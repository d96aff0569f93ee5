#include "bus/session_recorder.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "bus/pincom.h"
#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "core/settings.h"
#include "platform/clock.h"

namespace korvo {

namespace {
constexpr const char* kHeaderPrefix = "# bus recording v1 protocol=";
constexpr std::size_t kMaxLine = 256;

// "<ms> 0x<HH>" with optional blanks around; false for anything else.
bool parseEventLine(const std::string& line, unsigned* ms, uint8_t* byte) {
  const char* p = line.c_str();
  while (*p == ' ' || *p == '\t') ++p;
  if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
  unsigned long t = 0;
  while (std::isdigit(static_cast<unsigned char>(*p))) {
    t = t * 10 + static_cast<unsigned>(*p - '0');
    if (t > 0xFFFFFFFFul) return false;
    ++p;
  }
  if (*p != ' ' && *p != '\t') return false;
  while (*p == ' ' || *p == '\t') ++p;
  if (p[0] != '0' || (p[1] != 'x' && p[1] != 'X')) return false;
  p += 2;
  unsigned v = 0;
  int digits = 0;
  while (std::isxdigit(static_cast<unsigned char>(*p))) {
    const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    v = v * 16 + static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10);
    ++digits;
    ++p;
  }
  if (digits < 1 || digits > 2) return false;
  while (*p == ' ' || *p == '\t' || *p == '\r') ++p;
  if (*p != '\0') return false;
  *ms = static_cast<unsigned>(t);
  *byte = static_cast<uint8_t>(v);
  return true;
}
}  // namespace

SessionRecorder::SessionRecorder(Pincom& pincom) : pincom_(pincom) {}

SessionRecorder::~SessionRecorder() {
  pincom_.setRecorder(nullptr);
  stopRecording();
}

bool SessionRecorder::startRecording(const std::string& path) {
  stopRecording();
  // The header goes through the atomic writer: a recording of the same name is replaced
  // only once the new file is on the disk, so a full disk keeps the old one.
  if (writeFileAtomic(path, std::string(kHeaderPrefix) + protocolName(pincom_.protocol()) + "\n") != 0) {
    LOG(LEVEL_ERROR, "cannot create recording file '%s'", path.c_str());
    return false;
  }
  FileHandle f(std::fopen(path.c_str(), "a"));
  if (!f) {
    LOG(LEVEL_ERROR, "cannot create recording file '%s': %s", path.c_str(), std::strerror(errno));
    return false;
  }
  {
    std::lock_guard fileLock(fileMutex_);
    std::lock_guard lock(recMutex_);
    file_ = std::move(f);
    recPath_ = path;
    pending_.clear();
    recStart_ = millis();
    lastFlush_ = recStart_;
    recording_.store(true);
  }
  pincom_.setRecorder(this);
  LOG(LEVEL_INFO, "recording bus session to %s", path.c_str());
  return true;
}

bool SessionRecorder::stopRecording() {
  if (!recording_.exchange(false)) return false;
  writePending();
  {
    std::lock_guard fileLock(fileMutex_);
    if (file_ && std::fclose(file_.release()) != 0)
      LOG(LEVEL_ERROR, "closing recording file '%s' failed", recordingFile().c_str());
  }
  LOG(LEVEL_INFO, "recording to %s stopped", recordingFile().c_str());
  return true;
}

std::string SessionRecorder::recordingFile() const {
  std::lock_guard lock(recMutex_);
  return recPath_;
}

void SessionRecorder::recordByte(uint8_t b) {
  if (!recording_.load(std::memory_order_acquire)) return;
  std::lock_guard lock(recMutex_);
  pending_.push_back({static_cast<unsigned>(millis() - recStart_), b});
  recordedSomething_.store(true, std::memory_order_relaxed);
}

void SessionRecorder::writePending() {
  std::lock_guard fileLock(fileMutex_);
  std::vector<Event> batch;
  {
    std::lock_guard lock(recMutex_);
    batch.swap(pending_);
  }
  if (!file_ || batch.empty()) return;
  std::string text;
  for (const Event& e : batch) text += strFormat("%u 0x%02X\n", e.ms, e.byte);
  // Whole lines or none: what a full disk took of the batch is cut off again, so the
  // recording stays readable to its last line. The descriptor is written directly
  // (append mode), never through the stream's buffer.
  const int fd = fileno(file_.get());
  const off_t end = ::lseek(fd, 0, SEEK_END);
  std::string_view rest = text;
  errno = 0;
  while (!rest.empty()) {
    const ssize_t n = ::write(fd, rest.data(), rest.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    rest.remove_prefix(static_cast<std::size_t>(n));
  }
  if (rest.empty()) return;
  const int err = errno != 0 ? errno : ENOSPC;  // a write of no bytes sets none
  if (end < 0 || ::ftruncate(fd, end) != 0)
    LOG(LEVEL_ERROR, "recording file '%s' may end in a partial line: %s", recordingFile().c_str(), std::strerror(errno));
  LOG(LEVEL_ERROR, "writing recording file '%s' failed: %s; bytes are not recorded", recordingFile().c_str(),
      std::strerror(err));
}

std::vector<SessionRecorder::Event> SessionRecorder::parseRecording(std::istream& in, const std::string& name,
                                                                    int currentProtocol, int* skipped) {
  std::vector<Event> events;
  std::string line;
  int lineNo = 0;
  unsigned last = 0;
  *skipped = 0;
  while (std::getline(in, line)) {
    ++lineNo;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    if (line[0] == '#') {
      if (line.rfind(kHeaderPrefix, 0) == 0) {
        const std::string proto = line.substr(std::strlen(kHeaderPrefix));
        if (proto != protocolName(currentProtocol))
          LOG(LEVEL_WARN, "recording '%s' was made with protocol %.32s, replaying it as %s", name.c_str(),
              proto.c_str(), protocolName(currentProtocol));
      }
      continue;
    }
    unsigned ms = 0;
    uint8_t byte = 0;
    if (line.size() > kMaxLine || !parseEventLine(line, &ms, &byte)) {
      LOG(LEVEL_WARN, "%s:%d: malformed recording line skipped", name.c_str(), lineNo);
      ++*skipped;
      continue;
    }
    // An earlier time is delivered right after its predecessor.
    if (ms < last) ms = last;
    last = ms;
    events.push_back({ms, byte});
  }
  return events;
}

bool SessionRecorder::startPlayback(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    LOG(LEVEL_ERROR, "cannot open recording '%s'", path.c_str());
    return false;
  }
  int skipped = 0;
  std::vector<Event> events = parseRecording(in, path, pincom_.protocol(), &skipped);
  std::lock_guard lock(playMutex_);
  playPath_ = path;
  events_ = std::move(events);
  next_ = 0;
  playStart_ = millis();
  replaying_.store(true);
  LOG(LEVEL_INFO, "replaying %s: %zu bytes, %d lines skipped", path.c_str(), events_.size(), skipped);
  return true;
}

void SessionRecorder::stopPlayback() {
  std::lock_guard lock(playMutex_);
  if (!replaying_.load()) return;
  replaying_.store(false);
  events_.clear();
  next_ = 0;
  LOG(LEVEL_INFO, "replay of %s stopped", playPath_.c_str());
}

std::size_t SessionRecorder::replayPosition() const {
  std::lock_guard lock(playMutex_);
  return next_;
}

std::size_t SessionRecorder::replayLength() const {
  std::lock_guard lock(playMutex_);
  return events_.size();
}

std::vector<uint8_t> SessionRecorder::takeDueLocked(unsigned now) {
  std::vector<uint8_t> due;
  unsigned long elapsed = now > playStart_ ? now - playStart_ : 0;
  if (next_ < events_.size() && elapsed > events_[next_].ms + kMaxReplayLagMs) {
    // The loop was held up: go on from the next byte as if it were due just now.
    playStart_ += elapsed - events_[next_].ms;
    elapsed = events_[next_].ms;
  }
  while (next_ < events_.size() && events_[next_].ms <= elapsed) due.push_back(events_[next_++].byte);
  if (next_ >= events_.size()) {
    replaying_.store(false);
    LOG(LEVEL_INFO, "replay of %s finished, %zu bytes delivered", playPath_.c_str(), events_.size());
  }
  return due;
}

void SessionRecorder::updatePlayback(unsigned now) {
  if (recording_.load(std::memory_order_acquire)) {
    bool due = false;
    {
      std::lock_guard lock(recMutex_);
      if (now - lastFlush_ >= kFlushIntervalMs) {
        lastFlush_ = now;
        due = true;
      }
    }
    if (due) writePending();
  }
  if (!replaying_.load(std::memory_order_acquire)) return;

  std::vector<uint8_t> due;
  {
    std::lock_guard lock(playMutex_);
    due = takeDueLocked(now);
  }
  // Delivered without the lock: the interrupt routine calls the consumers.
  for (uint8_t b : due) {
    LOG(LEVEL_INFO, "replayed byte 0x%02X", b);
    pincom_.triggerInterrupt(b);
  }
}

}  // namespace korvo
