// The interpreter on its own: print and its buffer, the globals, errors, the time
// limit, the event handler over real UDP datagrams, and use from three threads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "base/thread.h"
#include "bus/event_service.h"
#include "core/options.h"
#include "core/settings.h"
#include "scripting/lua_binding.h"
#include "support/loopback.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

class Lua : public ::testing::Test {
 protected:
  void SetUp() override {
    initSettings(&settings);
    ASSERT_EQ(lua.lua_init(config.masterConfigMap()), 0);
  }

  // Runs `chunk` and returns what it printed.
  std::vector<std::string> printed(const std::string& chunk) {
    lua.lua_reset_output();
    lua.lua_run_with_debug(chunk);
    return lua.lua_get_print_buffer();
  }

  Configuration config{settings};
  LuaBinding lua{settings};
};

void sendDatagram(int port, const std::string& text) { UdpSocket().sendTo(port, text); }

TEST_F(Lua, PrintWritesLinesIntoTheBufferAndTheLog) {
  LogCapture cap;
  EXPECT_EQ(printed("print('a')"), std::vector<std::string>{"a"});
  EXPECT_TRUE(cap.contains("a\n"));
  EXPECT_EQ(printed("print(nil, 3, 2.5, 'x', true)"), std::vector<std::string>{"nil\t3\t2.5\tx\ttrue"});
  EXPECT_EQ(printed("print()"), std::vector<std::string>{""});
  EXPECT_EQ(printed("print({ 7, 'b', sub = { z = 1 } })"),
            (std::vector<std::string>{"1 = 7", "2 = b", "sub = { ", "    z = 1", "}"}));
  // A table that contains itself is not entered again.
  EXPECT_EQ(printed("t = {} t.me = t print(t)"), std::vector<std::string>{"me = { ... }"});
  const std::vector<std::string> fn = printed("print(print)");
  ASSERT_EQ(fn.size(), 1u);
  EXPECT_EQ(fn[0].rfind("function@0x", 0), 0u) << fn[0];
  // Lines are kept to 1024 characters.
  EXPECT_EQ(printed("print(string.rep('x', 5000))")[0].size(), PrintBuffer::kLineLength);
}

TEST_F(Lua, TheBufferKeepsTheNewest2000Lines) {
  lua.lua_reset_output();
  lua.lua_run("for i = 1, 2001 do print('line' .. i) end");
  const std::vector<std::string> slots = lua.printBuffer().slots();
  ASSERT_EQ(slots.size(), 2000u);
  EXPECT_EQ(slots[0], "line2001");  // the 2001st line overwrote line 0
  EXPECT_EQ(slots[1], "line2");
  const std::vector<std::string> lines = lua.lua_get_print_buffer();
  EXPECT_EQ(lines.front(), "line2");
  EXPECT_EQ(lines.back(), "line2001");
  lua.lua_reset_output();
  EXPECT_TRUE(lua.lua_get_print_buffer().empty());
  // One print of a huge table is cut, and says so.
  const std::vector<std::string> big = printed("local t = {} for i = 1, 3000 do t[i] = i end print(t)");
  ASSERT_EQ(big.size(), 2000u);
  EXPECT_EQ(big.back(), "... print cut after 2000 lines");
  EXPECT_EQ(big.front(), "2 = 2");
}

TEST_F(Lua, GlobalsAndLibraries) {
  settings.sms_address = "10.0.0.9";
  Configuration cfg(settings);
  LuaBinding other(settings);
  ASSERT_EQ(other.lua_init(cfg.masterConfigMap()), 0);
  other.lua_reset_output();
  other.lua_run(
      "print(version, config.enable_lua, config.sms_address, config.sms_port, config['Announcements'])"
      "print(os.exit, type(os.time), type(io.open), type(string.format), type(table.concat), type(math.floor))");
  EXPECT_EQ(other.lua_get_print_buffer(),
            (std::vector<std::string>{std::string(kVersion) + "\t1\t10.0.0.9\t19999\tnil",
                                      "nil\tfunction\tfunction\tfunction\tfunction\tfunction"}));
  lua.lua_setglobal_string("who", "me");
  lua.lua_setglobal_int("count", 12);
  lua.postGlobalInt("effectiveVolume", 99);
  EXPECT_EQ(printed("print(who, count, effectiveVolume)"), std::vector<std::string>{"me\t12\t99"});
  EXPECT_EQ(toCamelCase("fade_sfx_on_music_change"), "fadeSfxOnMusicChange");
  EXPECT_EQ(toCamelCase("n_samples"), "nSamples");
  EXPECT_EQ(toCamelCase("name"), "name");
  EXPECT_EQ(toCamelCase("trailing_"), "trailing");
}

