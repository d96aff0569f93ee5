// Network settings against a temporary root and the stand-in tools of tests/web/tools
// (nmcli, iwlist, wpa_passphrase), which log their arguments and read their answers
// from a data directory.
#include <sys/stat.h>

#include <cstdlib>

#include "web/net_tools.h"
#include "web/netinfo.h"
#include "web_fixture.h"

namespace korvo::test {
namespace {

class NetInfoTest : public WebFixture {
 protected:
  void SetUp() override {
    WebFixture::SetUp();
    root = dir.path() / "root";
    data = dir.path() / "tooldata";
    std::filesystem::create_directories(root / "etc");
    std::filesystem::create_directories(data);
    writeFile(root / "etc/hostname", "pinball\n");
    writeFile(data / "nm-hostname", "nm-box\n");
    writeFile(data / "iwlist.txt",
              "wlan0     Scan completed :\n"
              "          Cell 01 - Address: 00:11:22:33:44:55\n"
              "                    ESSID:\"home\"\n"
              "                    ESSID:\"\\x00\\x00\\x00\"\n"
              "                    ESSID:\"\"\n"
              "                    ESSID:\"broken\n"
              "                    ESSID:\"Cafe \\\"Ball\\\" \"\n"
              "                    ESSID:\"home\"\n"
              "                    ESSID:\"office\"\n");
    writeFile(data / "nmcli-ssids.txt", "home\n\nmy\\:net\nhome\nback\\\\slash\n");
    oldPath = getenv("PATH") ? getenv("PATH") : "";
    setenv("PATH", ((sourceDir() / "tests/web/tools").string() + ":" + oldPath).c_str(), 1);
    setenv("KORVO_TOOL_DATA", data.c_str(), 1);
    setenv("KORVO_TOOL_LOG", (data / "calls.log").c_str(), 1);
    unsetenv("KORVO_TEST_NM");
    ctx->rootPrefix = root.string();
    start();
  }
  void TearDown() override {
    WebFixture::TearDown();
    setenv("PATH", oldPath.c_str(), 1);
    unsetenv("KORVO_TOOL_DATA");
    unsetenv("KORVO_TOOL_LOG");
    unsetenv("KORVO_TEST_NM");
  }
  std::string calls() { return std::filesystem::exists(data / "calls.log") ? readFile(data / "calls.log") : ""; }

