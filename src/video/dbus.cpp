#include "video/dbus.h"

#include <dbus/dbus.h>

#include <cstdlib>
#include <cstring>

#include "base/handles.h"
#include "base/log.h"
#include "platform/clock.h"
#include "video/dbus_args.h"

namespace korvo {

namespace {

void closePrivateConnection(DBusConnection* c) {
  dbus_connection_close(c);
  dbus_connection_unref(c);
}
using ConnectionHandle = Handle<DBusConnection, closePrivateConnection>;
using MessageHandle = Handle<DBusMessage, dbus_message_unref>;

// A DBusError that frees itself.
struct Error {
  DBusError e;
  Error() { dbus_error_init(&e); }
  ~Error() { dbus_error_free(&e); }
  Error(const Error&) = delete;
  Error& operator=(const Error&) = delete;
  bool set() const { return dbus_error_is_set(&e); }
};

constexpr const char* kMprisPrefix = "org.mpris.MediaPlayer2.";

std::string firstLine(const std::string& path) {
  FileHandle f(std::fopen(path.c_str(), "r"));
  if (!f) return {};
  char buf[1024];
  if (!std::fgets(buf, sizeof buf, f.get())) return {};
  buf[std::strcspn(buf, "\r\n")] = '\0';
  return buf;
}

// A private connection to `address`, registered on its bus; null with an ERROR line.
ConnectionHandle connectTo(const std::string& address) {
  Error err;
  ConnectionHandle conn(dbus_connection_open_private(address.c_str(), &err.e));
  if (!conn || err.set()) {
    if (err.set())
      LOG(LEVEL_ERROR, "dbus_bus_get: Error %s: %s", err.e.name, err.e.message);
    else
      LOG(LEVEL_ERROR, "dbus connection failed: %s", address.c_str());
    return nullptr;
  }
  dbus_connection_set_exit_on_disconnect(conn.get(), FALSE);
  if (!dbus_bus_register(conn.get(), &err.e)) {
    LOG(LEVEL_ERROR, "dbus_bus_get: Error %s: %s", err.e.name, err.e.message);
    return nullptr;
  }
  return conn;
}

// Reads the first reply argument (inside a variant, as standard property replies are).
void readResult(DBusMessage* reply, VideoPlayer::CallResult* result) {
  DBusMessageIter iter;
  if (!dbus_message_iter_init(reply, &iter)) return;
  DBusMessageIter inner;
  if (dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_VARIANT) {
    dbus_message_iter_recurse(&iter, &inner);
    iter = inner;
  }
  VideoPlayer::CallResult r;
  switch (dbus_message_iter_get_arg_type(&iter)) {
    case DBUS_TYPE_STRING: {
      const char* s = nullptr;
      dbus_message_iter_get_basic(&iter, &s);
      LOG(LEVEL_DEBUG, "dbus result: (string)%s", s);
      r.text = s ? s : "";
      r.hasValue = true;
      break;
    }
    case DBUS_TYPE_INT64: {
      dbus_int64_t v = 0;
      dbus_message_iter_get_basic(&iter, &v);
      LOG(LEVEL_DEBUG, "dbus result: (long)%ld", static_cast<long>(v));
      r.number = v;
      r.hasValue = true;
      break;
    }
    case DBUS_TYPE_INT32: {
      dbus_int32_t v = 0;
      dbus_message_iter_get_basic(&iter, &v);
      LOG(LEVEL_DEBUG, "dbus result: (int)%d", v);
      r.number = v;
      r.hasValue = true;
      break;
    }
    default:
      return;
  }
  if (result) *result = std::move(r);
}

bool isExtension(const char* method) {
  return std::strcmp(method, "FadeIn") == 0 || std::strcmp(method, "FadeOut") == 0;
}

}  // namespace

VideoPlayer::VideoPlayer(const std::string& baseDir, std::string tmpDir, std::string sessionBusAddress)
    : tmpDir_(std::move(tmpDir)), sessionBusAddress_(std::move(sessionBusAddress)) {
  dbus_threads_init_default();
  std::string base = baseDir;
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  const std::size_t slash = base.find_last_of('/');
  std::string parent = slash == std::string::npos ? "." : base.substr(0, slash);
  videoBase_ = parent + "/video";
  LOG(LEVEL_DEBUG, "baseDir: %s, videoBase: %s", baseDir.c_str(), videoBase_.c_str());
}

int VideoPlayer::currentPlayer() const {
  std::lock_guard lk(mutex_);
  return currentPlayer_;
}

std::string VideoPlayer::getAddress() const {
  std::string a = firstLine(tmpDir_ + "/omxplayerdbus.root");
  if (a.empty()) a = firstLine(tmpDir_ + "/omxplayerdbus.pi");
  if (!a.empty()) LOG(LEVEL_DEBUG, "omx dbus address: %s", a.c_str());
  return a;
}

std::string VideoPlayer::getPid() const {
  std::string p = firstLine(tmpDir_ + "/omxplayerdbus.root.pid");
  if (p.empty()) p = firstLine(tmpDir_ + "/omxplayerdbus.pi.pid");
  if (!p.empty()) LOG(LEVEL_DEBUG, "omx dbus pid: %s", p.c_str());
  return p;
}

std::string VideoPlayer::findMprisPlayer() {
  ConnectionHandle conn = connectTo(sessionBusAddress_);
  if (!conn) return {};
  MessageHandle msg(dbus_message_new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 "org.freedesktop.DBus", "ListNames"));
  if (!msg) return {};
  Error err;
  MessageHandle reply(
      dbus_connection_send_with_reply_and_block(conn.get(), msg.get(), kReplyTimeoutMs, &err.e));
  if (!reply) {
    LOG(LEVEL_ERROR, "dbus_connection_send_with_reply_and_block: Error %s: %s", err.e.name, err.e.message);
    return {};
  }
  DBusMessageIter iter, names;
  if (!dbus_message_iter_init(reply.get(), &iter) || dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_ARRAY)
    return {};
  for (dbus_message_iter_recurse(&iter, &names); dbus_message_iter_get_arg_type(&names) == DBUS_TYPE_STRING;
       dbus_message_iter_next(&names)) {
    const char* name = nullptr;
    dbus_message_iter_get_basic(&names, &name);
    if (name && std::strncmp(name, kMprisPrefix, std::strlen(kMprisPrefix)) == 0) return name;
  }
  return {};
}

