#include "web/net_tools.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"

extern char** environ;

namespace korvo {

namespace {

using Clock = std::chrono::steady_clock;

// The input lives in memory (memfd), never in a file on disk, and a tool that does not
// read it cannot raise SIGPIPE in the daemon.
Fd inputFile(std::string_view input) {
  Fd fd(memfd_create("tool-input", MFD_CLOEXEC));
  if (!fd) return Fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  std::size_t done = 0;
  while (done < input.size()) {
    ssize_t n = ::write(fd.get(), input.data() + done, input.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  lseek(fd.get(), 0, SEEK_SET);
  return fd;
}

// posix_spawnp is fork/exec without copying the daemon's address space: safe in a
// threaded process. Every descriptor above stderr is closed in the child.
pid_t spawn(const std::vector<std::string>& argv, int in, int out) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&fa, out, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&fa, STDERR_FILENO + 1);
  pid_t pid = -1;
  int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  return rc == 0 ? pid : -1;
}

int remainingMs(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// Reads the tool's output until it closes it and exits, or the deadline passes.
// True when both happened in time.
bool collect(int out, int pidfd, ToolResult& r, Clock::time_point deadline) {
  bool outOpen = true, running = true;
  char buf[4096];
  while (outOpen || running) {
    pollfd fds[2] = {{out, POLLIN, 0}, {pidfd, POLLIN, 0}};
    int n = poll(outOpen ? fds : fds + 1, outOpen ? 2 : 1, remainingMs(deadline));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    if (outOpen && fds[0].revents) {
      ssize_t got = ::read(out, buf, sizeof buf);
      if (got > 0) r.output.append(buf, static_cast<std::size_t>(got));
      else if (got == 0 || errno != EINTR) outOpen = false;
    }
    if (fds[1].revents) running = false;
  }
  return true;
}

}  // namespace

ToolResult runTool(const std::vector<std::string>& argv, std::string_view input, int timeoutMs) {
  ToolResult r;
  if (argv.empty()) return r;
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    LOG(LEVEL_ERROR, "cannot run %s: %s", argv[0].c_str(), strerror(errno));
    return r;
  }
  Fd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
  Fd in = inputFile(input);
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  pid_t pid = spawn(argv, in.get(), writeEnd.get());
  if (pid < 0) {
    LOG(LEVEL_ERROR, "cannot run %s", argv[0].c_str());
    return r;
  }
  writeEnd.reset();  // the child holds the only write end now: EOF comes when it ends
  Fd pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!pidfd || !collect(readEnd.get(), pidfd.get(), r, deadline)) {
    kill(pid, SIGKILL);
    r.timedOut = true;
    LOG(LEVEL_ERROR, "%s did not finish within %d ms, killed", argv[0].c_str(), timeoutMs);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  // exec failing in the child shows as exit code 127.
  r.started = !(WIFEXITED(status) && WEXITSTATUS(status) == 127);
  if (!r.timedOut && WIFEXITED(status)) r.exitCode = WEXITSTATUS(status);
  LOG(LEVEL_DEBUG, "%s ended with %d", argv[0].c_str(), r.exitCode);
  return r;
}

bool networkManagerRunning() {
  ToolResult r = runTool({"nmcli", "-t", "-f", "RUNNING", "general"});
  return r.ok() && trim(r.output) == "running";
}

std::string underRoot(const std::string& rootPrefix, std::string_view path) {
  std::string root = rootPrefix.empty() ? std::string("/") : rootPrefix;
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  while (path.starts_with('/')) path.remove_prefix(1);
  return root == "/" ? "/" + std::string(path) : root + "/" + std::string(path);
}

}  // namespace korvo
