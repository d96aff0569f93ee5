#include <gtest/gtest.h>

#include <filesystem>

#include "base/fileutil.h"
#include "base/log.h"
#include "core/settings.h"
#include "support/testutil.h"

using namespace korvo;
namespace fs = std::filesystem;

namespace {

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    savedLevel_ = Log::instance().logLevel();
    initSettings(&s);
  }
  void TearDown() override { setLogLevel(savedLevel_); }
  Settings s;
  test::TempDir dir;
  int savedLevel_ = 4;
};

SettingsMap intEntry(const char* name, int* target) {
  SettingsMap e;
  e.type = INT;
  e.name = name;
  e.val = target;
  return e;
}

TEST(ReadValueFor, KeyIsACaseInsensitivePrefixAndBlanksSurroundTheSeparator) {
  int target = 0;
  SettingsMap e = intEntry("volume", &target);
  int v = 0;
  EXPECT_EQ(readValueFor("VOLUME = 80\n", e, '=', &v, nullptr), 1);
  EXPECT_EQ(v, 80);
  EXPECT_EQ(readValueFor("volume==  7abc", e, '=', &v, nullptr), 1);
  EXPECT_EQ(v, 7);
  EXPECT_EQ(readValueFor("volume=loud", e, '=', &v, nullptr), 0);
  EXPECT_EQ(readValueFor("# volume=3", e, '=', &v, nullptr), 0);
  EXPECT_EQ(readValueFor("vol=3", e, '=', &v, nullptr), 0);

  // A key is matched over its own length only: "preload" also sees the line of
  // "preload_threshold", whose rest is no number.
  SettingsMap pre = intEntry("preload", &target);
  EXPECT_EQ(readValueFor("preload_threshold=5", pre, '=', &v, nullptr), 0);

  SettingsMap str;
  str.type = STRING;
  str.name = "serial_device";
  std::string sv = "keep";
  EXPECT_EQ(readValueFor("serial_device=\r\n", str, '=', nullptr, &sv), 0);
  EXPECT_EQ(sv, "keep");
  EXPECT_EQ(readValueFor("Serial_Device = /dev/ttyUSB0\r\n", str, '=', nullptr, &sv), 1);
  EXPECT_EQ(sv, "/dev/ttyUSB0");

  SettingsMap hex = intEntry("Serial", &target);
  EXPECT_EQ(readHexValueFor("Serial\t\t: 00000000abcd1234", hex, ':', &v, nullptr), 1);
  EXPECT_EQ(static_cast<unsigned>(v), 0xabcd1234u);
}

TEST_F(SettingsTest, StopCommandsParseHexDecimalAndStopAtJunk) {
  test::LogCapture cap;
  parseStopCmds("0x18, 35;0x3e3", s);
  ASSERT_EQ(s.noOfStopCmds, 3);
  EXPECT_EQ(s.stopCmds[0], 24);
  EXPECT_EQ(s.stopCmds[1], 35);
  EXPECT_EQ(s.stopCmds[2], 995);

  parseStopCmds("12,abc,13", s);
  ASSERT_EQ(s.noOfStopCmds, 1);
  EXPECT_EQ(s.stopCmds[0], 12);
  EXPECT_TRUE(cap.contains("ERROR") && cap.contains("Failure when parsing stop cmds: abc"));

  parseStopCmds("1 2 3 4 5 6 7 8 9 10 11", s);
  EXPECT_EQ(s.noOfStopCmds, 10);
  EXPECT_EQ(s.stopCmds[9], 10);
}

TEST_F(SettingsTest, TransientSettingsRoundTripAndFallBackWhenMissing) {
  Configuration cfg(s);
  std::string path = (dir / "va.ini").string();
  {
    test::LogCapture cap;
    cfg.readSettings(path.c_str());
    EXPECT_TRUE(cap.contains("open settings for reading"));
  }
  EXPECT_EQ(s.volume, 64);
  EXPECT_EQ(s.soundSet, 1);
  EXPECT_TRUE(s.audioDevice.empty());

  s.volume = 23;
  s.soundSet = 4;
  cfg.writeSettings(path.c_str());
  EXPECT_EQ(test::readFile(path), "volume=23\nsound_set=4\naudio_device=\n");
  s.audioDevice.set("hw:CARD=sndrpihifiberry,DEV=0");
  cfg.writeSettings(path.c_str());

  Settings t;
  initSettings(&t);
  Configuration other(t);
  other.readSettings(path.c_str());
  EXPECT_EQ(t.volume, 23);
  EXPECT_EQ(t.soundSet, 4);
  EXPECT_EQ(t.audioDevice.get(), "hw:CARD=sndrpihifiberry,DEV=0");
  // Nothing but the file itself is left in the directory: no temporary files.
  EXPECT_EQ(test::namesIn(dir.path()), std::vector<std::string>{"va.ini"});
}

