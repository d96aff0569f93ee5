#include "scripting/print_buffer.h"

namespace korvo {

void PrintBuffer::add(std::string_view line) {
  std::lock_guard lk(mutex_);
  lines_[static_cast<std::size_t>(printLine_)].assign(line.substr(0, kLineLength));
  printLine_ = (printLine_ + 1) % kLines;
  ++written_;
}

std::vector<std::string> PrintBuffer::lines() const {
  std::lock_guard lk(mutex_);
  const int n = written_ < kLines ? static_cast<int>(written_) : kLines;
  const int first = written_ < kLines ? 0 : printLine_;
  std::vector<std::string> out;
  out.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < n; i++) out.push_back(lines_[static_cast<std::size_t>((first + i) % kLines)]);
  return out;
}

std::vector<std::string> PrintBuffer::slots() const {
  std::lock_guard lk(mutex_);
  const int n = written_ < kLines ? static_cast<int>(written_) : kLines;
  return std::vector<std::string>(lines_.begin(), lines_.begin() + n);
}

long PrintBuffer::written() const {
  std::lock_guard lk(mutex_);
  return written_;
}

void PrintBuffer::reset() {
  std::lock_guard lk(mutex_);
  for (auto& l : lines_) l.clear();
  printLine_ = 0;
  written_ = 0;
}

}  // namespace korvo
