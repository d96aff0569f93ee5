#include "video/mpris_player.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "base/handles.h"
#include "base/thread.h"

namespace korvo::test {

DbusDaemon::DbusDaemon(const std::string& dir) {
  int fds[2];
  if (::pipe(fds) != 0) return;
  const std::string listen = "--address=unix:path=" + dir + "/bus";
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(fds[1], STDOUT_FILENO);
    // Its complaint about the file limit of a container is noise here.
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0) ::dup2(null, STDERR_FILENO);
    ::close(fds[0]);
    ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--print-address", listen.c_str(),
             static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(fds[1]);
  FileHandle f(::fdopen(fds[0], "r"));
  char line[512] = {0};
  if (f && std::fgets(line, sizeof line, f.get())) {
    line[std::strcspn(line, "\n")] = '\0';
    address_ = line;
  }
}

DbusDaemon::~DbusDaemon() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  int status = 0;
  ::waitpid(pid_, &status, 0);
}

MprisPlayer::MprisPlayer(const std::string& address, const std::string& name, bool variantReplies)
    : variant_(variantReplies) {
  DBusError err;
  dbus_error_init(&err);
  conn_ = dbus_connection_open_private(address.c_str(), &err);
  if (conn_ && dbus_bus_register(conn_, &err) &&
      dbus_bus_request_name(conn_, name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, &err) ==
          DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER)
    ready_ = true;
  dbus_error_free(&err);
  if (ready_) thread_ = startThread("mpris", [this] { run(); });
}

MprisPlayer::~MprisPlayer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (conn_) {
    dbus_connection_close(conn_);
    dbus_connection_unref(conn_);
  }
}

void MprisPlayer::setStatus(const std::string& s) {
  std::lock_guard lk(m_);
  status_ = s;
}

std::vector<std::string> MprisPlayer::calls() {
  std::lock_guard lk(m_);
  return calls_;
}

void MprisPlayer::run() {
  while (!stop_) {
    dbus_connection_read_write(conn_, 20);
    while (DBusMessage* msg = dbus_connection_pop_message(conn_)) {
      if (dbus_message_get_type(msg) == DBUS_MESSAGE_TYPE_METHOD_CALL) answer(msg);
      dbus_message_unref(msg);
    }
  }
}

namespace {

std::string describeArgs(DBusMessage* msg) {
  std::string out;
  DBusMessageIter it;
  if (!dbus_message_iter_init(msg, &it)) return out;
  do {
    const int t = dbus_message_iter_get_arg_type(&it);
    out += " ";
    if (t == DBUS_TYPE_STRING || t == DBUS_TYPE_OBJECT_PATH) {
      const char* s = nullptr;
      dbus_message_iter_get_basic(&it, &s);
      out += std::string(t == DBUS_TYPE_STRING ? "string:" : "objpath:") + s;
    } else if (t == DBUS_TYPE_INT32 || t == DBUS_TYPE_INT64) {
      DBusBasicValue v{};
      dbus_message_iter_get_basic(&it, &v);
      out += t == DBUS_TYPE_INT32 ? "int32:" + std::to_string(v.i32) : "int64:" + std::to_string(v.i64);
    } else {
      out += std::string(1, static_cast<char>(t));
    }
  } while (dbus_message_iter_next(&it));
  return out;
}

}  // namespace

void MprisPlayer::answer(DBusMessage* msg) {
  const std::string method = dbus_message_get_member(msg);
  const std::string args = describeArgs(msg);
  std::string status;
  {
    std::lock_guard lk(m_);
    calls_.push_back(method + args);
    status = status_;
  }
  if (delayMs_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs_.load()));
  DBusMessage* reply = dbus_message_new_method_return(msg);
  DBusMessageIter it, inner;
  dbus_message_iter_init_append(reply, &it);
  // The omx player answers a property with the plain value, the standard way is a variant.
  auto append = [&](int type, const char* signature, const void* value) {
    if (!variant_) {
      dbus_message_iter_append_basic(&it, type, value);
      return;
    }
    dbus_message_iter_open_container(&it, DBUS_TYPE_VARIANT, signature, &inner);
    dbus_message_iter_append_basic(&inner, type, value);
    dbus_message_iter_close_container(&it, &inner);
  };
  const char* s = status.c_str();
  const dbus_int64_t p = position_;
  if (method == "Get" && args.find("PlaybackStatus") != std::string::npos) append(DBUS_TYPE_STRING, "s", &s);
  if (method == "Get" && args.find("Position") != std::string::npos) append(DBUS_TYPE_INT64, "x", &p);
  dbus_connection_send(conn_, reply, nullptr);
  dbus_connection_flush(conn_);
  dbus_message_unref(reply);
}

}  // namespace korvo::test
