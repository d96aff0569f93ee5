// Scripts and the engine together: sample command strings run as Lua (or go out as
// text with Lua off) and reach a serial line (a pty) and the socket output (a UDP
// listener); scripts read sounds and sets and play, stop and set the volume.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "bus/bus.h"
#include "platform/sim_gpio.h"
#include "scripting/lua_binding.h"
#include "sound/engine_fixture.h"
#include "support/loopback.h"

namespace korvo::test {
namespace {

// Everything that arrives on `fd` until `want` has been seen (or 10 s passed).
std::string readUntil(int fd, const std::string& want) {
  std::string out;
  char buf[512];
  pollfd p{fd, POLLIN, 0};
  while (out.find(want) == std::string::npos && ::poll(&p, 1, 10000) > 0) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    if (out.size() > 4096) break;
  }
  return out;
}

class LuaEngine : public EngineFixture {
 protected:
  void SetUp() override {
    EngineFixture::SetUp();
    master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    ASSERT_GT(udp.port(), 0);
    settings.enableSerial = 1;
    settings.serialDevice = ptsname(master);
    settings.serialBaud = 57600;
    settings.sms_address = "127.0.0.1";
    settings.sms_port = udp.port();
    settings.luaEnabled = 1;
    bus = std::make_unique<Bus>(gpio, settings);
    bus->openOutputs();
  }

  void TearDown() override {
    if (engine) engine->soundShutdown();
    EngineFixture::TearDown();
    bus.reset();
    ::close(master);
  }

  // The set, the engine and the interpreter, wired as the daemon wires them.
  void start() {
    makeSet("one");
    writeFile(base / "one/sfx/10-beep/serial.txt", "send('lua ' .. 10)\n");
    writeFile(base / "one/sfx/11-twin/serial.txt", "LED ON\n");
    openEngine();
    loadSets();
    SoundHooks& h = engine->hooks();
    Bus* b = bus.get();
    h.serialSend = [b](const std::string& t) { b->serialSend(t); };
    h.sendSocketCmd = [b](const std::string& t) { b->sendSocketCmd(t); };
    h.luaRun = [this](const std::string& chunk) { lua.post(chunk); };
    h.setLuaGlobal = [this](const char* name, int v) { lua.postGlobalInt(name, v); };
    ASSERT_EQ(lua.lua_init(config.masterConfigMap()), 0);
    lua.setEngine(engine.get());
    lua.setBus(bus.get());
  }

  std::vector<std::string> printed(const std::string& chunk) {
    lua.lua_reset_output();
    lua.lua_run_with_debug(chunk);
    return lua.lua_get_print_buffer();
  }

  SimGpio gpio;
  std::unique_ptr<Bus> bus;
  int master = -1;
  UdpSocket udp;
  Configuration config{settings};
  LuaBinding lua{settings};
};

TEST_F(LuaEngine, CommandStringsRunAsLuaOrGoOutAsText) {
  start();
  LogCapture cap;
  // Lua on: the string is a chunk, and its send() reaches the serial line and the socket.
  engine->handleSoundByType(10);
  EXPECT_EQ(readUntil(master, "\n"), "lua 10\n");
  EXPECT_EQ(udp.receive(), "lua 10");
  // A plain text is no Lua: an error line, nothing sent.
  engine->handleSoundByType(11);
  EXPECT_TRUE(cap.contains("lua error: "));
  // Lua off: the text goes out as it stands.
  settings.luaEnabled = 0;
  engine->handleSoundByType(11);
  EXPECT_EQ(readUntil(master, "\n"), "LED ON\n");
  EXPECT_EQ(udp.receive(), "LED ON");
  // Lua on but no interpreter running: the same.
  settings.luaEnabled = 1;
  engine->hooks().luaRun = nullptr;
  engine->playCommand("RAW; send('x')");
  EXPECT_EQ(readUntil(master, "send('x')\n"), "RAW\nsend('x')\n");
  EXPECT_EQ(udp.receive(), "RAW");
  EXPECT_EQ(udp.receive(), "send('x')");
}

TEST_F(LuaEngine, ScriptsReadSoundsAndDriveTheEngine) {
  start();
  EXPECT_EQ(printed("local s = getSound(11) print(s.name, s.type, s.gain, s.preload, #s.samples, s.serialcmd)"),
            std::vector<std::string>{"twin\t2\t50\t0\t2\tLED ON"});
  EXPECT_EQ(printed("print(getSound(999))"), std::vector<std::string>{"nil"});
  EXPECT_EQ(printed("local p = getCurrentSoundPack() print(p.name, p.nSamples, #p.gain, p.ducking[3], "
                    "type(p.fadeSfxOnMusicChange), p.samples['20'].name)"),
            std::vector<std::string>{"one\t6\t7\t80\tboolean\ttalk"});
  // playSound(id, volume, variant): variant 1 of sound 11.
  lua.lua_run("playSound(11, -1, 1)");
  EXPECT_TRUE(waitFor([&] { return engine->isSamplePlaying(11) == 1; }));
  lua.lua_run("stopAllSamples()");
  EXPECT_FALSE(engine->isSamplePlaying(11));
  // The engine's globals come back into the script that caused them.
  EXPECT_EQ(printed("setVolume(80) print(effectiveVolume)"), std::vector<std::string>{"80"});
  EXPECT_EQ(settings.volume.load(), 80);
  EXPECT_EQ(printed("playSound(1) print(musicPlayingId)"), std::vector<std::string>{"1"});
  EXPECT_EQ(engine->musicIdPlaying(), 1);
  lua.lua_run("stopMusic()");
  EXPECT_EQ(engine->musicIdPlaying(), 0);
  LogCapture cap;
  EXPECT_EQ(lua.lua_run("setVolume(500)"), 0);
  EXPECT_TRUE(cap.contains("volume out of range: 500"));
}

}  // namespace
}  // namespace korvo::test
