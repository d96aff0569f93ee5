#include "web/netinfo.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "web/net_tools.h"
#include "web/ops_handlers.h"
#include "web/responses.h"
#include "web/web_context.h"

namespace korvo {

const char* const validCountries[kValidCountryCount] = {"DE", "GB", "FR", "US", "SE", "JP"};

namespace {

constexpr char kNoIp[] = "NOIP";
constexpr char kBootConf[] = "/boot/wpa_supplicant.conf";
constexpr char kEtcConf[] = "/etc/wpa_supplicant/wpa_supplicant.conf";
constexpr char kHostnameFile[] = "/etc/hostname";
// The profile korvo keeps for the network joined from the web UI.
constexpr char kNmConnection[] = "korvo-wifi";

void addUnique(std::vector<std::string>& names, std::string name) {
  if (names.size() < kMaxWifiNetworks && std::find(names.begin(), names.end(), name) == names.end())
    names.push_back(std::move(name));
}

std::vector<std::string_view> lines(std::string_view text) {
  std::vector<std::string_view> out;
  while (!text.empty()) {
    auto nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    out.push_back(line);
    if (nl == std::string_view::npos) break;
    text.remove_prefix(nl + 1);
  }
  return out;
}

// The key wpa_passphrase derived ("psk=<64 hex>"), empty when its output has none.
std::string derivedKey(std::string_view toolOutput) {
  for (std::string_view line : lines(toolOutput)) {
    line = trim(line);
    if (line.starts_with("psk=")) return std::string(line.substr(4));
  }
  return {};
}

// Replaces `link` by a symbolic link to `target` in one rename.
bool replaceBySymlink(const std::string& link, const std::string& target) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(link).parent_path(), ec);
  const std::string tmp = link + ".korvo-link";
  unlink(tmp.c_str());
  if (symlink(target.c_str(), tmp.c_str()) != 0 || rename(tmp.c_str(), link.c_str()) != 0) {
    LOG(LEVEL_ERROR, "cannot link %s to %s: %s", link.c_str(), target.c_str(), strerror(errno));
    unlink(tmp.c_str());
    return false;
  }
  syncDirectoryOf(link);
  return true;
}

int setWifiWithSupplicantFiles(const NetSystem& sys, const std::string& passphraseOutput,
                               const std::string& country) {
  const std::string boot = sys.path(kBootConf);
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(boot).parent_path(), ec);
  if (writeFileAtomic(boot, makeWpaSupplicantConf(passphraseOutput, country)) != 0) return 1;
  return replaceBySymlink(sys.path(kEtcConf), kBootConf) ? 0 : 1;
}

int setWifiWithNetworkManager(const std::string& ssid, const std::string& key) {
  // Deleting a profile that is not there fails harmlessly.
  runTool({"nmcli", "-t", "connection", "delete", "id", kNmConnection});
  ToolResult r = runTool({"nmcli", "-t", "connection", "add", "type", "wifi", "ifname", "wlan0", "con-name",
                          kNmConnection, "ssid", ssid, "wifi-sec.key-mgmt", "wpa-psk", "wifi-sec.psk", key,
                          "connection.autoconnect", "yes"});
  if (!r.ok()) {
    LOG(LEVEL_ERROR, "nmcli could not store the Wi-Fi network");
    return 1;
  }
  return 0;
}

}  // namespace

NetSystem NetSystem::detect(const std::string& rootPrefix) {
  NetSystem sys;
  sys.rootPrefix = rootPrefix;
  sys.networkManager = networkManagerRunning();
  return sys;
}

std::string NetSystem::path(std::string_view systemPath) const { return underRoot(rootPrefix, systemPath); }

