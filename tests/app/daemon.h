// The daemon as a child process of the test: started in its own working directory on
// the sim backend (SDL's dummy driver comes from the test binary's environment), its
// three standard streams on pipes.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/handles.h"
#include "base/thread.h"

namespace korvo::test {

// A "mellosound.ini" that keeps start-up quiet and quick: no spoken version, mode or boot sound.
inline const char* const kQuietIni = "say_version=0\nsay_mode=0\nplay_boot=0\n";

struct Exit {
  int code = -1;  // the exit status, or 128 + the signal that ended it
  std::string out, err;
};

class Daemon {
 public:
  Daemon(const std::vector<std::string>& args, const std::string& cwd) {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {  // dup2 clears close-on-exec on the three standard streams
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(err[1], 2);
      if (chdir(cwd.c_str()) != 0) _exit(126);
      setenv("KORVO_GPIO", "sim", 1);
      std::vector<std::string> all{KORVO_EXE};
      all.insert(all.end(), args.begin(), args.end());
      std::vector<char*> argv;
      for (auto& a : all) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(KORVO_EXE, argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    in_.reset(in[1]);
    out_.reset(out[0]);
    err_.reset(err[0]);
  }
  ~Daemon() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    finish();
  }

  pid_t pid() const { return pid_; }
  int input() const { return in_.get(); }
  // Standard output read so far.
  const std::string& seen() const { return seen_; }

  // Reads standard output until `done` holds or the output ends (bounded); false when it never held.
  bool waitUntil(const std::function<bool()>& done) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!done()) {
      if (std::chrono::steady_clock::now() > until) return false;
      pollfd pfd{out_.get(), POLLIN, 0};
      if (poll(&pfd, 1, 100) <= 0) continue;
      char buf[4096];
      const ssize_t n = read(out_.get(), buf, sizeof buf);
      if (n <= 0) return done();
      seen_.append(buf, static_cast<std::size_t>(n));
    }
    return true;
  }
  bool waitForOutput(const std::string& needle) {
    return waitUntil([&] { return seen_.find(needle) != std::string::npos; });
  }

  // Closes standard input, reads both outputs to their end and waits for the exit;
  // `out` holds all of standard output, including what the waits read.
  Exit finish() {
    Exit r;
    if (pid_ <= 0) return r;
    in_.reset();
    // Both pipes are read at once, so a chatty child never blocks on either.
    std::thread t = startThread("stderr", [&] { r.err = drain(err_.get()); });
    r.out = seen_ + drain(out_.get());
    t.join();
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
  }
  // SIGTERM, then finish().
  Exit stop() {
    if (pid_ > 0) kill(pid_, SIGTERM);
    return finish();
  }

 private:
  static std::string drain(int fd) {
    std::string s;
    char buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) s.append(buf, static_cast<std::size_t>(n));
    return s;
  }
  pid_t pid_ = -1;
  Fd in_, out_, err_;
  std::string seen_;
};

// Runs the daemon to its end with nothing on standard input.
inline Exit runDaemon(const std::vector<std::string>& args, const std::string& cwd = "/tmp") {
  return Daemon(args, cwd).finish();
}

}  // namespace korvo::test
