#include "web/httpservice.h"

#include <sys/resource.h>
#include <unistd.h>

#include <SDL2/SDL_thread.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "base/thread.h"
#include "web/ops_handlers.h"
#include "web/responses.h"
#include "web/safe_path.h"

namespace korvo {

const char* const connectionTypeNames[kConnTypeCount] = {
    "GET_REQ",           "CONFIG_POST",          "UPLOAD_SOUNDSET_POST", "UPLOAD_REC_POST",
    "UPDATE_SERIAL_POST", "UPDATE_SHAKER_POST",  "UPDATE_GAIN_POST",     "SAMPLE_UPLOAD_POST",
    "SOUNDSET_UPLOAD_POST", "FIRMWARE_UPLOAD_POST", "UPDATE_TYPE_POST",  "UPDATE_DUCKING_POST",
    "UPDATE_PRELOAD_POST", "UPDATE_NAME_POST"};

namespace {

constexpr char kEmptyMarker[] = "(empty)";
// The per-request context of a request that is answered on its next call.
char kAnswerNext;
constexpr int kMaxZeroCalls = 5;

// The context of the service whose callback runs on this thread (each service has its
// own HTTP thread, so two services in one process never share it).
thread_local WebContext* tlsContext = nullptr;

bool hasControlByte(const char* s) {
  for (; *s; ++s)
    if (static_cast<unsigned char>(*s) < 0x20 || *s == 0x7f) return true;
  return false;
}

// libmicrohttpd's percent-decoding, except that "%00" becomes DEL instead of ending
// the string early: "/index.html%00.png" must be refused, not served as "/index.html".
size_t unescapeUrl(void*, MHD_Connection*, char* uri) {
  char* out = uri;
  for (const char* in = uri; *in;) {
    if (in[0] == '%' && isxdigit(static_cast<unsigned char>(in[1])) && isxdigit(static_cast<unsigned char>(in[2]))) {
      char c = static_cast<char>(hexToInt(in[1]) * 16 + hexToInt(in[2]));
      *out++ = c == '\0' ? '\x7f' : c;
      in += 3;
    } else {
      *out++ = *in++;
    }
  }
  *out = '\0';
  return static_cast<size_t>(out - uri);
}

// The post processor calls the row's callback through here, so nothing it throws
// crosses libmicrohttpd.
MHD_Result postIterator(void* cls, MHD_ValueKind kind, const char* key, const char* filename,
                        const char* contentType, const char* transferEncoding, const char* data, uint64_t off,
                        size_t size) {
  auto* ci = static_cast<ConnectionInfo*>(cls);
  MHD_Result r = MHD_NO;
  if (!runGuarded("post callback", [&] {
        r = ci->callback(cls, kind, key, filename, contentType, transferEncoding, data, off, size);
      })) {
    ci->answerstring = makeFailedAnswer("internal error");
    return MHD_NO;
  }
  return r;
}

// Set-up and clean-up of libmicrohttpd's thread, which offers no hooks of its own: made
// on the first request the thread handles, destroyed when the thread ends.
struct HttpThreadState {
  // The sound service and the interrupt threads must win the CPU over a busy web page.
  HttpThreadState() { setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), HttpService::kHttpThreadNice); }
  // SDL keeps error state for every thread that calls into it through the engine.
  ~HttpThreadState() { SDL_TLSCleanup(); }
};

// Constant-time compare, so the answer time tells nothing about the password.
bool sameSecret(const char* given, const std::string& expected) {
  std::size_t n = strlen(given);
  unsigned diff = n == expected.size() ? 0u : 1u;
  for (std::size_t i = 0; i < expected.size(); ++i)
    diff |= static_cast<unsigned char>(expected[i]) ^ static_cast<unsigned char>(i < n ? given[i] : 0);
  return diff == 0;
}

}  // namespace

WebContext& webContext() {
  if (!tlsContext) throw std::logic_error("webContext() called outside an HTTP request");
  return *tlsContext;
}

HttpService::HttpService(WebContext& ctx) : ctx_(ctx) {}

HttpService::~HttpService() { stopHttpService(); }

std::string HttpService::chooseWebRoot() const {
  const std::string beside = ctx_.programDir + "/html";
  if (isDirectory(beside)) return beside;
#ifdef KORVO_SHARE_HTML_DIR
  return KORVO_SHARE_HTML_DIR;
#else
  return beside;
#endif
}

