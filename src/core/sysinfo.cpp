#include "core/sysinfo.h"

#include <cstdio>
#include <cstring>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

std::string readBoardModel(const std::string& path) {
  FileHandle f(fopen(path.c_str(), "r"));
  if (!f) return "unknown";
  char line[256] = {};
  std::string model = "unknown";
  // The device-tree string ends with a NUL rather than a newline.
  if (fgets(line, sizeof line, f.get())) {
    line[strcspn(line, "\r\n")] = '\0';
    if (line[0]) model = line;
  }
  return model;
}

unsigned readBoardSerial(const std::string& cpuinfo, const std::string& ethAddress) {
  if (FileHandle f{fopen(cpuinfo.c_str(), "r")}) {
    char line[512];
    while (fgets(line, sizeof line, f.get())) {
      if (!startsWithMatchCase(line, "Serial")) continue;
      const char* colon = strchr(line, ':');
      unsigned long long v = 0;
      if (colon && sscanf(colon + 1, "%llx", &v) == 1) return static_cast<unsigned>(v);
    }
  }
  std::string mac;
  if (readWholeFile(ethAddress, mac)) {
    unsigned b[6];
    if (sscanf(mac.c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) == 6)
      return (b[2] << 24) | (b[3] << 16) | (b[4] << 8) | b[5];
  }
  return 0;
}

void dumpEnvironment(char** envp) {
  LOG(LEVEL_INFO, "Dumping process environment");
  for (char** e = envp; e && *e; ++e) LOG(LEVEL_INFO, "%.120s", *e);
}

int dumpFile(const std::string& path) {
  FileHandle f(fopen(path.c_str(), "r"));
  if (!f) return 0;
  char line[1024];
  while (fgets(line, sizeof line, f.get())) {
    line[strcspn(line, "\r\n")] = '\0';
    LOG(LEVEL_DEBUG, "%s", line);
  }
  return 1;
}

void dumpAudioDevices(const std::string& root) {
  LOG(LEVEL_DEBUG, "Alsa sound info (%s/cards)", root.c_str());
  dumpFile(root + "/cards");
  for (int card = 0; isDirectory(strFormat("%s/card%d", root.c_str(), card)); ++card) {
    for (int pcm = 0;; ++pcm) {
      std::string info = strFormat("%s/card%d/pcm%dp/info", root.c_str(), card, pcm);
      if (!fileExists(info)) break;
      LOG(LEVEL_DEBUG, "Info for %s", info.c_str());
      dumpFile(info);
    }
  }
}

}  // namespace korvo
