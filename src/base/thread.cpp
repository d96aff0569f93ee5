#include "base/thread.h"

#include <exception>

#include "base/log.h"

namespace korvo {

bool runGuarded(const char* what, const std::function<void()>& body) {
  try {
    body();
    return true;
  } catch (const std::exception& e) {
    LOG(LEVEL_ERROR, "%s ended by an exception: %s", what, e.what());
  } catch (...) {
    LOG(LEVEL_ERROR, "%s ended by an unknown exception", what);
  }
  return false;
}

std::thread startThread(std::string name, std::function<void()> body) {
  return std::thread([name = std::move(name), body = std::move(body)] {
    setThreadName(name.c_str());
    runGuarded(name.c_str(), body);
  });
}

}  // namespace korvo
