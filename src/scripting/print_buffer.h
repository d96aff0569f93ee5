// The lines scripts print, kept for the web service: 2000 lines of at most 1024
// characters; after line 1999 writing wraps to line 0, so a reader sees the newest 2000.
//
// Threads: written by whichever thread runs a script, read by the HTTP thread; one short
// mutex guards it.
#pragma once

#include <array>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

class PrintBuffer {
 public:
  static constexpr int kLines = 2000;
  static constexpr std::size_t kLineLength = 1024;

  // Copies `line` (cut to kLineLength) into the next line and advances, wrapping.
  void add(std::string_view line);
  // The lines written since the last reset, oldest first (at most kLines).
  std::vector<std::string> lines() const;
  // Slot order as stored: slot 0 first, `count` slots (for the wrap at 2001 lines).
  std::vector<std::string> slots() const;
  // The count of lines written since the last reset (not capped).
  long written() const;
  void reset();

 private:
  mutable std::mutex mutex_;  // guards everything below
  std::array<std::string, kLines> lines_;
  int printLine_ = 0;  // the slot written next
  long written_ = 0;
};

}  // namespace korvo
