// Video player control against a small MPRIS player on a private dbus-daemon, and the
// "type:value" argument encoding on its own.
#include <gtest/gtest.h>

#include <unistd.h>

#include "platform/clock.h"
#include "support/testutil.h"
#include "video/dbus.h"
#include "video/dbus_args.h"
#include "video/mpris_player.h"

namespace korvo::test {
namespace {

class Video : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(daemon.address().empty()) << "dbus-daemon did not start"; }
  void TearDown() override { clock::useRealClock(); }

  // The address files the omx player writes at its start.
  void announce() {
    writeFile(tmp / "omxplayerdbus.root", daemon.address() + "\n");
    writeFile(tmp / "omxplayerdbus.root.pid", std::to_string(daemon.pid()) + "\n");
  }

  TempDir tmp;
  DbusDaemon daemon{tmp.str()};
};

TEST_F(Video, EveryOperationReachesThePlayerWithItsArguments) {
  announce();
  MprisPlayer player(daemon.address(), VideoPlayer::omxdest[0]);
  ASSERT_TRUE(player.ready());
  VideoPlayer video("/opt/korvo/sets/", tmp.str());
  EXPECT_EQ(video.videoBase(), "/opt/korvo/video");

  video.omxPlayerPause();
  video.omxPlayerStop();
  video.omxPlayerAction(3);
  video.omxPlayerSetPosition(5000);
  video.omxPlayerSetFadeIn(300);
  video.omxPlayerSetFadeOut(400);
  video.omxPlayerOpenUri("intro.mp4");
  player.setPosition(1234);
  EXPECT_EQ(video.omxGetPos(), 1234);
  EXPECT_EQ(video.omxGetStatus(), 1);
  player.setStatus("Paused");
  EXPECT_EQ(video.omxGetStatus(), 0);
  player.setStatus("Stopped");
  EXPECT_EQ(video.omxGetStatus(), 1);

  const std::vector<std::string> expected = {
      "Action int32:16",
      "Action int32:15",
      "Action int32:3",
      "SetPosition objpath:/not/used int64:5000",
      "FadeIn objpath:/not/used int64:300",
      "FadeOut objpath:/not/used int64:400",
      "OpenUri string:/opt/korvo/video/intro.mp4",
      "Get string:org.mpris.MediaPlayer2.Player string:Position",
      "Get string:org.mpris.MediaPlayer2.Player string:PlaybackStatus",
      "Get string:org.mpris.MediaPlayer2.Player string:PlaybackStatus",
      "Get string:org.mpris.MediaPlayer2.Player string:PlaybackStatus",
  };
  EXPECT_EQ(player.calls(), expected);
}

TEST_F(Video, BlendCrossFadesToTheOtherInstance) {
  announce();
  MprisPlayer first(daemon.address(), VideoPlayer::omxdest[0]);
  MprisPlayer second(daemon.address(), VideoPlayer::omxdest[1]);
  ASSERT_TRUE(first.ready() && second.ready());
  VideoPlayer video("/media/sets", tmp.str());
  // The one-second pause between opening and fading passes on the manual clock.
  clock::useManualClock(0);
  video.omxPlayerOpenUriBlend("b.mp4", 500);
  EXPECT_EQ(video.currentPlayer(), 1);
  EXPECT_GE(millis(), 1000u);
  EXPECT_EQ(second.calls(), (std::vector<std::string>{"OpenUri string:/media/video/b.mp4",
                                                      "FadeIn objpath:/not/used int64:500"}));
  EXPECT_EQ(first.calls(), (std::vector<std::string>{"FadeOut objpath:/not/used int64:500"}));
  // Back again: the first instance is the other one now.
  video.omxPlayerOpenUriBlend("a.mp4", 100);
  EXPECT_EQ(video.currentPlayer(), 0);
  EXPECT_EQ(first.calls().size(), 3u);
}

TEST_F(Video, FailuresAreLoggedAndGettersReturnZero) {
  LogCapture cap;
  VideoPlayer video("/sets", tmp.str());
  // No address files and no session bus: nothing is sent.
  EXPECT_EQ(video.omxGetStatus(), 0);
  EXPECT_TRUE(cap.contains("cannot read omx player address or pid"));

  // The files name a bus on which the player is not running.
  announce();
  EXPECT_EQ(video.omxGetPos(), 0);
  EXPECT_TRUE(cap.contains("dbus_connection_send_with_reply_and_block: Error org.freedesktop.DBus.Error.ServiceUnknown"));

  // A player that answers too late: the call gives up after 200 ms.
  MprisPlayer slow(daemon.address(), VideoPlayer::omxdest[0]);
  ASSERT_TRUE(slow.ready());
  slow.setReplyDelayMs(1500);
  slow.setPosition(77);
  EXPECT_EQ(video.omxGetPos(), 0);
  EXPECT_TRUE(cap.contains("dbus_connection_send_with_reply_and_block: Error org.freedesktop.DBus.Error.NoReply"));

  // A bus address that leads nowhere.
  writeFile(tmp / "omxplayerdbus.root", "unix:path=" + tmp.str() + "/nothing-here\n");
  video.omxPlayerStop();
  EXPECT_TRUE(cap.contains("dbus_bus_get: Error "));

  // Instance numbers other than 0 and 1, and malformed arguments.
  EXPECT_EQ(video.omxPlayerCall(nullptr, 2, VideoPlayer::omxIName, "Action", {"int32:1"}), -1);
  announce();
  EXPECT_EQ(video.omxPlayerCall(nullptr, 0, VideoPlayer::omxIName, "Action", {"int32:x"}), -1);
  EXPECT_TRUE(cap.contains("omxPlayerCall: Data item \"x\" is badly formed"));
}