// A damaged or empty va.ini must not give a silent machine: what cannot be read keeps
// the fallback, and each bad line is named with its file and line number.
TEST_F(SettingsTest, UnreadableTransientValuesKeepTheFallbackAndAreReported) {
  const std::string path = (dir / "va.ini").string();
  struct Case {
    const char* content;
    int volume;
    int soundSet;
    const char* warning;  // null: none expected
  };
  const Case cases[] = {
      {"volume=loud\nsound_set=3\n", 64, 3, "va.ini:1: malformed settings line ignored: volume"},
      {"", 64, 1, nullptr},
      {"sound_set=2\n\n# note\nvolume\n", 64, 2, "va.ini:4: malformed settings line ignored: volume"},
      {"Volume = 80\nsound_set=x\n", 80, 1, "va.ini:2: malformed settings line ignored: sound_set"},
      {"volume=0\n", 0, 1, nullptr},  // a stored zero is a choice, not a damage
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.content);
    test::writeFile(path, c.content);
    Settings t;
    initSettings(&t);
    Configuration cfg(t);
    test::LogCapture cap;
    cfg.readSettings(path.c_str());
    EXPECT_EQ(t.volume, c.volume);
    EXPECT_EQ(t.soundSet, c.soundSet);
    if (c.warning)
      EXPECT_TRUE(cap.contains("WARN") && cap.contains(c.warning)) << cap.text();
    else
      EXPECT_FALSE(cap.contains("malformed")) << cap.text();
  }
}

TEST_F(SettingsTest, MalformedMasterConfigLinesAreReportedAndTheRestIsRead) {
  test::writeFile(dir / "mellosound.ini", "say_version=0\njust some words\nshaker_enabled=on\nunknown_key=1\n"
                                          "preload_threshold=5\nsay_mode=0\n");
  Configuration cfg(s);
  test::LogCapture cap;
  cfg.readMasterConfig(dir.str().c_str(), false);
  EXPECT_EQ(s.sayVersion, 0);
  EXPECT_EQ(s.sayMode, 0);
  EXPECT_TRUE(cap.contains("mellosound.ini:2: malformed settings line ignored")) << cap.text();
  EXPECT_TRUE(cap.contains("mellosound.ini:3: malformed settings line ignored: shaker_enabled")) << cap.text();
  // Keys of other readers and prefix look-alikes ("preload" in "preload_threshold") are no fault.
  EXPECT_FALSE(cap.contains(":4: malformed")) << cap.text();
  EXPECT_FALSE(cap.contains(":5: malformed")) << cap.text();
}

TEST_F(SettingsTest, MasterConfigOverridesOptionsWithVendorAndStopCommandRules) {
  Configuration cfg(s);
  s.protocol = WPC;  // as if -w WPC was given
  s.samplePoolSizeInByte = 64ul << 20;  // as if -m 64
  test::writeFile(dir / "mellosound.ini",
                  "# comment\nsample_pool_size=0\nsay_version = 0\nSHAKER_ENABLED=7\nserial_device=/dev/ttyAMA0\n"
                  "preload=0\nunknown_key=5\n");
  cfg.readMasterConfig(dir.str().c_str(), false);
  EXPECT_EQ(s.protocol, DATAEAST);  // no vendor line: back to DATAEAST
  EXPECT_EQ(s.samplePoolSizeInByte, 64ul << 20);
  EXPECT_EQ(s.sayVersion, 0);
  EXPECT_EQ(s.shakerEnabled, 1);  // BOOL stores 0/1
  EXPECT_EQ(s.serialDevice, "/dev/ttyAMA0");
  EXPECT_EQ(s.preloadThreshold, -1);
  ASSERT_EQ(s.noOfStopCmds, 2);  // DATAEAST defaults
  EXPECT_EQ(s.stopCmds[0], 24);
  EXPECT_EQ(s.stopCmds[1], 35);

  test::writeFile(dir / "mellosound.ini", "vendor=5\nsample_pool_size=128\nlog_level=2\n");
  cfg.readMasterConfig(dir.str().c_str(), false);
  EXPECT_EQ(s.protocol, WPCDCS);
  EXPECT_EQ(s.samplePoolSizeInByte, 128ul << 20);
  EXPECT_EQ(s.preloadThreshold, 1);  // preload defaults to true when the file exists
  EXPECT_EQ(Log::instance().logLevel(), 2);
  ASSERT_EQ(s.noOfStopCmds, 1);
  EXPECT_EQ(s.stopCmds[0], 995);

  test::writeFile(dir / "mellosound.ini", "vendor=8\nstop_cmds=0x10,0x11\n");
  cfg.readMasterConfig(dir.str().c_str(), false);
  EXPECT_EQ(s.protocol, WHITESTAR_X);
  ASSERT_EQ(s.noOfStopCmds, 2);
  EXPECT_EQ(s.stopCmds[1], 17);

  test::writeFile(dir / "mellosound.ini", "vendor=42\n");
  cfg.readMasterConfig(dir.str().c_str(), false);
  EXPECT_GE(s.protocol, 0);
  EXPECT_LT(s.protocol, kProtocolCount);
}

