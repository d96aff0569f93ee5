// fuzz-lib: korvo_video
// The "type:value" arguments scripts hand to the video player control: split at
// newlines into one argument list, encoded into a real D-Bus message. libdbus aborts on
// arguments it finds invalid, so every crash here is an argument let through unchecked.
#include <dbus/dbus.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/log.h"
#include "video/dbus_args.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    korvo::setLogLevel(korvo::LEVEL_NONE);
    return true;
  }();
  (void)quiet;
  std::vector<std::string> args;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  while (!rest.empty() && args.size() < 16) {
    const std::size_t nl = rest.find('\n');
    args.emplace_back(rest.substr(0, nl));
    rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
  }
  DBusMessage* msg = dbus_message_new_method_call("org.mpris.MediaPlayer2.omxplayer", "/org/mpris/MediaPlayer2",
                                                  "org.mpris.MediaPlayer2.Player", "Action");
  if (!msg) return 0;
  if (korvo::addArgsFromList(msg, args)) {
    // A message that encoded must also marshal: that is what sending does.
    char* wire = nullptr;
    int len = 0;
    dbus_message_set_serial(msg, 1);
    if (dbus_message_marshal(msg, &wire, &len)) dbus_free(wire);
  }
  dbus_message_unref(msg);
  return 0;
}
