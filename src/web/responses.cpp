#include "web/responses.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "web/connection_info.h"

namespace korvo {

const char* const kServerHeader = "veltaudio version " KORVO_VERSION;
const char* const p400 =
    "<html><head><title>400 - Bad Request</title></head><body><h2>400 - Bad request</h2></body></html>";
const char* const p404 =
    "<html><head><title>404 - File / Resource not found</title></head><body><h2>404 - File / Resource not "
    "found</h2></body></html>";
const char* const p500 =
    "<html><head><title>500 - Server error</title></head><body><h2>500 - Server error</h2></body></html>";

namespace {

constexpr std::size_t kEscapeMax = 1024;

struct MimeType {
  const char* ext;
  const char* type;
};
constexpr MimeType mimeTypes[] = {
    {".png", "image/png"},   {".js", "text/javascript"},   {".css", "text/css"},
    {".jpg", "image/jpeg"},  {".html", "text/html"},       {".woff2", "font/woff2"},
    {".woff", "application/x-font-woff"}, {".svg", "image/svg+xml"}, {".ogg", "audio/ogg"},
    {".wav", "audio/vnd.wav"}, {".mp3", "audio/mpeg"},
};

// Queues `r` with `status` and drops our reference (the queue keeps its own).
MHD_Result queueAndRelease(MHD_Connection* connection, MHD_Response* r, unsigned status) {
  if (!r) return MHD_NO;
  MHD_add_response_header(r, "Server", kServerHeader);
  MHD_Result ret = MHD_queue_response(connection, status, r);
  MHD_destroy_response(r);
  return ret;
}

MHD_Result sendResult(MHD_Connection* connection, char* buffer, const char* result, const char* format,
                      va_list ap) {
  char message[kWorkBufferSize];
  vsnprintf(message, sizeof message, format, ap);
  if (strcmp(result, "error") == 0) LOG(LEVEL_WARN, "request refused: %s", message);
  const std::string body =
      std::string("{  \"result\": \"") + result + "\", \"message\": \"" + message + "\" }";
  // Handlers may look at the answer in their work buffer afterwards.
  const std::size_t n = body.copy(buffer, kWorkBufferSize - 1);
  buffer[n] = '\0';
  return sendJsonResponse(connection, body);
}

}  // namespace

MHD_Result sendResponse(MHD_Connection* connection, std::string_view body, unsigned status, const char* contentType,
                        MHD_ResponseMemoryMode memoryMode) {
  LOG(LEVEL_TRACE, "sending response (%u/%s): '%.30s'", status, contentType ? contentType : "",
      std::string(body.substr(0, 30)).c_str());
  MHD_Response* r =
      MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), memoryMode);
  if (r && contentType) MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
  return queueAndRelease(connection, r, status);
}

MHD_Result sendJsonResponse(MHD_Connection* connection, std::string_view body) {
  return sendResponse(connection, body, MHD_HTTP_OK, "application/json");
}

MHD_Result success(MHD_Connection* connection, char* buffer, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  MHD_Result r = sendResult(connection, buffer, "success", format, ap);
  va_end(ap);
  return r;
}

MHD_Result failed(MHD_Connection* connection, char* buffer, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  MHD_Result r = sendResult(connection, buffer, "error", format, ap);
  va_end(ap);
  return r;
}

std::string makeSuccessAnswer(std::string_view message) {
  return "{ \"result\": \"success\", \"message\": \"" + std::string(message) + "\" }";
}

std::string makeFailedAnswer(std::string_view message) {
  return "{ \"result\": \"error\", \"message\": \"" + std::string(message) + "\" }";
}

MHD_Result error404(MHD_Connection* connection, std::string_view url) {
  LOG(LEVEL_ERROR, "http request not found url: %.*s", static_cast<int>(url.size()), url.data());
  return sendResponse(connection, p404, MHD_HTTP_NOT_FOUND, "text/html");
}

MHD_Result error400(MHD_Connection* connection, std::string_view url) {
  LOG(LEVEL_ERROR, "bad request, url: %.*s", static_cast<int>(url.size()), url.data());
  return sendResponse(connection, p400, MHD_HTTP_BAD_REQUEST, "text/html");
}

MHD_Result error500(MHD_Connection* connection, std::string_view url) {
  LOG(LEVEL_ERROR, "server error, url: %.*s", static_cast<int>(url.size()), url.data());
  return sendResponse(connection, p500, MHD_HTTP_INTERNAL_SERVER_ERROR, "text/html");
}

