// What the daemon learns about the board it runs on, and the diagnostic dumps.
#pragma once

#include <string>

namespace korvo {

// First line of the device-tree model file, "unknown" if unreadable.
std::string readBoardModel(const std::string& path = "/proc/device-tree/model");
// The board serial number: the hexadecimal "Serial" field of cpuinfo read as an
// unsigned number (its low 32 bits). Boards without one (and PCs) use the Ethernet
// address instead: its last four bytes as a big-endian number. 0 if neither exists.
unsigned readBoardSerial(const std::string& cpuinfo = "/proc/cpuinfo",
                         const std::string& ethAddress = "/sys/class/net/eth0/address");
void dumpEnvironment(char** envp);
// The ALSA cards, then each playback PCM's info file, at DEBUG.
void dumpAudioDevices(const std::string& root = "/proc/asound");
// Each line of the file (cut at CR/LF, 1024 bytes at most) at DEBUG; 0 if the file
// cannot be opened, 1 otherwise.
int dumpFile(const std::string& path);

}  // namespace korvo