std::vector<NetworkInterface> queryNetworks() {
  std::vector<NetworkInterface> out;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    LOG(LEVEL_ERROR, "cannot list network interfaces: %s", strerror(errno));
    return out;
  }
  const Handle<ifaddrs, ::freeifaddrs> owned(list);
  for (ifaddrs* a = list; a; a = a->ifa_next) {
    auto it = std::find_if(out.begin(), out.end(), [&](const auto& n) { return n.name == a->ifa_name; });
    if (it == out.end()) {
      if (out.size() >= kMaxNetworks) continue;
      it = out.insert(out.end(), NetworkInterface{a->ifa_name, kNoIp});
    }
    if (a->ifa_addr && a->ifa_addr->sa_family == AF_INET && it->ip == kNoIp) {
      char text[INET_ADDRSTRLEN] = {};
      inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr, text, sizeof text);
      it->ip = text;
    }
  }
  LOG(LEVEL_DEBUG, "Net-Interfaces found:");
  for (const auto& n : out) LOG(LEVEL_DEBUG, "Net: %s: %s", n.name.c_str(), n.ip.c_str());
  return out;
}

int getWifiNetwork(const std::vector<NetworkInterface>& networks) {
  for (std::size_t i = 0; i < networks.size(); ++i)
    if (networks[i].name.starts_with("wlan") && networks[i].ip != kNoIp) return static_cast<int>(i);
  return -1;
}

std::vector<std::string> parseIwlistScan(std::string_view text) {
  static constexpr std::string_view kEssid = "ESSID:\"";
  std::vector<std::string> names;
  for (std::string_view line : lines(text)) {
    auto pos = line.find(kEssid);
    if (pos == std::string_view::npos) continue;
    std::string_view rest = line.substr(pos + kEssid.size());
    auto close = rest.find('"');
    if (close == std::string_view::npos) continue;
    std::string_view name = rest.substr(0, close);
    // Hidden networks: empty, or the tool's "\x00" escapes.
    if (name.empty() || name.starts_with("\\x00")) continue;
    addUnique(names, std::string(name));
  }
  return names;
}

std::vector<std::string> parseNmcliSsids(std::string_view text) {
  std::vector<std::string> names;
  for (std::string_view line : lines(text)) {
    // Terse mode escapes ':' and '\' with a backslash.
    std::string name;
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '\\' && i + 1 < line.size()) ++i;
      name.push_back(line[i]);
    }
    if (!name.empty()) addUnique(names, std::move(name));
  }
  return names;
}

std::vector<std::string> queryWifi(const NetSystem& sys) {
  ToolResult r = sys.networkManager
                     ? runTool({"nmcli", "-t", "-f", "SSID", "device", "wifi", "list", "--rescan", "yes"})
                     : runTool({"iwlist", "wlan0", "scan"});
  if (!r.started) return {};
  return sys.networkManager ? parseNmcliSsids(r.output) : parseIwlistScan(r.output);
}

const char* validateCountry(std::string_view code) {
  for (const char* c : validCountries)
    if (equalsIgnoreCase(code, c)) return c;
  LOG(LEVEL_WARN, "country param not valid, setting to default %s", validCountries[0]);
  return validCountries[0];
}

bool isHostnameValid(const char* name) {
  if (!name || !*name) return false;
  for (const char* p = name; *p; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (!std::isalnum(c) && c != '_' && c != '-') return false;
  }
  return true;
}

std::string makeWpaSupplicantConf(std::string_view toolOutput, const std::string& country) {
  std::string conf = "ctrl_interface=DIR=/var/run/wpa_supplicant GROUP=netdev\n";
  conf += "update_config=1\n";
  conf += "country=" + country + "\n";
  for (std::string_view line : lines(toolOutput)) {
    if (line.starts_with("# reading passphrase")) continue;  // its note when reading standard input
    if (line.find("#psk") != std::string_view::npos) {
      conf += "\tscan_ssid=1\n\t#psk=\"********\"\n";
      continue;
    }
    conf.append(line).push_back('\n');
  }
  return conf;
}

int setPasswdForWifi(const NetSystem& sys, const std::string& ssid, const std::string& passphrase,
                     const std::string& country) {
  // The passphrase goes in on standard input: it never shows in the process list.
  ToolResult r = runTool({"wpa_passphrase", ssid}, passphrase + "\n");
  const std::string key = derivedKey(r.output);
  if (!r.ok() || key.empty()) {
    LOG(LEVEL_ERROR, "wpa_passphrase failed, Wi-Fi settings unchanged");
    return 1;
  }
  if (sys.networkManager) return setWifiWithNetworkManager(ssid, key);
  return setWifiWithSupplicantFiles(sys, r.output, country);
}