int HttpService::startHttpService(const std::string& logFile, const std::string& programPath, int port) {
  if (httpd_) stopHttpService();
  std::string dir = programPath;
  if (auto pos = dir.find_last_of('/'); pos != std::string::npos) dir.resize(pos);
  LOG(LEVEL_DEBUG, " dir: %s", dir.c_str());
  if (dir == ".") {
    char cwd[512];
    if (getcwd(cwd, sizeof cwd)) dir = cwd;
    LOG(LEVEL_DEBUG, " dir: %s", dir.c_str());
  }
  ctx_.programDir = dir;
  ctx_.logFile = logFile;
  if (ctx_.webRoot.empty()) ctx_.webRoot = chooseWebRoot();
  LOG(LEVEL_INFO, "serving the web UI from %s", ctx_.webRoot.c_str());

  httpd_.reset(MHD_start_daemon(
      MHD_USE_INTERNAL_POLLING_THREAD, static_cast<uint16_t>(port & 0xffff), nullptr, nullptr,
      &HttpService::requestHandler, this, MHD_OPTION_NOTIFY_COMPLETED, &HttpService::requestCompletedCb, this,
      MHD_OPTION_CONNECTION_LIMIT, kConnectionLimit, MHD_OPTION_PER_IP_CONNECTION_LIMIT, kPerIpConnectionLimit,
      MHD_OPTION_CONNECTION_TIMEOUT, kConnectionTimeoutSec, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
      kConnectionMemoryLimit, MHD_OPTION_UNESCAPE_CALLBACK, &unescapeUrl, nullptr, MHD_OPTION_END));
  if (!httpd_) {
    LOG(LEVEL_ERROR, "starting http service failed");
    return 1;
  }
  const MHD_DaemonInfo* info = MHD_get_daemon_info(httpd_.get(), MHD_DAEMON_INFO_BIND_PORT);
  boundPort_ = info ? info->port : port;
  LOG(LEVEL_INFO, "started http service on port %d, current dir: %s", boundPort_, ctx_.programDir.c_str());
  return 0;
}

void HttpService::stopHttpService() {
  if (!httpd_) return;
  httpd_.reset();
  boundPort_ = 0;
  LOG(LEVEL_INFO, "stopped http service");
}

MHD_Result HttpService::requestHandler(void* cls, MHD_Connection* connection, const char* url, const char* method,
                                       const char* version, const char* uploadData, size_t* uploadDataSize,
                                       void** conCls) {
  auto* self = static_cast<HttpService*>(cls);
  tlsContext = &self->ctx_;
  thread_local HttpThreadState threadState;
  (void)threadState;
  MHD_Result r = MHD_NO;
  runGuarded("http request", [&] {
    r = self->dispatch(connection, url, method, version, uploadData, uploadDataSize, conCls);
  });
  return r;
}

void HttpService::requestCompletedCb(void* cls, MHD_Connection*, void** conCls, MHD_RequestTerminationCode) {
  auto* self = static_cast<HttpService*>(cls);
  tlsContext = &self->ctx_;
  runGuarded("http request completed", [&] { self->requestCompleted(conCls); });
}

void HttpService::requestCompleted(void** conCls) {
  if (*conCls == &kAnswerNext) {
    *conCls = nullptr;
    return;
  }
  std::unique_ptr<ConnectionInfo> ci(static_cast<ConnectionInfo*>(*conCls));
  *conCls = nullptr;
  if (!ci || ci->connectiontype == GET_REQ) return;
  LOG(LEVEL_DEBUG, "cleaning up POST request %s", ci->url.c_str());
  // Destroying the post processor hands a pending last value to the callback first.
  ci->postprocessor.reset();
  uploadRequestCompleted(*ci);
}

bool HttpService::authorized(MHD_Connection* connection, const char* url) const {
  if (ctx_.httpPassword.empty()) return true;
  char* pass = nullptr;
  char* user = MHD_basic_auth_get_username_password(connection, &pass);
  const bool ok = user && pass && sameSecret(pass, ctx_.httpPassword);
  if (user) MHD_free(user);
  if (pass) MHD_free(pass);
  if (!ok) LOG(LEVEL_WARN, "request without the right password refused: %s", url);
  return ok;
}

MHD_Result HttpService::dispatch(MHD_Connection* connection, const char* url, const char* method,
                                 const char* version, const char* uploadData, size_t* uploadDataSize,
                                 void** conCls) {
  if (*conCls == &kAnswerNext) {
    // A body nobody asked for is read and dropped, so the connection stays usable.
    if (*uploadDataSize > 0) {
      *uploadDataSize = 0;
      return MHD_YES;
    }
    return route(connection, url, method);
  }
  if (*conCls)
    return handleContextRequests(connection, *static_cast<ConnectionInfo*>(*conCls), uploadData, uploadDataSize);

  const char* contentType = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_TYPE);
  if (strcmp(method, MHD_HTTP_METHOD_GET) == 0)
    LOG(LEVEL_DEBUG, "url: %s, method: %s, version: %s, connCtx: %p", url, method, version, *conCls);
  else
    LOG(LEVEL_DEBUG, "url: %s, method: %s, version: %s, contentType: %s, upload_data: %p, size: %zu, connCtx: %p",
        url, method, version, contentType ? contentType : "", static_cast<const void*>(uploadData),
        *uploadDataSize, *conCls);
  if (!routes_.inited()) routes_.initRequestHandlerMappings();
  if (hasControlByte(url)) return error400(connection, url);
  if (strcmp(method, MHD_HTTP_METHOD_POST) == 0) {
    const RequestHandlerMapping* row = routes_.find(url, method);
    if (row && row->type == POSTCB) {
      if (!authorized(connection, url)) return sendAuthRequired(connection);
      return initPostProcessor(connection, conCls, url, row->postCallback, row->connType);
    }
  }
  // libmicrohttpd closes the connection after an answer queued on this first call;
  // answering on the next one keeps it alive for the browser's following requests.
  *conCls = &kAnswerNext;
  return MHD_YES;
}