  std::filesystem::path root, data;
  std::string oldPath;
};

TEST(NetTools, RunsWithArgumentsAndInputKillsHangersAndReportsMissingTools) {
  ToolResult cat = runTool({"cat"}, "secret \"$(reboot)\"\n");
  EXPECT_TRUE(cat.ok());
  EXPECT_EQ(cat.output, "secret \"$(reboot)\"\n");  // no shell saw it

  ToolResult echo = runTool({"echo", "a b", ";", "c"});
  EXPECT_EQ(echo.output, "a b ; c\n");

  ToolResult hang = runTool({"sleep", "30"}, {}, 200);
  EXPECT_TRUE(hang.timedOut);
  EXPECT_FALSE(hang.ok());

  EXPECT_FALSE(runTool({"korvo-no-such-tool"}).started);
  EXPECT_EQ(runTool({"false"}).exitCode, 1);

  EXPECT_EQ(underRoot("/", "/etc/hostname"), "/etc/hostname");
  EXPECT_EQ(underRoot("/tmp/r/", "/etc/hostname"), "/tmp/r/etc/hostname");
}

TEST(NetInfo, ParsersValidatorsAndInterfaces) {
  EXPECT_EQ(parseNmcliSsids("a\n\nmy\\:net\na\n"), (std::vector<std::string>{"a", "my:net"}));
  std::string many;
  for (int i = 0; i < 40; ++i) many += "ESSID:\"n" + std::to_string(i) + "\"\n";
  EXPECT_EQ(parseIwlistScan(many).size(), kMaxWifiNetworks);

  EXPECT_STREQ(validateCountry("us"), "US");
  LogCapture log;
  EXPECT_STREQ(validateCountry("XX"), "DE");
  EXPECT_TRUE(log.contains("country param not valid, setting to default DE"));

  EXPECT_TRUE(isHostnameValid("my_box-1"));
  for (const char* bad : {"my.box", "", "a b", "x;reboot", "ü"}) EXPECT_FALSE(isHostnameValid(bad)) << bad;
  EXPECT_FALSE(isHostnameValid(nullptr));

  auto nets = queryNetworks();
  auto lo = std::find_if(nets.begin(), nets.end(), [](const auto& n) { return n.name == "lo"; });
  ASSERT_NE(lo, nets.end());
  EXPECT_EQ(lo->ip, "127.0.0.1");
  EXPECT_EQ(getWifiNetwork({{"eth0", "10.0.0.2"}, {"wlan0", "NOIP"}, {"wlan1", "10.0.0.3"}}), 2);
  EXPECT_EQ(getWifiNetwork({{"wlan0", "NOIP"}}), -1);
}

TEST_F(NetInfoTest, InterfacesAndScanWithoutNetworkManager) {
  EXPECT_NE(body("/network").find("{ \"name\": \"lo\", \"ip\": \"127.0.0.1\" }"), std::string::npos);
  EXPECT_EQ(body("/wifi"), "[{ \"name\": \"home\" },{ \"name\": \"Cafe \\\\\" },{ \"name\": \"office\" }]");
  EXPECT_NE(calls().find("iwlist wlan0 scan"), std::string::npos);
}

TEST_F(NetInfoTest, WifiJoinWritesTheSupplicantFilesWithoutTheClearPassphrase) {
  EXPECT_EQ(body("/setupWifi?sid=home&passphrase=abcdef&country=DE"),
            err("Wifi passphrase to short or no SID. Please retry."));
  EXPECT_EQ(body("/setupWifi?sid=&passphrase=abcdefgh&country=DE"),
            err("Wifi passphrase to short or no SID. Please retry."));
  EXPECT_EQ(body("/setupWifi?sid=home&passphrase=abcdefgh"), err("Wifi passphrase to short or no SID. Please retry."));
  // Seven characters pass the check; the tool itself refuses them and nothing changes.
  EXPECT_EQ(body("/setupWifi?sid=home&passphrase=abcdefg&country=DE"), ok("Wifi passphrase was set. Please reboot."));
  EXPECT_FALSE(std::filesystem::exists(root / "boot/wpa_supplicant.conf"));

  LogCapture log;
  EXPECT_EQ(body("/setupWifi?sid=my%20home&passphrase=s3cret%2B%22x%22&country=us"),
            ok("Wifi passphrase was set. Please reboot."));
  const std::string conf = readFile(root / "boot/wpa_supplicant.conf");
  EXPECT_EQ(conf.rfind("ctrl_interface=DIR=/var/run/wpa_supplicant GROUP=netdev\nupdate_config=1\ncountry=US\n", 0),
            0u);
  EXPECT_NE(conf.find("\tssid=\"my home\"\n\tscan_ssid=1\n\t#psk=\"********\"\n\tpsk="), std::string::npos);
  EXPECT_EQ(conf.find("s3cret"), std::string::npos);
  EXPECT_EQ(std::filesystem::read_symlink(root / "etc/wpa_supplicant/wpa_supplicant.conf"), "/boot/wpa_supplicant.conf");
  EXPECT_TRUE(log.contains("Setting Wifi to 'my home', country='US', setting passphrase to '.......'"));
  EXPECT_FALSE(log.contains("s3cret"));
  EXPECT_EQ(calls().find("s3cret"), std::string::npos);  // never on a command line

  EXPECT_EQ(body("/setupWifi?sid=home&passphrase=abcdefgh&country=XX"), ok("Wifi passphrase was set. Please reboot."));
  EXPECT_NE(readFile(root / "boot/wpa_supplicant.conf").find("country=DE\n"), std::string::npos);
}

TEST_F(NetInfoTest, HostnameFileUnderTheRoot) {
  EXPECT_EQ(body("/hostname"), "{  \"hostname\": \"pinball\" }");
  EXPECT_EQ(body("/hostnameX"), "{  \"hostname\": \"pinball\" }");
  EXPECT_EQ(body("/setHostname?hostname=my_box-1"), ok("Hostname set to 'my_box-1'. Please reboot."));
  EXPECT_EQ(readFile(root / "etc/hostname"), "my_box-1\n");
  EXPECT_EQ(body("/setHostname?hostname=my.box"), err("Hostname not valid. Please retry."));
  EXPECT_EQ(body("/setHostname"), err("Hostname not valid. Please retry."));
  EXPECT_EQ(body("/setHostname?hostname=../../x"), err("Hostname not valid. Please retry."));
  EXPECT_EQ(readFile(root / "etc/hostname"), "my_box-1\n");
  EXPECT_EQ(body("/hostname"), "{  \"hostname\": \"my_box-1\" }");
}

TEST_F(NetInfoTest, NetworkManagerTakesScanJoinAndHostname) {
  setenv("KORVO_TEST_NM", "running", 1);
  EXPECT_EQ(body("/wifi"), "[{ \"name\": \"home\" },{ \"name\": \"my:net\" },{ \"name\": \"back\\\\slash\" }]");

  EXPECT_EQ(body("/setupWifi?sid=home&passphrase=abcdefgh&country=DE"), ok("Wifi passphrase was set. Please reboot."));
  const std::string log = calls();
  EXPECT_NE(log.find("nmcli -t connection add type wifi ifname wlan0 con-name korvo-wifi ssid home "
                     "wifi-sec.key-mgmt wpa-psk wifi-sec.psk "),
            std::string::npos);
  EXPECT_EQ(log.find("abcdefgh"), std::string::npos);  // only the derived key is handed on
  EXPECT_FALSE(std::filesystem::exists(root / "boot/wpa_supplicant.conf"));

  EXPECT_EQ(body("/hostname"), "{  \"hostname\": \"nm-box\" }");
  EXPECT_EQ(body("/setHostname?hostname=stage-2"), ok("Hostname set to 'stage-2'. Please reboot."));
  EXPECT_EQ(readFile(data / "nm-hostname"), "stage-2\n");
  EXPECT_EQ(readFile(root / "etc/hostname"), "pinball\n");
}

}  // namespace
}  // namespace korvo::test
