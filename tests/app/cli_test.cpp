// The daemon as a whole process: options, usage texts, exit codes, settings files,
// the keyboard console and orderly shutdown on signals.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/testutil.h"

namespace {

struct Proc {
  pid_t pid = -1;
  int in = -1, out = -1, err = -1;
};

// Starts korvo with `args` in `cwd` on the sim backend; pipes for all three streams.
Proc start(const std::vector<std::string>& args, const std::string& cwd) {
  int in[2], out[2], err[2];
  EXPECT_EQ(pipe(in), 0);
  EXPECT_EQ(pipe(out), 0);
  EXPECT_EQ(pipe(err), 0);
  Proc p;
  p.pid = fork();
  if (p.pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
    if (chdir(cwd.c_str()) != 0) _exit(126);
    setenv("KORVO_GPIO", "sim", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    std::vector<char*> argv;
    std::string exe = KORVO_EXE;
    argv.push_back(exe.data());
    std::vector<std::string> copy = args;
    for (auto& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  p.in = in[1];
  p.out = out[0];
  p.err = err[0];
  return p;
}

std::string drain(int fd) {
  std::string s;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
  return s;
}

struct Result {
  int code = -1;
  std::string out, err;
};

Result finish(Proc& p) {
  close(p.in);
  // Read both pipes to the end in a helper thread so a chatty child never blocks.
  Result r;
  std::thread t([&] { r.err = drain(p.err); });
  r.out = drain(p.out);
  t.join();
  int status = 0;
  waitpid(p.pid, &status, 0);
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  close(p.out);
  close(p.err);
  return r;
}

Result run(const std::vector<std::string>& args, const std::string& cwd = "/tmp") {
  Proc p = start(args, cwd);
  return finish(p);
}

// Waits (bounded) until the child's standard output contains `needle`.
bool waitForOutput(Proc& p, std::string& seen, const std::string& needle) {
  for (int i = 0; i < 200 && seen.find(needle) == std::string::npos; ++i) {
    pollfd pfd{p.out, POLLIN, 0};
    if (poll(&pfd, 1, 100) > 0) {
      char buf[4096];
      ssize_t n = read(p.out, buf, sizeof buf);
      if (n <= 0) break;
      seen.append(buf, static_cast<size_t>(n));
    }
  }
  return seen.find(needle) != std::string::npos;
}

TEST(Cli, UsageVersionAndBadOptions) {
  Result none = run({});
  EXPECT_EQ(none.code, 1);
  EXPECT_NE(none.err.find("\t-p: dont preload samples when initing.\n\t-m: limit sample pool size.\n"),
            std::string::npos);
  EXPECT_EQ(none.err.find("\t-K <xsnd>"), std::string::npos);

  Result h = run({"-h"});
  EXPECT_EQ(h.code, 1);
  EXPECT_EQ(h.err, none.err);
  Result hh = run({"-hh"});
  EXPECT_EQ(hh.code, 1);
  EXPECT_NE(hh.err.find("\t-T <csv>: write meta data of sound set as csv.\n\t-K <xsnd>: write sound set as xsnd.\n"
                        "\t-s <xsnd>: strip paths when writing xsnd.\n"),
            std::string::npos);

  Result v = run({"-v"});
  EXPECT_EQ(v.code, 1);
  EXPECT_EQ(v.out, std::string(KORVO_EXE) + "\n\rversion: 1.30rc24\n");

  Result x = run({"-x"});
  EXPECT_EQ(x.code, 1);
  EXPECT_EQ(x.err, "Unknown option `-x'.\n");

  Result c = run({"-c", "1", "/tmp"});
  EXPECT_EQ(c.code, 1);
}

TEST(Cli, StartsReadsSettingsAndQuitsFromTheConsole) {
  korvo::test::TempDir work;
  korvo::test::TempDir base;
  korvo::test::writeFile(base / "mellosound.ini", "vendor=7\nsay_version=0\nsay_mode=0\nplay_boot=0\n");
  korvo::test::writeFile(work / "va.ini", "volume=33\nsound_set=2\n");
  Proc p = start({"-d", "-w", "WHITESTAR_X", base.str()}, work.str());
  std::string seen;
  ASSERT_TRUE(waitForOutput(p, seen, "set terminal in raw mode")) << seen;
  ASSERT_EQ(write(p.in, "q", 1), 1);
  Result r = finish(p);
  std::string log = seen + r.out;
  EXPECT_EQ(r.code, 0) << log << r.err;
  EXPECT_NE(log.find("ERROR"), std::string::npos);
  EXPECT_NE(log.find("invalid protocol name 'WHITESTAR_X\n"), std::string::npos);
  EXPECT_NE(log.find("VELT!Audio starting, version 1.30rc24, serial: "), std::string::npos);
  EXPECT_NE(log.find("read value for volume = 33"), std::string::npos);
  EXPECT_NE(log.find("vendor = 7"), std::string::npos);
  EXPECT_NE(log.find("MelloSnd [startUp]"), std::string::npos);
  EXPECT_NE(log.find("shutting down"), std::string::npos);
}

TEST(Cli, SigtermShutsDownInOrderAndLogFileIsAppended) {
  korvo::test::TempDir work;
  std::string logFile = (work / "korvo.log").string();
  korvo::test::writeFile(logFile, "previous line\n");
  korvo::test::writeFile(work / "mellosound.ini", "say_version=0\nsay_mode=0\nplay_boot=0\n");
  // What an interrupted write left in the working/base directory and in a set.
  korvo::test::writeFile(work / "va.ini.tmpAbC123", "volume=1");
  korvo::test::writeFile(work / "set" / "sfx" / "10-a" / "a.txt.tmp0a0a0a", "x");
  korvo::test::writeFile(work / "set" / "notes.tmp", "mine");
  // -w after -f: what parsing it logs belongs in the file as well.
  Proc p = start({"-f", logFile, "-w", "NOPE", "-l", "4", work.str()}, work.str());
  // Every line reaches the file as it is logged.
  ASSERT_TRUE(korvo::test::waitUntil(
      [&] { return korvo::test::readFile(logFile).find("start-up done") != std::string::npos; }))
      << korvo::test::readFile(logFile);
  kill(p.pid, SIGTERM);
  Result r = finish(p);
  EXPECT_EQ(r.code, 0);
  std::string log = korvo::test::readFile(logFile);
  EXPECT_EQ(log.rfind("previous line\n", 0), 0u);
  EXPECT_NE(log.find("invalid protocol name 'NOPE"), std::string::npos) << log;
  EXPECT_NE(log.find("loading settings from va.ini"), std::string::npos);
  EXPECT_NE(log.find("shutting down"), std::string::npos);
  EXPECT_EQ(r.out, "");
  EXPECT_FALSE(std::filesystem::exists(work / "va.ini.tmpAbC123"));
  EXPECT_FALSE(std::filesystem::exists(work / "set" / "sfx" / "10-a" / "a.txt.tmp0a0a0a"));
  EXPECT_TRUE(std::filesystem::exists(work / "set" / "notes.tmp"));
  EXPECT_NE(log.find("removed stale temporary file"), std::string::npos);
}

TEST(Cli, RunsInitLuaAndHandsItUdpEvents) {
  korvo::test::TempDir work;
  korvo::test::writeFile(work / "mellosound.ini", "say_version=0\nsay_mode=0\nplay_boot=0\n");
  korvo::test::writeFile(work / "init.lua",
                         "print('init ' .. version)\nfunction eventHandler(e) print('event: ' .. e) end\n");
  // The event service listens on the HTTP port + 1; keep clear of a daemon on this machine.
  const int httpPort = 42000 + getpid() % 2000 * 2;
  Proc p = start({"-N", std::to_string(httpPort), work.str()}, work.str());
  std::string seen;
  ASSERT_TRUE(waitForOutput(p, seen, "start-up done")) << seen;
  EXPECT_NE(seen.find("looking for " + work.str() + "/init.lua"), std::string::npos);
  EXPECT_NE(seen.find("init 1.30rc24"), std::string::npos);
  EXPECT_NE(seen.find("adding lua event callback handler: eventHandler"), std::string::npos);
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(httpPort + 1));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sendto(fd, "tilt\n", 5, 0, reinterpret_cast<const sockaddr*>(&a), sizeof a);
  close(fd);
  EXPECT_TRUE(waitForOutput(p, seen, "event: tilt")) << seen;
  kill(p.pid, SIGTERM);
  Result r = finish(p);
  EXPECT_EQ(r.code, 0);
  EXPECT_NE((seen + r.out).find("lua_exit"), std::string::npos);
}

}  // namespace
