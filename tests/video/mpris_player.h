// A private dbus-daemon started by the test and a small MPRIS player on it: it owns a
// bus name, answers the Player methods and the two properties the control reads, and
// records every call as "Method type:value ...".
#pragma once

#include <dbus/dbus.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace korvo::test {

class DbusDaemon {
 public:
  // Listens on a socket in `dir`. address() is empty when the daemon did not start.
  explicit DbusDaemon(const std::string& dir);
  ~DbusDaemon();
  const std::string& address() const { return address_; }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  std::string address_;
};

class MprisPlayer {
 public:
  // Owns `name` on the bus at `address`; `variantReplies` answers property reads the
  // standard way (in a variant) instead of the plain value of the omx player.
  MprisPlayer(const std::string& address, const std::string& name, bool variantReplies = false);
  ~MprisPlayer();
  bool ready() const { return ready_; }

  void setStatus(const std::string& s);
  void setPosition(int64_t p) { position_ = p; }
  // Answers each call this much later (the control's reply time-out is 200 ms).
  void setReplyDelayMs(int ms) { delayMs_ = ms; }
  std::vector<std::string> calls();

 private:
  void run();
  void answer(DBusMessage* msg);

  DBusConnection* conn_ = nullptr;
  bool ready_ = false;
  bool variant_;
  std::atomic<bool> stop_{false};
  std::atomic<int64_t> position_{0};
  std::atomic<int> delayMs_{0};
  std::mutex m_;  // guards status_ and calls_
  std::string status_ = "Playing";
  std::vector<std::string> calls_;
  std::thread thread_;
};

}  // namespace korvo::test
