// Network settings of the device: its interfaces and addresses, the visible Wi-Fi
// networks, joining a Wi-Fi network and the host name. Interfaces come from
// getifaddrs(). When NetworkManager runs, Wi-Fi and the host name go through `nmcli -t`;
// otherwise through "iwlist", "wpa_passphrase", the wpa_supplicant files and
// "/etc/hostname". All system paths are taken under a root prefix ("/" on the device)
// so tests run on a temporary tree. Changes take effect after a reboot.
//
// The Wi-Fi passphrase is never logged, never put on a command line and never written
// in clear text: wpa_passphrase gets it on its standard input and only the derived key
// is stored.
//
// Thread: the HTTP thread (the scans block it while the tools run).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace korvo {

constexpr std::size_t kMaxNetworks = 10;
constexpr std::size_t kMaxWifiNetworks = 30;
constexpr int kValidCountryCount = 6;
// Accepted Wi-Fi country codes; the first is the default.
extern const char* const validCountries[kValidCountryCount];

struct NetworkInterface {
  std::string name;
  std::string ip;  // IPv4 address text, "NOIP" when the interface has none
};

// Where the network settings live and how they are changed.
struct NetSystem {
  std::string rootPrefix = "/";
  bool networkManager = false;  // NetworkManager runs: use nmcli

  // Asks the running system (nmcli) which way applies.
  static NetSystem detect(const std::string& rootPrefix);
  std::string path(std::string_view systemPath) const;
};

// Up to kMaxNetworks interfaces in the order the system lists them. DEBUG
// "Net-Interfaces found:" and "Net: %s: %s" for each.
std::vector<NetworkInterface> queryNetworks();
// Index of the first interface named "wlan..." with an address, or -1.
int getWifiNetwork(const std::vector<NetworkInterface>& networks);

// Up to kMaxWifiNetworks visible network names (hidden ones left out, each name once).
std::vector<std::string> queryWifi(const NetSystem& sys);
// The names in the output of "iwlist wlan0 scan" / "nmcli -t -f SSID device wifi list".
std::vector<std::string> parseIwlistScan(std::string_view text);
std::vector<std::string> parseNmcliSsids(std::string_view text);

// The list entry equal to `code` ignoring case; otherwise WARN "country param not
// valid, setting to default %s" and "DE".
const char* validateCountry(std::string_view code);
// Letters, digits, '_' and '-' only (and not empty).
bool isHostnameValid(const char* name);

// Stores the network and its key for the next boot. 0 done, 1 nothing changed (the
// tool failed or a file could not be written; ERROR line).
int setPasswdForWifi(const NetSystem& sys, const std::string& ssid, const std::string& passphrase,
                     const std::string& country);
// The wpa_supplicant configuration for `country` built from wpa_passphrase's output:
// the clear-text "#psk" comment becomes "scan_ssid=1" and a placeholder comment.
std::string makeWpaSupplicantConf(std::string_view toolOutput, const std::string& country);

// The host name (first line, trailing white space removed); empty when unknown.
std::string readHostname(const NetSystem& sys);
// 0 written, 1 failed (ERROR line).
int writeHostname(const NetSystem& sys, const std::string& name);

}  // namespace korvo
