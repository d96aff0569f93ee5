// The main loop's Wi-Fi fallback: while no Wi-Fi address has been shown, look again
// every check period (counted in loop iterations); show the address once one appears,
// and after the second failed look start the access-point script, once. The script runs
// on a thread of its own so the loop never waits for it.
//
// Thread: check() on the main loop; the script's result comes back through an atomic.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "web/netinfo.h"

namespace korvo {

class WifiFallback {
 public:
  static constexpr unsigned long kCheckEvery = 10000;
  static constexpr unsigned long kCheckEveryAfterApFailure = 600000;
  static constexpr const char* kApScript = "/home/pi/korvo/startap.sh";
  using Query = std::function<std::vector<NetworkInterface>()>;
  using ShowIp = std::function<void(const std::string& ip)>;
  // Runs the script and returns its exit status (non-zero: failed).
  using RunScript = std::function<int()>;

  WifiFallback(Query query, ShowIp showIp, RunScript runScript);
  ~WifiFallback();
  WifiFallback(const WifiFallback&) = delete;
  WifiFallback& operator=(const WifiFallback&) = delete;

  // The interfaces seen at start-up: a Wi-Fi interface first in the list ends checking.
  void setInitial(const std::vector<NetworkInterface>& networks);
  void check(unsigned long n);
  bool ipShown() const { return ipShown_; }
  bool apStarted() const { return apStarted_; }
  unsigned long period() const { return period_; }

  // Runs kApScript (fork and exec, no shell); its exit status, 127 when it cannot run.
  static int runApScript();

 private:
  Query query_;
  ShowIp showIp_;
  RunScript runScript_;
  bool done_ = false;
  bool ipShown_ = false;
  bool apStarted_ = false;
  int failures_ = 0;
  unsigned long period_ = kCheckEvery;
  std::atomic<int> scriptResult_{-1};  // -1 while running or not started
  std::thread script_;
};

}  // namespace korvo
