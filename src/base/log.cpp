#include "base/log.h"

#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

#include "base/handles.h"
#include "base/stringutil.h"

namespace korvo {

const char* const logLevelLabel[6] = {"", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};

Log& Log::instance() {
  static Log log;
  return log;
}

namespace {

// The file opened by -f; guarded by Log's writeMutex_.
FileHandle& ownedLogFile() {
  static FileHandle file;
  return file;
}

std::string formatPrefix(int level, const char* func, const char* file, int line) {
  char thread[40];
  getThreadName(thread, sizeof thread);
  char buf[256];
  int n = snprintf(buf, sizeof buf, "%s %-5s %8.8s [%s] [%s:%d] ", getFormattedTime(), logLevelLabel[level], thread,
                   func, file, line);
  return std::string(buf, n < 0 ? 0 : std::min<std::size_t>(static_cast<std::size_t>(n), sizeof buf - 1));
}

std::string formatBody(const char* fmt, va_list ap) {
  char stackBuf[1024];
  va_list again;
  va_copy(again, ap);
  int n = vsnprintf(stackBuf, sizeof stackBuf, fmt, ap);
  std::string body;
  if (n < 0) {
    body = "(unformattable log message)";
  } else if (static_cast<std::size_t>(n) < sizeof stackBuf) {
    body.assign(stackBuf, static_cast<std::size_t>(n));
  } else {
    body.resize(static_cast<std::size_t>(n) + 1);
    vsnprintf(body.data(), body.size(), fmt, again);
    body.pop_back();
  }
  va_end(again);
  return body;
}

}  // namespace

void Log::setLogDevice(FILE* dev) {
  std::lock_guard lock(writeMutex_);
  reportRepeatsLocked();
  last_.reset();
  logdev_.store(dev, std::memory_order_release);
}

bool Log::openLogFile(const std::string& path) {
  FileHandle f(fopen(path.c_str(), "a"));
  if (!f) {
    LOG(LEVEL_ERROR, "cannot open log file %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  std::lock_guard lock(writeMutex_);
  reportRepeatsLocked();
  last_.reset();
  logdev_.store(f.get(), std::memory_order_release);
  ownedLogFile() = std::move(f);  // closes a previous -f file, no longer the device
  return true;
}

void Log::closeLogFile() {
  std::lock_guard lock(writeMutex_);
  if (!ownedLogFile()) return;
  reportRepeatsLocked();
  last_.reset();
  if (logDevice() == ownedLogFile().get()) logdev_.store(stdout, std::memory_order_release);
  ownedLogFile().reset();
}

void Log::setLiveLogFilter(const char* filter) {
  std::lock_guard lock(liveMutex_);
  hasFilter_ = filter != nullptr;
  liveLogFilter_ = filter ? filter : "";
}

uint64_t Log::steadyMillis() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

void Log::flushLog() { flushRepeats(steadyMillis()); }

namespace {
// Tests may report with a time ahead of the clock: a later line then counts as early.
uint64_t elapsed(uint64_t now, uint64_t since) { return now > since ? now - since : 0; }
}  // namespace

void Log::flushRepeats(uint64_t nowMs) {
  std::lock_guard lock(writeMutex_);
  if (last_ && last_->repeats > 0 && elapsed(nowMs, last_->since) >= kRepeatSummaryMs) {
    reportRepeatsLocked();
    last_->since = nowMs;
  }
  if (FILE* dev = logDevice()) fflush(dev);
}

void Log::write(int level, const char* func, const char* file, int line, const char* fmt, va_list ap) {
  if (level <= LEVEL_NONE || level > LEVEL_TRACE) return;
  const std::string body = formatBody(fmt, ap);
  const uint64_t now = steadyMillis();
  std::lock_guard lock(writeMutex_);
  if (countRepeat(level, func, file, line, body, now)) return;
  emitLocked(level, func, file, line, body);
}

bool Log::countRepeat(int level, const char* func, const char* file, int line, const std::string& body, uint64_t now) {
  if (last_ && last_->level == level && last_->line == line && strcmp(last_->file, file) == 0 &&
      last_->body == body) {
    ++last_->repeats;
    if (elapsed(now, last_->since) >= kRepeatSummaryMs) {
      reportRepeatsLocked();
      last_->since = now;
    }
    return true;
  }
  reportRepeatsLocked();
  last_ = LastLine{level, func, file, line, body, 0, now};
  return false;
}

void Log::reportRepeatsLocked() {
  if (!last_ || last_->repeats == 0) return;
  const std::string summary = strFormat("last message repeated %u times", last_->repeats);
  last_->repeats = 0;
  emitLocked(last_->level, last_->func, last_->file, last_->line, summary);
}

void Log::emitLocked(int level, const char* func, const char* file, int line, const std::string& body) {
  std::string text = formatPrefix(level, func, file, line);
  text += body;
  text += '\n';
  if (FILE* dev = logDevice()) {
    fputs(text.c_str(), dev);
    fflush(dev);
  }
  if (liveLogLevel() >= level) {
    // The live copy is cut at 1023 characters, newline included.
    if (text.size() > kLiveLineMax) {
      text.resize(kLiveLineMax - 1);
      text += '\n';
    }
    insertIntoLiveLog(text.c_str(), timeInMillis());
  }
}

void Log::insertIntoLiveLog(const char* msg, unsigned long now) {
  if (!msg) return;
  // The web service's own polling of the live log would otherwise fill the ring.
  if (strstr(msg, "/livelog")) return;
  std::lock_guard lock(liveMutex_);
  if (hasFilter_ && !strstr(msg, liveLogFilter_.c_str())) return;
  LiveLogEntry& e = liveLog_[liveLogHead_];
  e.msg = msg;
  e.timeInMillis = now;
  e.inc = liveLogInc_++;
  liveLogHead_ = (liveLogHead_ + 1) % kLiveLogSize;
}

std::vector<LiveLogEntry> Log::readLiveLog(int since) const {
  std::vector<LiveLogEntry> out;
  std::lock_guard lock(liveMutex_);
  int start = -1;
  int best = 0x40000000;
  for (int i = 0; i < kLiveLogSize; ++i) {
    int inc = liveLog_[i].inc;
    if (inc > since && inc < best) {
      best = inc;
      start = i;
    }
  }
  if (start < 0) return out;
  for (int i = start; static_cast<int>(out.size()) < kLiveLogReadMax; i = (i + 1) % kLiveLogSize) {
    if (liveLog_[i].inc <= since) break;
    out.push_back(liveLog_[i]);
    if ((i + 1) % kLiveLogSize == start) break;
  }
  return out;
}

void Log::resetLiveLog() {
  std::lock_guard lock(liveMutex_);
  for (auto& e : liveLog_) e = LiveLogEntry{};
  liveLogHead_ = 0;
  liveLogInc_ = 1;
}

void logWrite(int level, const char* func, const char* file, int line, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  Log::instance().write(level, func, file, line, fmt, ap);
  va_end(ap);
}

unsigned long timeInMillis() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  auto ms = static_cast<unsigned long long>(tv.tv_sec) * 1000ULL + static_cast<unsigned long long>(tv.tv_usec) / 1000ULL;
  return static_cast<unsigned long>(static_cast<uint32_t>(ms));
}

const char* getFormattedTime() {
  // One buffer per thread: a shared one could be overwritten between formatting and
  // printing by another thread's log line.
  thread_local char buf[40];
  timeval tv{};
  gettimeofday(&tv, nullptr);
  time_t secs = tv.tv_sec;
  tm local{};
  localtime_r(&secs, &local);
  std::size_t n = strftime(buf, 25, "%Y-%m-%d %H:%M:%S", &local);
  snprintf(buf + n, sizeof buf - n, ".%03d", static_cast<int>(tv.tv_usec / 1000));
  return buf;
}

char* getThreadName(char* buf, std::size_t len) {
  if (!buf || len == 0) return buf;
  if (pthread_getname_np(pthread_self(), buf, len) != 0) buf[0] = '\0';
  return buf;
}

void setThreadName(const char* name) {
  char cut[16];
  snprintf(cut, sizeof cut, "%s", name ? name : "");
  pthread_setname_np(pthread_self(), cut);
}

pthread_t getThreadId() { return pthread_self(); }

}  // namespace korvo
