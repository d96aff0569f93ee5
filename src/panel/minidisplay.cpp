#include "panel/minidisplay.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "base/log.h"
#include "base/thread.h"

namespace korvo {

MiniDisplay::MiniDisplay(Gpio& gpio) : gpio_(gpio) {}

MiniDisplay::~MiniDisplay() { stop(); }

bool MiniDisplay::minidisplay_available() {
  for (int address : {kAddress, kAlternateAddress}) {
    const int fd = gpio_.wiringPiI2CSetup(address);
    uint8_t status = 0;
    // A read of the status byte: only a display that is there acknowledges it.
    if (fd >= 0 && gpio_.i2cReadBlock(fd, {&status, 1}) == 0) {
      fd_ = fd;
      address_ = address;
      LOG(LEVEL_INFO, "mini display found at 0x%02x", address);
      return true;
    }
  }
  LOG(LEVEL_ERROR, "no mini display answers at 0x%02x or 0x%02x", kAddress, kAlternateAddress);
  return false;
}

bool MiniDisplay::sendCommands(std::initializer_list<uint8_t> cmds) {
  std::vector<uint8_t> tx{0x00};
  tx.insert(tx.end(), cmds.begin(), cmds.end());
  return gpio_.i2cWriteBlock(fd_, tx) == 0;
}

bool MiniDisplay::init(StatusRefresh refresh) {
  if (fd_ < 0 && !minidisplay_available()) return false;
  // Display off, clock, 64 rows, no offset, start line 0, charge pump on, horizontal
  // addressing, segment remap, COM scan down, COM pins, contrast, pre-charge, VCOMH,
  // resume from RAM, normal (not inverted), display on.
  const bool ok = sendCommands({0xAE, 0xD5, 0x80, 0xA8, 0x3F, 0xD3, 0x00, 0x40, 0x8D, 0x14, 0x20, 0x00, 0xA1,
                                0xC8, 0xDA, 0x12, 0x81, 0xCF, 0xD9, 0xF1, 0xDB, 0x40, 0xA4, 0xA6, 0xAF});
  if (!ok) {
    LOG(LEVEL_ERROR, "mini display at 0x%02x refused its set-up", address_);
    return false;
  }
  refresh_ = std::move(refresh);
  // The panel's RAM holds whatever it had at power-up: mark every page as changed.
  shown_.fill(0xFF);
  {
    std::lock_guard lock(mutex_);
    stop_ = false;
    dirty_ = true;
  }
  thread_ = startThread("MiniDService", [this] { serviceLoop(); });
  return true;
}

void MiniDisplay::stop() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

bool MiniDisplay::running() const {
  std::lock_guard lock(mutex_);
  return thread_.joinable() && !stop_;
}

void MiniDisplay::showLine(int x, int y, const std::string& text) {
  const int page = std::clamp(y / 8, 0, kPages - 1);
  std::array<uint8_t, kDisplayColumns> line{};
  {
    std::lock_guard lock(mutex_);
    std::copy_n(frame_.begin() + page * kDisplayColumns, kDisplayColumns, line.begin());
    drawText(line, x, text);
    if (std::equal(line.begin(), line.end(), frame_.begin() + page * kDisplayColumns)) return;
    std::copy(line.begin(), line.end(), frame_.begin() + page * kDisplayColumns);
    dirty_ = true;
  }
  wake_.notify_all();
}

MiniDisplay::Frame MiniDisplay::frameBuffer() const {
  std::lock_guard lock(mutex_);
  return frame_;
}

bool MiniDisplay::sendChangedPages() {
  const Frame frame = frameBuffer();
  for (int page = 0; page < kPages; ++page) {
    const auto begin = frame.begin() + page * kDisplayColumns;
    if (std::equal(begin, begin + kDisplayColumns, shown_.begin() + page * kDisplayColumns)) continue;
    std::vector<uint8_t> data{0x40};
    data.insert(data.end(), begin, begin + kDisplayColumns);
    const auto p = static_cast<uint8_t>(page);
    if (!sendCommands({0x21, 0, kDisplayColumns - 1, 0x22, p, p}) || gpio_.i2cWriteBlock(fd_, data) != 0) return false;
    std::copy(begin, begin + kDisplayColumns, shown_.begin() + page * kDisplayColumns);
  }
  return true;
}

void MiniDisplay::serviceLoop() {
  using namespace std::chrono;
  std::unique_lock lock(mutex_);
  while (!stop_) {
    lock.unlock();
    if (refresh_) refresh_(*this);
    lock.lock();
    if (dirty_) {
      dirty_ = false;
      lock.unlock();
      if (!sendChangedPages()) {
        LOG(LEVEL_ERROR, "mini display at 0x%02x stopped answering, display off", address_);
        lock.lock();
        stop_ = true;
        break;
      }
      lock.lock();
    }
    // At most ten sends a second; a change meanwhile waits for the next round.
    wake_.wait_for(lock, milliseconds(kMinSendIntervalMs), [this] { return stop_; });
  }
}

}  // namespace korvo
