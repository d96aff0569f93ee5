// The SSD1306 128x64 OLED mini display. Text is drawn into a 1024-byte frame buffer
// (8 pages of 128 columns) by any thread; the display thread "MiniDService" sends only
// the pages that changed, at most 10 times a second, so no I2C traffic ever runs on
// the main loop and an unchanged display costs no bus traffic at all.
//
// Threads: showLine / frameBuffer from any thread (one mutex guards the buffer); the
// I2C transfers and the status refresh run on "MiniDService" only.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "panel/font.h"
#include "platform/gpio.h"

namespace korvo {

class MiniDisplay {
 public:
  static constexpr int kPages = 8;
  static constexpr std::size_t kFrameBytes = kDisplayColumns * kPages;
  static constexpr int kAddress = 0x3C;
  static constexpr int kAlternateAddress = 0x3D;
  static constexpr int kMinSendIntervalMs = 100;
  using Frame = std::array<uint8_t, kFrameBytes>;
  // Called on the display thread before each check for changes (about 10 times a
  // second): the owner puts the current status lines up here.
  using StatusRefresh = std::function<void(MiniDisplay&)>;

  explicit MiniDisplay(Gpio& gpio);
  ~MiniDisplay();
  MiniDisplay(const MiniDisplay&) = delete;
  MiniDisplay& operator=(const MiniDisplay&) = delete;

  // Probes 0x3C, then 0x3D. True when one answers.
  bool minidisplay_available();
  // Sends the set-up sequence, clears the panel and starts "MiniDService". False (one
  // ERROR line) when the display does not take it.
  bool init(StatusRefresh refresh = {});
  void stop();
  bool running() const;

  // Text at pixel column x of the line at pixel row y (its page, y / 8); the rest of
  // the line is cleared. Changes nothing (and sends nothing) when the text is already
  // there.
  void showLine(int x, int y, const std::string& text);
  Frame frameBuffer() const;
  int address() const { return address_; }

 private:
  void serviceLoop();
  // Sends the pages that differ from what the panel shows; false when the display
  // stopped answering.
  bool sendChangedPages();
  bool sendCommands(std::initializer_list<uint8_t> cmds);

  Gpio& gpio_;
  int fd_ = -1;
  int address_ = 0;
  StatusRefresh refresh_;
  mutable std::mutex mutex_;        // guards frame_, stop_ and dirty_
  std::condition_variable wake_;    // with mutex_: a line changed or stop was asked
  Frame frame_{};
  bool dirty_ = false;
  bool stop_ = false;
  Frame shown_{};  // what the panel holds; display thread only
  std::thread thread_;
};

}  // namespace korvo