std::string readHostname(const NetSystem& sys) {
  std::string text;
  if (sys.networkManager) {
    ToolResult r = runTool({"nmcli", "-t", "general", "hostname"});
    if (r.ok()) text = r.output;
  } else if (!readWholeFile(sys.path(kHostnameFile), text)) {
    LOG(LEVEL_ERROR, "cannot read %s", sys.path(kHostnameFile).c_str());
  }
  text = text.substr(0, text.find('\n'));
  trim_right(text);
  return text;
}

int writeHostname(const NetSystem& sys, const std::string& name) {
  if (sys.networkManager) {
    if (runTool({"nmcli", "-t", "general", "hostname", name}).ok()) return 0;
    LOG(LEVEL_ERROR, "nmcli could not set the hostname");
    return 1;
  }
  return writeFileAtomic(sys.path(kHostnameFile), name + "\n") == 0 ? 0 : 1;
}

// ---- handlers ----

namespace {

const char* argument(MHD_Connection* connection, const char* name) {
  return MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, name);
}

NetSystem currentSystem() { return NetSystem::detect(webContext().rootPrefix); }

}  // namespace

MHD_Result handleGetNetwork(MHD_Connection* connection, const char*, char*) {
  std::string json = "[";
  for (const auto& n : queryNetworks()) {
    if (json.size() > 1) json += ",";
    json += "{ \"name\": \"" + escape(n.name) + "\", \"ip\": \"" + n.ip + "\" }";
  }
  json += "]";
  return sendJsonResponse(connection, json);
}

MHD_Result handleGetWifi(MHD_Connection* connection, const char*, char*) {
  std::string json = "[";
  for (const auto& name : queryWifi(currentSystem())) {
    if (json.size() > 1) json += ",";
    json += "{ \"name\": \"" + escape(name) + "\" }";
  }
  json += "]";
  return sendJsonResponse(connection, json);
}

MHD_Result handleSetWifi(MHD_Connection* connection, const char*, char* buffer) {
  const char* sid = argument(connection, "sid");
  const char* passphrase = argument(connection, "passphrase");
  const char* country = argument(connection, "country");
  // At least 7 characters: the long-standing check, kept (the standard's minimum is 8 and
  // wpa_passphrase refuses shorter ones, leaving the settings unchanged).
  if (isEmptyString(sid) || !passphrase || strlen(passphrase) < 7 || !country)
    return failed(connection, buffer, "Wifi passphrase to short or no SID. Please retry.");
  const char* validCountry = validateCountry(country);
  LOG(LEVEL_INFO, "Setting Wifi to '%s', country='%s', setting passphrase to '.......'", sid, validCountry);
  // libmicrohttpd has already decoded the arguments once; decoding again would turn a
  // '+' of the passphrase into a blank.
  setPasswdForWifi(currentSystem(), sid, passphrase, validCountry);
  return success(connection, buffer, "Wifi passphrase was set. Please reboot.");
}

MHD_Result handleGetHostname(MHD_Connection* connection, const char*, char* buffer) {
  const std::string name = escape(readHostname(currentSystem()));
  snprintf(buffer, kWorkBufferSize, "{  \"hostname\": \"%s\" }", name.c_str());
  return sendJsonResponse(connection, buffer);
}

MHD_Result handleSetHostname(MHD_Connection* connection, const char*, char* buffer) {
  const char* name = argument(connection, "hostname");
  if (!isHostnameValid(name)) return failed(connection, buffer, "Hostname not valid. Please retry.");
  LOG(LEVEL_INFO, "Setting hostname to '%s'", name);
  if (writeHostname(currentSystem(), name) != 0) return failed(connection, buffer, "Hostname not valid. Please retry.");
  return success(connection, buffer, "Hostname set to '%s'. Please reboot.", name);
}

}  // namespace korvo
