// Every thread of the daemon starts here: it gets its name (shown in each log line and
// by `top -H`) and nothing it throws escapes, because an exception leaving a thread's
// function ends the whole process without a word. What escapes is logged as an ERROR
// naming the thread; the thread then ends.
#pragma once

#include <functional>
#include <string>
#include <thread>

namespace korvo {

std::thread startThread(std::string name, std::function<void()> body);

// Runs `body`, logging whatever it throws as an ERROR with `what` (a thread or callback
// name). Returns false when it threw. For C callbacks that must not let anything through.
bool runGuarded(const char* what, const std::function<void()>& body);

}  // namespace korvo
