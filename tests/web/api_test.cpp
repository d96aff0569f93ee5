// The JSON API over the real server: every route group with its exact answers, the
// edge cases of the paths, and the effect on the engine, bus, log and main loop.
#include <algorithm>
#include <filesystem>

#include "core/options.h"
#include "web_fixture.h"

namespace korvo {
namespace {

using Api = test::WebFixture;
using test::err;
using test::ok;

TEST_F(Api, PlaysStopsAndRunsCommands) {
  settings.enable_port_extender = 1;
  engine->hooks().setPortExtenderPin = [this](int pin, bool on) { bus->setPortExtenderPin(pin, on ? 1 : 0); };
  start();
  EXPECT_EQ(body("/sounds/play/1"), ok("sound 1 is playing"));
  EXPECT_TRUE(test::waitFor([&] { return engine->musicIdPlaying() == 1; }));
  EXPECT_EQ(body("/sounds/play/11/1"), ok("sound 11/1 is playing"));
  // What plays: sound 11 on a channel, the music on the stream, every other channel idle.
  // Both are short: on a slow machine either may end before the reading, so each is
  // played again until one reading catches both.
  std::string playing;
  EXPECT_TRUE(test::waitFor([&] {
    if (engine->musicIdPlaying() != 1) body("/sounds/play/1");
    if (engine->isSamplePlaying(11) != 1) body("/sounds/play/11/1");
    playing = body("/sounds/playing");
    return playing.find(", \"music\": 1 }") != std::string::npos && playing.find("11") != std::string::npos;
  })) << playing;
  EXPECT_EQ(std::count(playing.begin(), playing.end(), ','), 11) << playing;
  EXPECT_EQ(body("/sounds/play//1"), err("bad url"));
  EXPECT_EQ(body("/sounds/play/stop"), ok("music stopped"));
  EXPECT_EQ(body("/system/sounds/play/ready.ogg"), ok("system sound 'ready.ogg' is playing"));
  EXPECT_EQ(body("/system/sounds/play/nothere.ogg"), err("system sound 'nothere.ogg' not found"));

  EXPECT_EQ(body("/playCommand"), "{  \"result\": \"failed\", \"message\": \"bad request\" }");
  EXPECT_EQ(body("/playCommand?cmd=PORT%20101%20on"), "{  \"result\": \"success\", \"message\": \"cmd is playing\" }");
  EXPECT_TRUE(test::waitFor([&] { return bus->pincom().portStates().get(101) == 1; }));
  EXPECT_EQ(body("/playCommand?cmd=print(1)&debug=1"), err("lua not available"));
  std::string chunk;
  ctx->runLuaWithDebug = [&](const std::string& c) {
    chunk = c;
    return std::vector<std::string>{"one", "\"two\""};
  };
  EXPECT_EQ(body("/playCommand?cmd=print(1)%0Aprint(2)&debug=1"),
            "{  \"result\": \"success\", \"message\": \"cmd is running\" , \"output\": [\"one\",\"\\\"two\\\"\"] }");
  EXPECT_EQ(chunk, "print(1)\nprint(2)");
}

TEST_F(Api, DescribesAndEditsTheSoundsOfTheSet) {
  start();
  EXPECT_EQ(body("/sounds/category/sfx"),
            "[ { \"id\": 10,   \"name\": \"beep\" } ,{ \"id\": 11,   \"name\": \"twin\" } ]");
  EXPECT_EQ(body("/sounds/category/jingle"), "[ ]");
  const std::string set = (base / "one").string();
  std::vector<std::string> files;  // in the order the scan found them
  {
    auto lock = engine->lock();
    files = engine->getSampleForId(11)->samples;
  }
  ASSERT_EQ(files.size(), 2u);
  const auto size = std::filesystem::file_size(files[0]);
  const std::string a = std::filesystem::path(files[0]).filename(), b = std::filesystem::path(files[1]).filename();
  EXPECT_EQ(body("/sounds/11"), "{ \"id\": 11, \"name\": \"twin\", \"size\": " + std::to_string(size) +
                                    ", \"path\": \"" + set + "/sfx/11-twin\", \"preload\": false, \"gain\": 50, "
                                    "\"ducking\": 80, \"type\": 2, \"category\": \"sfx\", \"samples\": [ \"" + a +
                                    "\",\"" + b + "\"], \"shakerSeq\": \"\", \"serialCmd\": \"\" }");
  EXPECT_EQ(get("/sounds/999").status, 400);

  test::Reply file = get("/sounds/10/7/file");  // the index is clamped to the last file
  EXPECT_EQ(file.status, 200);
  EXPECT_EQ(file.body, test::readFile(base / "one/sfx/10-beep/beep.wav"));
  EXPECT_TRUE(file.hasHeader("Content-Type: audio/vnd.wav"));
  EXPECT_EQ(get("/sounds/999/0/file").status, 404);

  EXPECT_EQ(body("/sounds/11/sample/1/remove"), ok("sample removed"));
  EXPECT_FALSE(std::filesystem::exists(files[1]));
  EXPECT_TRUE(std::filesystem::exists(files[0]));
  EXPECT_EQ(get("/sounds/11/sample/5/remove").status, 400);

  EXPECT_EQ(body("/sounds/20/move/sfx"), ok("sound 20 was move to sfx"));
  EXPECT_TRUE(std::filesystem::exists(base / "one/sfx/20-talk/talk.wav"));
  EXPECT_EQ(body("/sounds/10/move/system"), err("sound 10 could not be moved to system"));
  EXPECT_EQ(body("/sounds//move/sfx"), err("bad url"));
}

TEST_F(Api, ListsSwitchesAndRemovesSoundSets) {
  start();
  EXPECT_EQ(body("/soundsets"),
            "[{ \"id\": \"1\", \"name\": \"one\", \"selected\": true, \"type\": 0  },"
            "{ \"id\": \"2\", \"name\": \"two\", \"selected\": false, \"type\": 0  }]");
  EXPECT_EQ(body("/soundset"), "{ \"soundset\": \"1\", \"type\": 0 }");
  EXPECT_EQ(body("/soundsets/2"),
            "{  \"message\": \"switched to 2\", \"result\": \"success\", \"soundset\": \"2\", \"type\": 0 }");
  EXPECT_EQ(settings.soundSet.load(), 2);
  EXPECT_EQ(body("/soundsets/5"), err("could not switch soundset"));
  EXPECT_EQ(body("/soundset/next"), "{  \"soundset\": \"1\" }");

  // A set copied in by hand shows up after a refresh only.
  std::filesystem::copy(base / "one", base / "three", std::filesystem::copy_options::recursive);
  EXPECT_EQ(body("/soundsets").find("three"), std::string::npos);
  EXPECT_NE(body("/soundsets?refresh=1").find("{ \"id\": \"3\", \"name\": \"three\""), std::string::npos);

  EXPECT_EQ(body("/soundsets/3/remove"), ok("soundset 3 deleted"));
  EXPECT_FALSE(std::filesystem::exists(base / "three"));
  EXPECT_EQ(body("/soundsets/7/remove"), err("soundset 7 not deleted"));
}

TEST_F(Api, VolumeGainAndDuckingPerType) {
  start();
  EXPECT_EQ(body("/volume"), "{  \"volume\": \"100\" }");
  EXPECT_EQ(body("/volume/80"), ok("volume set to 80"));
  EXPECT_EQ(body("/volume"), "{  \"volume\": \"80\" }");
  EXPECT_EQ(body("/volume/200"), err("could not set volume"));

  EXPECT_EQ(body("/gainByType/2"), "{  \"type\": \"2\", \"gain\": \"50\" }");
  EXPECT_EQ(body("/gainByType/2/70"), ok("gain updated for type"));
  EXPECT_EQ(body("/gainByType/2"), "{  \"type\": \"2\", \"gain\": \"70\" }");
  EXPECT_EQ(body("/gainByType/2/300"), err("could not update gain"));
  EXPECT_EQ(body("/duckByType/1"), "{  \"type\": \"1\", \"ducking\": \"100\" }");
  EXPECT_EQ(body("/duckByType/3/40"), ok("ducking updated for type"));
  EXPECT_EQ(body("/duckByType/3"), "{  \"type\": \"3\", \"ducking\": \"40\" }");
  EXPECT_EQ(body("/duckByType/3/101"), err("could not update ducking"));
  // The route allows one digit; the tables have seven types.
  EXPECT_EQ(get("/gainByType/9").status, 400);
  EXPECT_EQ(body("/duckByType/9/10"), err("could not update ducking"));
}

TEST_F(Api, AudioDevicesAndControls) {
  start();
  const std::string list = body("/audioDevices");
  EXPECT_EQ(list.rfind("[{ \"name\": \"", 0), 0u) << list;
  EXPECT_NE(list.find("\"selected\": false }"), std::string::npos);
  const int devices = static_cast<int>(engine->listAudioDevices().size());
  EXPECT_EQ(body("/audioDevices/99"), err("audio device: 99 could not be set, either > max(" +
                                          std::to_string(devices - 1) + ") or error on open -> see logfile"));
  EXPECT_EQ(body("/audioDevices/0/controls").front(), '[');
  EXPECT_EQ(get("/audioDevices/99/controls").status, 404);
  EXPECT_EQ(body("/audioDevices/0/control/3/value/0/-5"), ok("value set"));
}

TEST_F(Api, PortsAndRecording) {
  start();
  EXPECT_EQ(body("/ports/105/1"), ok("setting port: 105 to ON"));
  EXPECT_EQ(bus->pincom().portStates().get(105), 1);
  // The pattern allows "/ports/3/", but the earlier directory-index row takes it.
  EXPECT_EQ(get("/ports/3/").status, 404);
  const std::string ports = body("/ports");
  EXPECT_EQ(ports.rfind("[{ \"port\": \"0\", \"value\": \"off\" },{ \"port\": \"1\"", 0), 0u);
  EXPECT_NE(ports.find("{ \"port\": \"105\", \"value\": \"on\" }"), std::string::npos);
  EXPECT_NE(ports.find("{ \"port\": \"115\", \"value\": \"off\" }]"), std::string::npos);

  EXPECT_EQ(body("/recording/state"), "{  \"state\": \"stopped\", \"available\": false }");
  EXPECT_EQ(get("/recording").status, 404);
  EXPECT_EQ(body("/recording/stop"), err("you must start recording first"));
  const std::string started = body("/recording/start");
  const std::string file = bus->recorder().recordingFile();
  ASSERT_EQ(file.rfind("/tmp/", 0), 0u);
  EXPECT_EQ(started, ok("recording started. file: " + file));
  EXPECT_EQ(body("/recording/state"), "{  \"state\": \"running\", \"available\": true }");
  EXPECT_EQ(body("/recording/stop"), ok("recording stopped. rec file: " + file));
  test::Reply rec = get("/recording");
  EXPECT_EQ(rec.body.rfind("# bus recording v1", 0), 0u);
  EXPECT_TRUE(rec.hasHeader("Content-Type: application/octet-stream"));
  std::filesystem::remove(file);
}

TEST_F(Api, ConfigurationHidesThePassword) {
  test::writeFile(base / "mellosound.ini", "http_password=hunter2\nstop_cmds=0x18 35\n");
  test::LogCapture log;
  config.readMasterConfig(base.c_str(), true);  // logs the catalogue
  ASSERT_EQ(settings.httpPassword, "hunter2");
  start();
  const std::string cfg = body("/config");
  EXPECT_EQ(cfg.rfind("[{ \"name\": \"Announcements\", \"displayName\": \"\", \"type\": 5, \"value\": \"-\" },"
                      "{ \"name\": \"say_version\", \"displayName\": \"\", \"type\": 1, \"value\": true},",
                      0),
            0u);
  EXPECT_NE(cfg.find("{ \"name\": \"say_mode\", \"displayName\": \"\", \"type\": 4,\"options\": [{ \"value\": \"0\", "
                     "\"label\": \"NO\" }, { \"value\": \"1\", \"label\": \"YES\" }],  \"value\": 1 }"),
            std::string::npos);
  EXPECT_NE(cfg.find("{ \"name\": \"stop_cmds\", \"displayName\": \"\", \"type\": 3, \"value\": \"0x18 0x23\"}"),
            std::string::npos);
  EXPECT_NE(cfg.find("{ \"name\": \"http_password\", \"displayName\": \"\", \"type\": 3, \"value\": \"\"}"),
            std::string::npos);
  EXPECT_NE(cfg.find("\"update_server\", \"displayName\": \"\", \"type\": 3, \"value\": \"http://update.veltaudio.com\"}"),
            std::string::npos);
  EXPECT_NE(cfg.find("{ \"name\": \"sms_address\", \"displayName\": \"\", \"type\": 3, \"value\": null},"),
            std::string::npos);
  EXPECT_EQ(cfg.find("hunter2"), std::string::npos);
  EXPECT_FALSE(log.contains("hunter2"));
}

TEST_F(Api, LogFilesAndLiveLog) {
  test::writeFile(dir.path() / "korvo.log", "line one\n");
  start();
  test::Reply log = get("/log");
  EXPECT_EQ(log.body.rfind("line one\n", 0), 0u);
  EXPECT_TRUE(log.hasHeader("Content-Type: text/plain"));
  EXPECT_TRUE(get("/mellon.log?dl=1").hasHeader("Content-Type: application/octet-stream"));

  Log::instance().resetLiveLog();
  for (int i = 1; i <= 30; ++i) insertIntoLiveLog(("entry \"" + std::to_string(i) + "\"").c_str(), 1000u + i);
  const std::string first = body("/livelog?i=0");
  EXPECT_EQ(first.rfind("[{\"msg\": \"entry \\\"1\\\"\", \"timestamp\": 1001, \"inc\": 1},", 0), 0u) << first;
  EXPECT_NE(first.find("\"inc\": 25}]"), std::string::npos);
  EXPECT_EQ(first.find("\"inc\": 26}"), std::string::npos);
  const std::string next = body("/livelog?i=25");
  EXPECT_EQ(next.rfind("[{\"msg\": \"entry \\\"26\\\"\"", 0), 0u);
  EXPECT_NE(next.find("\"inc\": 30}]"), std::string::npos);
  EXPECT_EQ(body("/livelog?i=30"), "[]");

  // Level and filter: only lines with the filter text enter from now on.
  body("/livelog?i=30&l=3&f=pincom");
  EXPECT_EQ(Log::instance().liveLogLevel(), 3);
  setLogLevel(LEVEL_INFO);  // a line must pass the main level too
  LOG(LEVEL_INFO, "unrelated line");
  LOG(LEVEL_INFO, "pincom line");
  const std::string filtered = body("/livelog?i=30&f=pincom");
  EXPECT_NE(filtered.find("pincom line"), std::string::npos);
  EXPECT_EQ(filtered.find("unrelated line"), std::string::npos);
  setLiveLogLevel(LEVEL_NONE);
  setLiveLogFilter(nullptr);
}

TEST_F(Api, RestartStopsTheMainLoopAndVersionReports) {
  start();
  EXPECT_EQ(body("/restart"), ok("Hold on. VELT!Audio is restarting. "));
  EXPECT_EQ(loop.exitCode(), 1);
  EXPECT_NE(loop.stopAt(), 0u);
  EXPECT_EQ(body("/restart?code=2"), ok("Hold on. VELT!Audio is rebooting. "));
  EXPECT_EQ(loop.exitCode(), 2);
  const std::string v = body("/version");
  const std::string head = std::string("{  \"version\": \"") + kVersion + "\", \"srvBuild\": \"0\", \"memory\": \"";
  EXPECT_EQ(v.rfind(head, 0), 0u) << v;
  EXPECT_EQ(v.substr(v.size() - 3), "\" }");
  EXPECT_GT(std::stol(v.substr(head.size())), 0);
}

}  // namespace
}  // namespace korvo
