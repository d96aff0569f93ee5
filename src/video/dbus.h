// Control of the external video player over D-Bus: method calls to one of two player
// instances ("org.mpris.MediaPlayer2.omxplayer" and "...omxplayer2") on the private bus
// the player announces in its address files, and the cross-fade ("blend") between them.
//
// When the address files are absent (current Raspberry Pi OS ships another player), the
// first MPRIS player found on the session bus is used for the standard MPRIS calls
// (Pause, Stop, SetPosition, OpenUri, the properties); the player's own extensions
// (Action codes other than pause and stop, FadeIn, FadeOut) are refused with an ERROR
// line. The choice is logged when it changes.
//
// Threads: any thread (Lua runs on the main, HTTP and event threads). Every call opens
// and closes its own private connection; the current instance and the chosen fallback
// player are guarded by a mutex that is never held during a call. No process
// environment is read after construction or written at all.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace korvo {

class VideoPlayer {
 public:
  static constexpr int kReplyTimeoutMs = 200;
  static constexpr const char* omxdest[2] = {"org.mpris.MediaPlayer2.omxplayer",
                                             "org.mpris.MediaPlayer2.omxplayer2"};
  static constexpr const char* omxpath = "/org/mpris/MediaPlayer2";
  static constexpr const char* omxIName = "org.mpris.MediaPlayer2.Player";
  static constexpr const char* kPropertiesIName = "org.freedesktop.DBus.Properties";

  // The first reply argument of a call.
  struct CallResult {
    bool hasValue = false;
    std::string text;   // a string reply
    int64_t number = 0; // an integer reply
  };

  // `baseDir`: the sound base directory (videos are in "video" beside it). `tmpDir`:
  // where the player writes its address files. `sessionBusAddress`: the fallback bus
  // (the daemon passes DBUS_SESSION_BUS_ADDRESS; empty = no fallback).
  VideoPlayer(const std::string& baseDir, std::string tmpDir = "/tmp", std::string sessionBusAddress = "");

  void omxPlayerPause();
  void omxPlayerStop();
  void omxPlayerAction(int n);
  void omxPlayerSetPosition(long pos) { omxPlayerSetPositionI(currentPlayer(), pos); }
  void omxPlayerSetPositionI(int player, long pos);
  void omxPlayerSetFadeIn(long ms) { omxPlayerSetFadeInI(currentPlayer(), ms); }
  void omxPlayerSetFadeInI(int player, long ms);
  void omxPlayerSetFadeOut(long ms) { omxPlayerSetFadeOutI(currentPlayer(), ms); }
  void omxPlayerSetFadeOutI(int player, long ms);
  void omxPlayerOpenUri(const std::string& file) { omxPlayerOpenUriI(currentPlayer(), file); }
  void omxPlayerOpenUriI(int player, const std::string& file);
  // 1 unless the status text is "Paused" (0 also when the call failed).
  int omxGetStatus();
  // The position reported by the player, 0 when the call failed.
  long omxGetPos();
  // The other instance opens `file`, then after one second fades in over `ms` while the
  // current one fades out; the other instance becomes current. Blocks the caller for
  // that second (on the platform clock).
  void omxPlayerOpenUriBlend(const std::string& file, long ms);

  // One method call: 0 on success (result filled when the reply has an argument), -1
  // on any failure (ERROR line).
  int omxPlayerCall(CallResult* result, int player, const char* interface, const char* method,
                    const std::vector<std::string>& args);

  int currentPlayer() const;
  const std::string& videoBase() const { return videoBase_; }

 private:
  // Where the call goes: the announced private bus, or the fallback session bus.
  struct Target {
    std::string address;
    std::string destination;
    bool fallback = false;
  };
  bool findTarget(int player, Target& target);
  std::string getAddress() const;
  std::string getPid() const;
  // The first org.mpris.MediaPlayer2.* name on the session bus; empty when none.
  std::string findMprisPlayer();
  // Standard MPRIS name of an Action code the fallback player understands, else null.
  static const char* standardAction(int n);

  const std::string tmpDir_;
  const std::string sessionBusAddress_;
  std::string videoBase_;
  mutable std::mutex mutex_;  // guards the two below; never held during a call
  int currentPlayer_ = 0;
  std::string fallbackName_;
};

}  // namespace korvo