TEST_F(Video, WithoutTheFilesAnyMprisPlayerOnTheSessionBusIsUsed) {
  MprisPlayer mpv(daemon.address(), "org.mpris.MediaPlayer2.mpv", true);
  ASSERT_TRUE(mpv.ready());
  LogCapture cap;
  VideoPlayer video("/sets", tmp.str(), daemon.address());
  video.omxPlayerPause();
  EXPECT_TRUE(cap.contains("using MPRIS player org.mpris.MediaPlayer2.mpv on the session bus"));
  video.omxPlayerStop();
  video.omxPlayerOpenUri("x.mp4");
  mpv.setStatus("Paused");
  EXPECT_EQ(video.omxGetStatus(), 0);
  mpv.setPosition(42);
  EXPECT_EQ(video.omxGetPos(), 42);
  // The omx player's own calls are not standard MPRIS: refused, not sent.
  video.omxPlayerSetFadeIn(100);
  video.omxPlayerAction(7);
  EXPECT_TRUE(cap.contains("MPRIS player org.mpris.MediaPlayer2.mpv has no 'FadeIn' call"));
  EXPECT_EQ(mpv.calls(), (std::vector<std::string>{
                             "Pause", "Stop", "OpenUri string:/video/x.mp4",
                             "Get string:org.mpris.MediaPlayer2.Player string:PlaybackStatus",
                             "Get string:org.mpris.MediaPlayer2.Player string:Position"}));
}

// ---- argument encoding ----

struct Encoded {
  bool ok;
  std::string signature;
};

Encoded encode(const std::vector<std::string>& args) {
  DBusMessage* msg = dbus_message_new_method_call("a.b", "/a", "a.b", "M");
  const bool ok = addArgsFromList(msg, args);
  Encoded e{ok, dbus_message_get_signature(msg)};
  dbus_message_unref(msg);
  return e;
}

TEST(VideoArgs, TypesAndContainersOfTheDbusSendSyntax) {
  const Encoded all = encode({"string:a b", "int16:-3", "uint16:3", "int32:0x10", "uint32:7", "int64:-1",
                              "uint64:18446744073709551615", "double:1.5", "byte:255", "boolean:true",
                              "objpath:/a/b", "variant:int32:5", "array:string:a,b,c", "dict:string:int32:k,1,l,2"});
  EXPECT_TRUE(all.ok);
  EXPECT_EQ(all.signature, "snqiuxtdybovasa{si}");
  EXPECT_EQ(type_from_name("objpath"), DBUS_TYPE_OBJECT_PATH);
  EXPECT_EQ(type_from_name("array"), DBUS_TYPE_INVALID);
}

TEST(VideoArgs, MalformedArgumentsAreRefusedWithTheirLine) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"boolean:yes", "omxPlayerCall: Expected \"true\" or \"false\" instead of \"yes\""},
      {"dict:string:int32:k,1,l", "omxPlayerCall: Malformed dictionary"},
      {"float:1", "omxPlayerCall: Unknown type \"float\""},
      {"array:variant:1", "omxPlayerCall: Unknown type \"variant\""},
      {"int32", "omxPlayerCall: Data item \"int32\" is badly formed"},
      {"int16:70000", "omxPlayerCall: Data item \"70000\" is badly formed"},
      {"objpath:not/a/path", "omxPlayerCall: Data item \"not/a/path\" is badly formed"},
      {"string:\xff\xfe", "is badly formed"},
      {"variant:int32", "omxPlayerCall: Data item \"variant:int32\" is badly formed"},
      {"byte:256", "is badly formed"},
  };
  for (const auto& [arg, line] : cases) {
    LogCapture cap;
    EXPECT_FALSE(encode({"int32:1", arg}).ok) << arg;
    EXPECT_TRUE(cap.contains(line)) << arg << "\n" << cap.text();
  }
}

}  // namespace
}  // namespace korvo::test