TEST_F(Lua, ScriptErrorsAreLoggedAndNeverFatal) {
  LogCapture cap;
  EXPECT_EQ(lua.lua_run("x = = 1"), 1);
  EXPECT_TRUE(cap.contains("lua error: [string \"x = = 1\"]:1:"));
  EXPECT_EQ(lua.lua_run("error('boom')"), 1);
  EXPECT_TRUE(cap.contains("boom"));
  EXPECT_EQ(lua.lua_run("playSound('not a number')"), 1);
  EXPECT_TRUE(cap.contains("bad argument #1 to 'playSound'"));
  EXPECT_EQ(lua.lua_run("error({})"), 1);
  EXPECT_TRUE(cap.contains("lua error: (error object is a table value)"));
  // Functions whose subsystem is not there log and do nothing.
  EXPECT_EQ(lua.lua_run("playSound(3) send('x') omxStop() portseq('a', 1)"), 0);
  EXPECT_TRUE(cap.contains("playSound: the sound engine is not running"));
  EXPECT_TRUE(cap.contains("first param (portnumber) must be a number"));
  EXPECT_EQ(lua.lua_run("print(getSound(1), getCurrentSoundPack())"), 0);
  TempDir dir;
  EXPECT_EQ(lua.lua_runfile((dir / "init.lua").string()), 1);
  EXPECT_TRUE(cap.contains("running lua script: '" + (dir / "init.lua").string() + "'"));
  EXPECT_TRUE(cap.contains("cannot open " + (dir / "init.lua").string()));
  // With debug the error goes to the print buffer instead.
  const std::vector<std::string> out = printed("print('before') error('in debug')");
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0], "before");
  EXPECT_NE(out[1].find("in debug"), std::string::npos);
  // log() writes at the level asked for, naming _log.
  lua.lua_run("log(3, 'from a script') log(4, 'detail') log(9, 'bad')");
  EXPECT_TRUE(cap.contains("INFO ") && cap.contains("[_log] ") && cap.contains("from a script"));
  EXPECT_TRUE(cap.contains("ERROR") && cap.contains("bad"));
  EXPECT_EQ(printed("print('still alive')"), std::vector<std::string>{"still alive"});
}

TEST_F(Lua, AScriptThatNeverEndsIsStopped) {
  lua.setTimeLimitMs(100);
  LogCapture cap;
  EXPECT_EQ(lua.lua_run("while true do end"), 1);
  EXPECT_TRUE(cap.contains("lua error: ") && cap.contains("time limit"));
  // Catching the error does not keep it running.
  EXPECT_EQ(lua.lua_run("while true do pcall(function() while true do end end) end"), 1);
  EXPECT_EQ(printed("print('next')"), std::vector<std::string>{"next"});
}

TEST_F(Lua, EventHandlerReceivesDatagramsOfTheEventPort) {
  EventService events;
  ASSERT_TRUE(events.start(0, "127.0.0.1"));
  auto add = [&](LuaBinding::Handler fn) { events.addEventHandler(std::move(fn)); };
  LogCapture cap;
  EXPECT_FALSE(lua.lua_register_eventcallback(add));
  EXPECT_TRUE(cap.contains("checking for event handler function 'eventHandler' ..."));
  TempDir dir;
  writeFile(dir / "init.lua", "function eventHandler(e) print('event: ' .. e) if e == 'bad' then error('x') end end\n");
  lua.lua_reset_output();
  EXPECT_EQ(lua.lua_runfile((dir / "init.lua").string()), 0);
  EXPECT_TRUE(lua.lua_register_eventcallback(add));
  EXPECT_TRUE(cap.contains("adding lua event callback handler: eventHandler"));
  sendDatagram(events.port(), "bad\n");
  sendDatagram(events.port(), "start game\r\n");
  ASSERT_TRUE(waitFor([&] { return lua.printBuffer().written() == 2; }));
  EXPECT_EQ(lua.lua_get_print_buffer(), (std::vector<std::string>{"event: bad", "event: start game"}));
  events.stop();
}

TEST_F(Lua, WorkPostedWhileAScriptRunsWaitsForItWithoutBlocking) {
  // The running script ends only once the test creates a file.
  lua.setTimeLimitMs(0);
  TempDir dir;
  const std::string go = (dir / "go").string();
  lua.lua_run("posted = 0");
  lua.lua_reset_output();
  std::atomic<bool> ended{false};
  std::thread busy = startThread("busy", [&] {
    lua.lua_run("print('started') while not io.open('" + go + "') do end");
    ended = true;
  });
  ASSERT_TRUE(waitFor([&] { return lua.printBuffer().written() == 1; }));
  // The engine's hooks return at once although the state is taken.
  lua.post("posted = posted + 1");
  lua.postGlobalInt("effectiveVolume", 7);
  EXPECT_FALSE(ended.load());
  writeFile(go, "");
  busy.join();
  EXPECT_EQ(printed("print(posted, effectiveVolume)"), std::vector<std::string>{"1\t7"});
}

TEST_F(Lua, ThreeThreadsShareTheStateSafely) {
  EventService events;
  ASSERT_TRUE(events.start(0, "127.0.0.1"));
  lua.lua_run("n = 0 function eventHandler(e) n = n + 1 end");
  ASSERT_TRUE(lua.lua_register_eventcallback([&](LuaBinding::Handler fn) { events.addEventHandler(std::move(fn)); }));
  constexpr int kEach = 200;
  std::thread web = startThread("web", [&] {
    for (int i = 0; i < kEach; i++) lua.lua_run_with_debug("n = n + 1");
  });
  std::thread engine = startThread("engine", [&] {
    for (int i = 0; i < kEach; i++) lua.post("n = n + 1");
  });
  for (int i = 0; i < kEach; i++) sendDatagram(events.port(), "e");
  web.join();
  engine.join();
  // Datagrams on loopback are not lost, but only the count tells when all have arrived.
  ASSERT_TRUE(waitFor([&] { return events.eventsDelivered() == static_cast<uint64_t>(kEach); }));
  events.stop();
  EXPECT_EQ(printed("print(n)"), std::vector<std::string>{std::to_string(3 * kEach)});
}

}  // namespace
}  // namespace korvo::test
