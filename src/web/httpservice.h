// The embedded HTTP server: libmicrohttpd with one internal polling thread, so every
// handler and post callback runs on that thread, one request at a time. Requests go
// through the route table, then to the static web UI.
//
// Limits (a slow or hostile client must not hold the one thread or the memory):
// kConnectionLimit connections in all, kPerIpConnectionLimit from one address, a
// connection idle for kConnectionTimeoutSec is closed, kConnectionMemoryLimit bytes of
// header and read buffer per connection.
//
// Threads: start and stop on the owner's thread (main); everything else on the HTTP
// thread.
#pragma once

#include <atomic>
#include <string>

#include "base/handles.h"
#include "web/routes.h"
#include "web/web_context.h"

namespace korvo {

using DaemonHandle = Handle<MHD_Daemon, MHD_stop_daemon>;

class HttpService {
 public:
  static constexpr unsigned kConnectionLimit = 32;
  static constexpr unsigned kPerIpConnectionLimit = 16;
  static constexpr unsigned kConnectionTimeoutSec = 15;
  static constexpr std::size_t kConnectionMemoryLimit = 64 * 1024;
  static constexpr std::size_t kPostBufferSize = 1048576;
  // The HTTP thread runs at this nice value (lower priority than the audio path).
  static constexpr int kHttpThreadNice = 10;

  // `ctx` must outlive the service.
  explicit HttpService(WebContext& ctx);
  ~HttpService();
  HttpService(const HttpService&) = delete;
  HttpService& operator=(const HttpService&) = delete;

  // `logFile`: the log file name (or the base directory without one); `programPath`:
  // argv[0]; `port`: the TCP port (0 = any free port, see boundPort()). 0 on success, 1
  // with ERROR "starting http service failed" (the daemon runs on without HTTP).
  int startHttpService(const std::string& logFile, const std::string& programPath, int port);
  // Stops the daemon if it runs; INFO "stopped http service".
  void stopHttpService();
  bool running() const { return static_cast<bool>(httpd_); }
  // The port the daemon listens on (the chosen one when started with port 0).
  int boundPort() const { return boundPort_; }
  const std::string& webRoot() const { return ctx_.webRoot; }
  WebContext& context() { return ctx_; }

  // libmicrohttpd callbacks (cls = this).
  static enum MHD_Result requestHandler(void* cls, struct MHD_Connection* connection, const char* url,
                                        const char* method, const char* version, const char* uploadData,
                                        size_t* uploadDataSize, void** conCls);
  static void requestCompletedCb(void* cls, struct MHD_Connection* connection, void** conCls,
                                 enum MHD_RequestTerminationCode toe);

 private:
  enum MHD_Result dispatch(struct MHD_Connection* connection, const char* url, const char* method,
                           const char* version, const char* uploadData, size_t* uploadDataSize, void** conCls);
  enum MHD_Result route(struct MHD_Connection* connection, const char* url, const char* method);
  enum MHD_Result initPostProcessor(struct MHD_Connection* connection, void** conCls, const char* url,
                                    PostCallbackHandler callback, ConnType connType);
  enum MHD_Result handleContextRequests(struct MHD_Connection* connection, ConnectionInfo& ci,
                                        const char* uploadData, size_t* uploadDataSize);
  enum MHD_Result serveStatic(struct MHD_Connection* connection, const char* url);
  bool authorized(struct MHD_Connection* connection, const char* url) const;
  void requestCompleted(void** conCls);
  std::string chooseWebRoot() const;

  WebContext& ctx_;
  DaemonHandle httpd_;
  RouteTable routes_;
  int boundPort_ = 0;
  // Empty calls of the request handler in a row; one counter for the whole service.
  int zeroCalls_ = 0;
};

// Index pages and their ".gz" variants: "/", ".../" and ".../index.html".
enum MHD_Result handleIndexRequest(struct MHD_Connection* connection, const char* url, char* buffer);

}  // namespace korvo