MHD_Result HttpService::route(MHD_Connection* connection, const char* url, const char* method) {
  const RequestHandlerMapping* row = routes_.find(url, method);
  // The static UI stays open so a browser can show its password prompt.
  if (row && row->simple != handleIndexRequest && !authorized(connection, url)) return sendAuthRequired(connection);
  if (row && row->type == SIMPLE) {
    char buffer[kWorkBufferSize] = {};
    return row->simple(connection, url, buffer);
  }
  if (strstr(url, "..")) return error400(connection, url);
  if (*url == '\0') return sendRedirect(connection, "/");
  return serveStatic(connection, url);
}

MHD_Result HttpService::serveStatic(MHD_Connection* connection, const char* url) {
  auto path = resolveUnder(ctx_.webRoot, url + (*url == '/' ? 1 : 0));
  if (!path) return error400(connection, url);
  return sendFile(connection, *path, mime(url));
}

MHD_Result HttpService::initPostProcessor(MHD_Connection* connection, void** conCls, const char* url,
                                          PostCallbackHandler callback, ConnType connType) {
  LOG(LEVEL_DEBUG, "init post processor of type %s", connectionTypeNames[connType]);
  auto ci = std::make_unique<ConnectionInfo>();
  ci->ctx = &ctx_;
  ci->connection = connection;
  ci->callback = callback;
  ci->postprocessor.reset(MHD_create_post_processor(connection, kPostBufferSize, &postIterator, ci.get()));
  if (!ci->postprocessor) {
    LOG(LEVEL_ERROR, "could not allocate post processsor");
    return MHD_NO;
  }
  LOG(LEVEL_DEBUG, "post processor %p", static_cast<void*>(ci->postprocessor.get()));
  ci->contentLength = static_cast<uint32_t>(getContentLen(connection));
  ci->url = url;
  if (ci->contentLength == 0) {
    LOG(LEVEL_ERROR, "Post Request w/o Content-Length header");
    return MHD_NO;
  }
  ci->connectiontype = connType;
  *conCls = ci.release();
  return MHD_YES;
}

MHD_Result HttpService::handleContextRequests(MHD_Connection* connection, ConnectionInfo& ci,
                                              const char* uploadData, size_t* uploadDataSize) {
  ci.count += 1;
  LOG(LEVEL_DEBUG, "POST req count %d, size %zu", ci.count, *uploadDataSize);
  if (*uploadDataSize > 0) {
    const char* type = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_TYPE);
    if (isContentType(MHD_HTTP_POST_ENCODING_FORM_URLENCODED, type)) {
      ci.noOfKeys += getNumberOfKeys(uploadData, *uploadDataSize);
      LOG(LEVEL_DEBUG, "got %d keys", ci.noOfKeys);
    }
    zeroCalls_ = 0;
  }
  if (*uploadDataSize == 0 && !ci.bodyComplete) {
    ci.bodyComplete = true;
    uploadBodyComplete(ci);
  }
  if (ci.answerstring) {
    // libmicrohttpd takes a response only once the body is read: what still arrives
    // after the decision is consumed unseen.
    if (*uploadDataSize > 0) {
      *uploadDataSize = 0;
      return MHD_YES;
    }
    LOG(LEVEL_INFO, "Sending POST response: %s", ci.answerstring->c_str());
    return sendResponse(connection, *ci.answerstring, ci.responseCode, ci.contentType);
  }
  if (*uploadDataSize == 0) ++zeroCalls_;
  if (zeroCalls_ >= kMaxZeroCalls) {
    LOG(LEVEL_DEBUG, "request handler called to often with zero bytes, stoppping.");
    return MHD_NO;
  }
  LOG(LEVEL_DEBUG, "calling post processor callback %p", static_cast<void*>(ci.postprocessor.get()));
  if (*uploadDataSize > 0)
    MHD_post_process(ci.postprocessor.get(), uploadData, *uploadDataSize);
  else
    MHD_post_process(ci.postprocessor.get(), kEmptyMarker, sizeof kEmptyMarker - 1);
  *uploadDataSize = 0;
  return MHD_YES;
}

MHD_Result handleIndexRequest(MHD_Connection* connection, const char* url, char*) {
  std::string rel(url + 1);
  if (!rel.ends_with(".html")) rel += "index.html";
  auto path = resolveUnder(webContext().webRoot, rel);
  if (!path) return error400(connection, url);
  return sendFile(connection, *path, "text/html");
}

}  // namespace korvo
