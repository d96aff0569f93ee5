#include "base/log.h"

#include <sys/time.h>

#include <cstring>
#include <ctime>

namespace korvo {

const char* const logLevelLabel[6] = {"", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};

Log& Log::instance() {
  static Log log;
  return log;
}

void Log::setLogDevice(FILE* dev) { logdev_.store(dev, std::memory_order_release); }

void Log::setLiveLogFilter(const char* filter) {
  std::lock_guard lock(liveMutex_);
  hasFilter_ = filter != nullptr;
  liveLogFilter_ = filter ? filter : "";
}

void Log::flushLog() {
  if (FILE* dev = logDevice()) fflush(dev);
}

namespace {

// Formats prefix + message + newline into buf; returns the length that would have
// been written (as snprintf does).
int formatLine(char* buf, std::size_t size, int level, const char* func, const char* file, int line,
               const char* fmt, va_list ap) {
  char thread[40];
  getThreadName(thread, sizeof thread);
  int n = snprintf(buf, size, "%s %-5s %8.8s [%s] [%s:%d] ", getFormattedTime(), logLevelLabel[level],
                   thread, func, file, line);
  if (n < 0) return n;
  std::size_t used = static_cast<std::size_t>(n) < size ? static_cast<std::size_t>(n) : size;
  int m = vsnprintf(buf + used, size - used, fmt, ap);
  if (m < 0) return m;
  used = static_cast<std::size_t>(n) + static_cast<std::size_t>(m);
  if (used + 1 < size) {
    buf[used] = '\n';
    buf[used + 1] = '\0';
  } else if (size >= 2) {
    buf[size - 2] = '\n';
    buf[size - 1] = '\0';
  }
  return static_cast<int>(used + 1);
}

}  // namespace

void Log::write(int level, const char* func, const char* file, int line, const char* fmt, va_list ap) {
  if (level <= LEVEL_NONE || level > LEVEL_TRACE) return;
  va_list live;
  va_copy(live, ap);
  // Most lines fit the stack buffer; a longer one is formatted once more on the heap.
  char stackBuf[1024];
  va_list again;
  va_copy(again, ap);
  int len = formatLine(stackBuf, sizeof stackBuf, level, func, file, line, fmt, ap);
  if (FILE* dev = logDevice(); dev && len > 0) {
    if (static_cast<std::size_t>(len) < sizeof stackBuf) {
      fputs(stackBuf, dev);
    } else {
      std::string big(static_cast<std::size_t>(len) + 1, '\0');
      formatLine(big.data(), big.size(), level, func, file, line, fmt, again);
      fputs(big.c_str(), dev);
    }
  }
  va_end(again);
  if (liveLogLevel() >= level) {
    // The live copy is cut at 1023 characters, the stack buffer's capacity.
    char liveBuf[kLiveLineMax + 1];
    formatLine(liveBuf, sizeof liveBuf, level, func, file, line, fmt, live);
    insertIntoLiveLog(liveBuf, timeInMillis());
  }
  va_end(live);
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