TEST_F(SettingsTest, MissingMasterConfigKeepsOptions) {
  Configuration cfg(s);
  s.protocol = WPC;
  test::LogCapture cap;
  cfg.readMasterConfig(dir.str().c_str(), false);
  EXPECT_EQ(s.protocol, WPC);
  EXPECT_TRUE(cap.contains("WARN") && cap.contains("config mellosound.ini not found in"));
}

TEST_F(SettingsTest, CatalogueTakesAtMostFifteenVisibleDspSettings) {
  Configuration cfg(s);
  auto& map = cfg.masterConfigMap();
  const std::size_t builtIn = map.size();
  std::vector<int> values(20, 7);
  std::vector<DspSetting> dsp;
  for (int i = 0; i < 20; ++i) dsp.push_back({(i % 4 == 0 ? "_hidden" : "dsp") + std::to_string(i), &values[i]});
  cfg.extendMasterConfigMap(dsp);
  ASSERT_EQ(map.size(), builtIn + 1u + 15u);
  EXPECT_EQ(map[builtIn].type, GROUP);
  EXPECT_EQ(map[builtIn].name, "DSP Settings");
  for (std::size_t i = builtIn + 1; i < map.size(); ++i) EXPECT_NE(map[i].name[0], '_');
  EXPECT_EQ(map[builtIn + 1].name, "dsp1");

  // The DSP's settings are read from the file like the built-in ones.
  test::writeFile(dir / "mellosound.ini", "dsp1=99\n");
  cfg.readMasterConfig(dir.str().c_str(), false);
  EXPECT_EQ(values[1], 99);
}

TEST_F(SettingsTest, FileUpdatesReplaceOrAppendAndAreAtomic) {
  std::string path = (dir / "va.ini").string();
  test::writeFile(path, "volume=3\nnumid3_0=180\nsound_set=2\n");
  ASSERT_EQ(updateConfigFile(path.c_str(), "numid3_0=", "numid3_0=200"), 0);
  ASSERT_EQ(updateConfigFile(path.c_str(), "numid4_1=", "numid4_1=1"), 0);
  EXPECT_EQ(test::readFile(path), "volume=3\nnumid3_0=200\nsound_set=2\nnumid4_1=1\n");
  ASSERT_EQ(updateConfigFile((dir / "new.ini").string().c_str(), "a=", "a=1"), 0);
  EXPECT_EQ(test::readFile(dir / "new.ini"), "a=1\n");

  Configuration cfg(s);
  ASSERT_EQ(cfg.updateMasterConfig(dir.str().c_str(), "vendor=1\n"), 0);
  EXPECT_EQ(test::readFile(dir / "mellosound.ini"), "vendor=1\n");

  // A write that cannot complete leaves the old file as it was.
  test::LogCapture cap;
  EXPECT_EQ(writeFileAtomic((dir / "missing-dir" / "x.ini").string(), "data"), -1);
  EXPECT_TRUE(cap.contains("ERROR"));
  EXPECT_EQ(test::readFile(dir / "mellosound.ini"), "vendor=1\n");
}

TEST(Protocol, NamesResolveExceptTheRisingWhitestarVariant) {
  test::LogCapture cap;
  EXPECT_EQ(getProtocolFromString("WPCDCS"), WPCDCS);
  EXPECT_EQ(getProtocolFromString("WHITESTAR"), WHITESTAR);
  EXPECT_EQ(getProtocolFromString("wpc"), DATAEAST);
  EXPECT_EQ(getProtocolFromString("WHITESTAR_X"), DATAEAST);
  EXPECT_EQ(getProtocolFromString(nullptr), DATAEAST);
  EXPECT_TRUE(cap.contains("invalid protocol name 'WHITESTAR_X\n"));
}

}  // namespace
