// Running the system's network tools. No client text ever reaches a shell: a tool runs
// with fork/exec and an argument vector (found on PATH), secrets go in on its standard
// input, its standard output comes back through a pipe, and a tool that hangs is
// killed when its time is up.
//
// Thread: the caller's (the HTTP thread); it blocks until the tool ends.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace korvo {

constexpr int kToolTimeoutMs = 15000;

struct ToolResult {
  bool started = false;   // the program was found and ran
  bool timedOut = false;  // killed after the time-out
  int exitCode = -1;      // its exit status; -1 when it did not exit by itself
  std::string output;     // what it wrote to standard output
  bool ok() const { return started && !timedOut && exitCode == 0; }
};

// Runs argv[0] (searched on PATH) with `argv`, writes `input` to its standard input
// and closes it; standard error is discarded. Killed (SIGKILL) after `timeoutMs`.
ToolResult runTool(const std::vector<std::string>& argv, std::string_view input = {},
                   int timeoutMs = kToolTimeoutMs);

// True when NetworkManager runs (`nmcli -t -f RUNNING general` answers "running").
bool networkManagerRunning();

// `path` (absolute, e.g. "/etc/hostname") under the root prefix ("/" on the device).
std::string underRoot(const std::string& rootPrefix, std::string_view path);

}  // namespace korvo
