#include "app/wifi_fallback.h"

#include <sys/wait.h>
#include <unistd.h>

#include "base/log.h"
#include "base/thread.h"

namespace korvo {

WifiFallback::WifiFallback(Query query, ShowIp showIp, RunScript runScript)
    : query_(std::move(query)), showIp_(std::move(showIp)), runScript_(std::move(runScript)) {}

WifiFallback::~WifiFallback() {
  if (script_.joinable()) script_.join();
}

void WifiFallback::setInitial(const std::vector<NetworkInterface>& networks) {
  // The first interface is a connected Wi-Fi one: its address is on the display already.
  if (getWifiNetwork(networks) == 0) done_ = true;
}

void WifiFallback::check(unsigned long n) {
  const int result = scriptResult_.exchange(-1);
  if (result > 0) {
    LOG(LEVEL_ERROR, "starting of AP failed");
    period_ = kCheckEveryAfterApFailure;
  }
  if (done_ || ipShown_ || n % period_ != 0) return;
  const std::vector<NetworkInterface> networks = query_();
  const int wifi = getWifiNetwork(networks);
  if (wifi >= 0) {
    if (showIp_) showIp_(networks[static_cast<std::size_t>(wifi)].ip);
    ipShown_ = true;
    return;
  }
  if (++failures_ < 2 || apStarted_) return;
  LOG(LEVEL_INFO, "no wifi, starting AP ");
  apStarted_ = true;
  script_ = startThread("startap", [this] { scriptResult_.store(runScript_ ? runScript_() : 0); });
}

int WifiFallback::runApScript() {
  const pid_t pid = fork();
  if (pid == 0) {
    execl(kApScript, kApScript, static_cast<char*>(nullptr));
    _exit(127);
  }
  if (pid < 0) return 127;
  int status = 0;
  if (waitpid(pid, &status, 0) < 0) return 127;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 127;
}

}  // namespace korvo