bool VideoPlayer::findTarget(int player, Target& target) {
  target.address = getAddress();
  const std::string pid = getPid();
  if (!target.address.empty() && !pid.empty()) {
    target.destination = omxdest[player];
    return true;
  }
  std::string name = sessionBusAddress_.empty() ? std::string() : findMprisPlayer();
  bool changed = false;
  {
    std::lock_guard lk(mutex_);
    changed = name != fallbackName_;
    fallbackName_ = name;
  }
  if (name.empty()) {
    LOG(LEVEL_ERROR, "cannot read omx player address or pid");
    return false;
  }
  if (changed) LOG(LEVEL_INFO, "no omx player address files in %s, using MPRIS player %s on the session bus",
                   tmpDir_.c_str(), name.c_str());
  target = Target{sessionBusAddress_, name, true};
  return true;
}

const char* VideoPlayer::standardAction(int n) {
  if (n == 16) return "Pause";
  if (n == 15) return "Stop";
  return nullptr;
}

int VideoPlayer::omxPlayerCall(CallResult* result, int player, const char* interface, const char* method,
                               const std::vector<std::string>& args) {
  if (player != 0 && player != 1) {
    LOG(LEVEL_ERROR, "no video player instance %d", player);
    return -1;
  }
  Target target;
  if (!findTarget(player, target)) return -1;
  std::vector<std::string> sendArgs = args;
  if (target.fallback && std::strcmp(interface, omxIName) == 0) {
    // The fallback player speaks standard MPRIS only.
    const char* standard = nullptr;
    if (std::strcmp(method, "Action") == 0 && args.size() == 1 && args[0].rfind("int32:", 0) == 0)
      standard = standardAction(std::atoi(args[0].c_str() + 6));
    if (standard) {
      method = standard;
      sendArgs.clear();
    } else if (isExtension(method) || std::strcmp(method, "Action") == 0) {
      LOG(LEVEL_ERROR, "MPRIS player %s has no '%s' call for %s, not sent", target.destination.c_str(), method,
          args.empty() ? "" : args[0].c_str());
      return -1;
    }
  }
  ConnectionHandle conn = connectTo(target.address);
  if (!conn) return -1;
  MessageHandle msg(dbus_message_new_method_call(target.destination.c_str(), omxpath, interface, method));
  if (!msg) {
    LOG(LEVEL_ERROR, "could not create dbus message for call");
    return -1;
  }
  dbus_message_set_auto_start(msg.get(), TRUE);
  LOG(LEVEL_DEBUG, "sending: player=%d, dest='%s' path='%s' name='%s' method='%s' ", player,
      target.destination.c_str(), omxpath, interface, method);
  if (!addArgsFromList(msg.get(), sendArgs)) return -1;
  Error err;
  MessageHandle reply(
      dbus_connection_send_with_reply_and_block(conn.get(), msg.get(), kReplyTimeoutMs, &err.e));
  if (!reply) {
    LOG(LEVEL_ERROR, "dbus_connection_send_with_reply_and_block: Error %s: %s", err.e.name, err.e.message);
    return -1;
  }
  readResult(reply.get(), result);
  return 0;
}

