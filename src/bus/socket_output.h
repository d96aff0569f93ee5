// The media-server socket output: command strings sent as UDP datagrams to
// `sms_address`:`sms_port`.
//
// Threads: sendSocketCmd() is called from the sound service thread, HTTP and Lua; the
// socket and address are fixed after open(), sendto() is thread-safe.
#pragma once

#include <atomic>
#include <string>
#include <string_view>

#include <netinet/in.h>
#include <sys/socket.h>

#include "base/handles.h"

namespace korvo {

class SocketOutput {
 public:
  SocketOutput(std::string host, int port);
  ~SocketOutput();
  SocketOutput(const SocketOutput&) = delete;
  SocketOutput& operator=(const SocketOutput&) = delete;

  // Resolves the host (once, at start) and creates the socket. False with an ERROR line
  // for an unknown host or a bad port; sends are then dropped.
  bool open();
  void close();
  bool isOpen() const { return static_cast<bool>(fd_); }
  // One datagram holding `text`. False when closed or the send failed (ERROR line).
  bool sendSocketCmd(std::string_view text);

 private:
  const std::string host_;
  const int port_;
  Fd fd_;
  sockaddr_storage addr_{};
  socklen_t addrLen_ = 0;
  std::atomic<unsigned> errorsLogged_{0};
};

}  // namespace korvo
