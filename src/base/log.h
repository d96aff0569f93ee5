// Process-wide log: a leveled line log to stdout or a file, plus the live log,
// a 100-entry ring of the same lines kept for the web service.
//
// Every line is flushed as it is written, so a service manager's journal or a `tail -f`
// sees it at once. A run of identical lines (same level, place and text) is written
// once; the repeats are counted and reported by one summary line "last message repeated
// N times" when a different line comes, when the log device changes, or at the first
// repeat or flushLog() after kRepeatSummaryMs: a flood of bad datagrams or unknown ids
// cannot fill the disk.
//
// Thread safety: every thread logs. writeMutex_ serialises formatting decisions and
// output (it is held for one fputs + fflush); levels are atomics; the live ring has its
// own short mutex, taken inside writeMutex_ and held only to copy one line in or out.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <pthread.h>

namespace korvo {

enum LogLevel : int {
  LEVEL_NONE = 0,
  LEVEL_ERROR = 1,
  LEVEL_WARN = 2,
  LEVEL_INFO = 3,
  LEVEL_DEBUG = 4,
  LEVEL_TRACE = 5,
};

extern const char* const logLevelLabel[6];

struct LiveLogEntry {
  std::string msg;               // empty while the slot was never used
  unsigned long timeInMillis = 0;
  int inc = 0;                   // sequence number, 0 = unused slot
};

class Log {
 public:
  static constexpr int kLiveLogSize = 100;
  static constexpr int kLiveLogReadMax = 25;
  static constexpr std::size_t kLiveLineMax = 1023;
  static constexpr uint64_t kRepeatSummaryMs = 5000;

  static Log& instance();

  // The level tests are the only cost of a suppressed line.
  int logLevel() const { return logLevel_.load(std::memory_order_relaxed); }
  int liveLogLevel() const { return liveLogLevel_.load(std::memory_order_relaxed); }
  void setLogLevel(int level) { logLevel_.store(level, std::memory_order_relaxed); }
  void setLiveLogLevel(int level) { liveLogLevel_.store(level, std::memory_order_relaxed); }
  // The master configuration catalogue writes the level through this atomic.
  std::atomic<int>& logLevelRef() { return logLevel_; }

  // The device is not owned; the caller keeps it open until it sets another one.
  // Pending repeats are reported to the old device first.
  void setLogDevice(FILE* dev);
  FILE* logDevice() const { return logdev_.load(std::memory_order_acquire); }
  // -f: appends to `path` from now on. False when it cannot be opened (logging stays
  // where it was, with an ERROR line there).
  bool openLogFile(const std::string& path);
  // Back to standard output; closes a file opened by openLogFile.
  void closeLogFile();
  void setLiveLogFilter(const char* filter);  // null = no filter
  // Reports pending repeats once kRepeatSummaryMs have passed, then flushes the device.
  void flushLog();
  // The same with an explicit time on the steady millisecond clock (tests).
  void flushRepeats(uint64_t nowMs);
  static uint64_t steadyMillis();
  // Runs fn while no line is being written, so a reader of an in-memory device (a test's
  // open_memstream) sees whole lines and never races the writer's buffer.
  template <typename Fn>
  void withDeviceLocked(Fn&& fn) {
    std::lock_guard lock(writeMutex_);
    fn();
  }

  // Writes one line (prefix, message, newline). Called by the LOG macro once the
  // main level test has passed.
  void write(int level, const char* func, const char* file, int line, const char* fmt, va_list ap)
      __attribute__((format(printf, 6, 0)));

  void insertIntoLiveLog(const char* msg, unsigned long now);
  // Up to 25 entries in ascending sequence order, starting with the smallest
  // sequence number greater than `since`.
  std::vector<LiveLogEntry> readLiveLog(int since) const;
  // Empties the ring and restarts the numbering (tests build fresh state).
  void resetLiveLog();

 private:
  // The last line written, kept to recognise its repeats.
  struct LastLine {
    int level = 0;
    const char* func = "";
    const char* file = "";
    int line = 0;
    std::string body;
    unsigned repeats = 0;   // suppressed since the last report
    uint64_t since = 0;     // steady ms of the last report (or of the line)
  };

  Log() = default;
  // True when the line repeats the last one and was only counted. writeMutex_ held.
  bool countRepeat(int level, const char* func, const char* file, int line, const std::string& body, uint64_t now);
  void emitLocked(int level, const char* func, const char* file, int line, const std::string& body);
  void reportRepeatsLocked();

  std::atomic<int> logLevel_{LEVEL_DEBUG};
  std::atomic<int> liveLogLevel_{LEVEL_NONE};
  std::atomic<FILE*> logdev_{stdout};

  std::mutex writeMutex_;  // guards last_, the owned log file and the order of lines
  std::optional<LastLine> last_;

  mutable std::mutex liveMutex_;  // guards everything below
  std::string liveLogFilter_;
  bool hasFilter_ = false;
  LiveLogEntry liveLog_[kLiveLogSize];
  int liveLogHead_ = 0;
  int liveLogInc_ = 1;
};

void logWrite(int level, const char* func, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

inline void setLogLevel(int level) { Log::instance().setLogLevel(level); }
inline void setLiveLogLevel(int level) { Log::instance().setLiveLogLevel(level); }
inline void setLogDevice(FILE* dev) { Log::instance().setLogDevice(dev); }
inline void setLiveLogFilter(const char* filter) { Log::instance().setLiveLogFilter(filter); }
inline void flushLog() { Log::instance().flushLog(); }
inline void insertIntoLiveLog(const char* msg, unsigned long now) {
  Log::instance().insertIntoLiveLog(msg, now);
}

// Wall-clock milliseconds as an unsigned 32-bit value; it wraps, so readers of the
// live log compare sequence numbers, not times.
unsigned long timeInMillis();
// "%Y-%m-%d %H:%M:%S.mmm" of the local time, in a buffer of the calling thread.
const char* getFormattedTime();
char* getThreadName(char* buf, std::size_t len);
void setThreadName(const char* name);  // Linux keeps at most 15 characters
pthread_t getThreadId();

}  // namespace korvo

// Logs one line at level L with a printf format (no trailing newline needed:
// every line ends with one). The level test comes first so a suppressed line
// costs a comparison and no formatting.
#define LOG(L, ...)                                                                      \
  do {                                                                                   \
    if (::korvo::Log::instance().logLevel() >= (L))                                      \
      ::korvo::logWrite((L), __func__, __FILE_NAME__, __LINE__, __VA_ARGS__);            \
  } while (0)