void VideoPlayer::omxPlayerPause() { omxPlayerCall(nullptr, currentPlayer(), omxIName, "Action", {"int32:16"}); }

void VideoPlayer::omxPlayerStop() { omxPlayerCall(nullptr, currentPlayer(), omxIName, "Action", {"int32:15"}); }

void VideoPlayer::omxPlayerAction(int n) {
  omxPlayerCall(nullptr, currentPlayer(), omxIName, "Action", {"int32:" + std::to_string(n)});
}

void VideoPlayer::omxPlayerSetPositionI(int player, long pos) {
  omxPlayerCall(nullptr, player, omxIName, "SetPosition", {"objpath:/not/used", "int64:" + std::to_string(pos)});
}

void VideoPlayer::omxPlayerSetFadeInI(int player, long ms) {
  omxPlayerCall(nullptr, player, omxIName, "FadeIn", {"objpath:/not/used", "int64:" + std::to_string(ms)});
}

void VideoPlayer::omxPlayerSetFadeOutI(int player, long ms) {
  omxPlayerCall(nullptr, player, omxIName, "FadeOut", {"objpath:/not/used", "int64:" + std::to_string(ms)});
}

void VideoPlayer::omxPlayerOpenUriI(int player, const std::string& file) {
  omxPlayerCall(nullptr, player, omxIName, "OpenUri", {"string:" + videoBase_ + "/" + file});
}

int VideoPlayer::omxGetStatus() {
  CallResult r;
  if (omxPlayerCall(&r, currentPlayer(), kPropertiesIName, "Get",
                    {"string:org.mpris.MediaPlayer2.Player", "string:PlaybackStatus"}) != 0 ||
      !r.hasValue)
    return 0;
  return r.text != "Paused" ? 1 : 0;
}

long VideoPlayer::omxGetPos() {
  CallResult r;
  if (omxPlayerCall(&r, currentPlayer(), kPropertiesIName, "Get",
                    {"string:org.mpris.MediaPlayer2.Player", "string:Position"}) != 0)
    return 0;
  return static_cast<long>(r.number);
}

void VideoPlayer::omxPlayerOpenUriBlend(const std::string& file, long ms) {
  const int current = currentPlayer();
  const int other = 1 - current;
  omxPlayerOpenUriI(other, file);
  delayMicroseconds(1000000);
  omxPlayerSetFadeInI(other, ms);
  omxPlayerSetFadeOutI(current, ms);
  std::lock_guard lk(mutex_);
  currentPlayer_ = other;
}

}  // namespace korvo