MHD_Result sendRedirect(MHD_Connection* connection, const char* target) {
  std::string body = strFormat("Redirect to %s", target);
  MHD_Response* r = MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY);
  if (r) MHD_add_response_header(r, MHD_HTTP_HEADER_LOCATION, target);
  return queueAndRelease(connection, r, MHD_HTTP_UNAUTHORIZED);
}

MHD_Result sendAuthRequired(MHD_Connection* connection) {
  static const char body[] = "{  \"result\": \"error\", \"message\": \"password required\" }";
  MHD_Response* r = MHD_create_response_from_buffer(sizeof body - 1, const_cast<char*>(body),
                                                    MHD_RESPMEM_PERSISTENT);
  if (!r) return MHD_NO;
  MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
  MHD_add_response_header(r, "Server", kServerHeader);
  MHD_Result ret = MHD_queue_basic_auth_fail_response(connection, "VELT!Audio", r);
  MHD_destroy_response(r);
  return ret;
}

MHD_Result sendFile(MHD_Connection* connection, const std::string& path, const char* contentType) {
  // The web UI is deployed pre-compressed; the type stays the one of the plain name.
  const std::string gz = path + ".gz";
  bool gzip = true;
  Fd fd(open(gz.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st {};
  if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    gzip = false;
    fd.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return error404(connection, path);
  }
  LOG(LEVEL_INFO, "sending file: %s", gzip ? gz.c_str() : path.c_str());
  // libmicrohttpd owns the descriptor from here and closes it with the response.
  MHD_Response* r = MHD_create_response_from_fd64(static_cast<uint64_t>(st.st_size), fd.get());
  if (!r) return MHD_NO;
  fd.release();
  if (gzip) MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip");
  if (contentType) MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
  return queueAndRelease(connection, r, MHD_HTTP_OK);
}

const char* mime(std::string_view path) {
  auto dot = path.find_last_of('.');
  if (dot != std::string_view::npos) {
    std::string_view ext = path.substr(dot);
    for (const MimeType& m : mimeTypes)
      if (ext == m.ext) return m.type;
  }
  return "application/octet-stream";
}

std::string escape(std::string_view text) {
  std::string out;
  out.reserve(std::min(text.size() + 16, kEscapeMax));
  for (char c : text) {
    const char* rep = nullptr;
    char plain[8] = {c, 0};
    switch (c) {
      case '\r':
      case '\n': rep = " "; break;
      case '\t': rep = "\\t"; break;
      case '"': rep = "\\\""; break;
      case '\\': rep = "\\\\"; break;
      default:
        // Other control bytes (terminal colours in a log line) would make the JSON invalid.
        if (static_cast<unsigned char>(c) < 0x20) snprintf(plain, sizeof plain, "\\u%04x", static_cast<unsigned>(c));
        rep = plain;
        break;
    }
    if (out.size() + strlen(rep) > kEscapeMax) break;
    out += rep;
  }
  return out;
}

unsigned long getContentLen(MHD_Connection* connection) {
  const char* v = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (!v) return 0;
  char* end = nullptr;
  unsigned long n = strtoul(v, &end, 10);
  return end != v ? n : 0;
}

bool isContentType(const char* expected, const char* header) {
  if (!expected || !header) return false;
  std::size_t n = strlen(expected);
  return strncmp(header, expected, n) == 0 && (header[n] == ';' || header[n] == '\0');
}

int getNumberOfKeys(const char* data, std::size_t size) {
  if (size == 0 || !data) return 0;
  int n = 1;
  for (std::size_t i = 0; i < size; ++i)
    if (data[i] == '&') ++n;
  return n;
}

bool matches(const char* text, const char* pattern) {
  static std::mutex cacheMutex;
  static std::unordered_map<std::string, RegexHandle> regexCache;
  std::lock_guard lock(cacheMutex);
  bool cached = true;
  auto it = regexCache.find(pattern);
  if (it == regexCache.end()) {
    cached = false;
    RegexHandle re(new regex_t);
    if (regcomp(re.get(), pattern, REG_EXTENDED | REG_NOSUB) != 0) {
      delete re.release();  // regcomp failed: nothing to regfree
      LOG(LEVEL_ERROR, "bad regex: %s", pattern);
      return false;
    }
    it = regexCache.emplace(pattern, std::move(re)).first;
  }
  int rc = regexec(it->second.get(), text, 0, nullptr, 0);
  LOG(LEVEL_DEBUG, "'%s' matches '%s'->%d %s", text, pattern, rc, cached ? "(cached)" : "");
  return rc == 0;
}

}  // namespace korvo
