#include <exception>

#include "app/korvo.h"
#include "base/log.h"

int main(int argc, char** argv, char** envp) {
  // Nothing may end the daemon without a word: what escapes start-up, the loop or
  // shutdown is logged and the service manager sees a failed exit.
  try {
    korvo::Korvo app;
    return app.main(argc, argv, envp);
  } catch (const std::exception& e) {
    LOG(korvo::LEVEL_ERROR, "korvo ended by an exception: %s", e.what());
  } catch (...) {
    LOG(korvo::LEVEL_ERROR, "korvo ended by an unknown exception");
  }
  korvo::flushLog();
  return 1;
}
