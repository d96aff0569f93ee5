#include "web/http_client.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "web/upload_file.h"

namespace korvo {

namespace {

const char* const kHttpClientErrors[] = {
    "success",
    "unknown host",
    "error creating socket",
    "error connecting",
    "error sending data",
    "error open target file",
    "error receiving data",
    "no content length header",
    "error writing target",
    "could not parse status line",
    "unexpected response status",
    "only http supported",
    "could not parse url",
    "redirect missing location header",
    "too many redirects",
};

// The head of a response must fit here; a server sending more is not an update server.
constexpr std::size_t kMaxHeadBytes = 65536;

struct Response {
  int status = 0;
  long long contentLength = -1;
  std::string location;
  std::string bodyStart;  // body bytes that arrived with the head
};

bool isRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

std::optional<int> parsePort(std::string_view text) {
  int port = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (ec != std::errc() || end != text.data() + text.size() || port < 1 || port > 65535) return std::nullopt;
  return port;
}

int connectTo(const URL& url, Fd& sock) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(url.port());
  if (getaddrinfo(url.hostName().c_str(), port.c_str(), &hints, &found) != 0 || !found) return HTTP_UNKNOWN_HOST;
  const Handle<addrinfo, ::freeaddrinfo> owned(found);
  sock.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!sock) return HTTP_SOCKET;
  timeval tv{kHttpIoTimeoutSeconds, 0};
  setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  LOG(LEVEL_INFO, "Connecting ...");
  if (connect(sock.get(), found->ai_addr, found->ai_addrlen) != 0) return HTTP_CONNECT;
  return HTTP_SUCCESS;
}

int sendRequest(int sock, const URL& url) {
  const std::string request = strFormat("GET %s HTTP/1.1\r\nHost: %s\r\n\r\n", url.path.c_str(), url.host.c_str());
  LOG(LEVEL_TRACE, "Sending request: '%s'", request.c_str());
  std::string_view rest = request;
  while (!rest.empty()) {
    ssize_t n = send(sock, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return HTTP_SEND;
    rest.remove_prefix(static_cast<std::size_t>(n));
  }
  LOG(LEVEL_DEBUG, "Data sent.");
  return HTTP_SUCCESS;
}

// One receive; 0 when the peer closed, -1 on error (interrupted calls are retried).
ssize_t receiveSome(int sock, char* buf, std::size_t size) {
  for (;;) {
    ssize_t n = recv(sock, buf, size, 0);
    if (n < 0 && errno == EINTR) continue;
    return n;
  }
}

int parseStatusLine(std::string_view line, Response& resp) {
  if (!line.starts_with("HTTP/1")) return HTTP_STATUS_LINE;
  auto blank = line.find(' ');
  if (blank == std::string_view::npos) return HTTP_STATUS_LINE;
  std::string_view code = line.substr(blank + 1, 3);
  auto [end, ec] = std::from_chars(code.data(), code.data() + code.size(), resp.status);
  if (ec != std::errc() || end != code.data() + 3) return HTTP_STATUS_LINE;
  return HTTP_SUCCESS;
}

void parseHeaderLine(std::string_view line, Response& resp) {
  static constexpr std::string_view kLength = "Content-Length:";
  static constexpr std::string_view kLocation = "Location:";
  if (startsWith(line, kLength)) {
    std::string_view v = trim(line.substr(kLength.size()));
    long long len = -1;
    auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), len);
    if (ec == std::errc() && end == v.data() + v.size() && len >= 0) resp.contentLength = len;
    LOG(LEVEL_DEBUG, "Content-Length: %lld", resp.contentLength);
  } else if (startsWith(line, kLocation)) {
    resp.location = std::string(trim(line.substr(kLocation.size())));
  }
}

// Reads up to the blank line that ends the head and parses it.
int readHead(int sock, Response& resp) {
  std::string head;
  std::size_t end;
  char buf[kHttpReceiveBlock];
  while ((end = head.find("\r\n\r\n")) == std::string::npos) {
    if (head.size() > kMaxHeadBytes) return HTTP_STATUS_LINE;
    ssize_t n = receiveSome(sock, buf, sizeof buf);
    if (n <= 0) return head.empty() || head.starts_with("HTTP/1") ? HTTP_RECEIVE : HTTP_STATUS_LINE;
    head.append(buf, static_cast<std::size_t>(n));
  }
  resp.bodyStart = head.substr(end + 4);
  std::string_view rest(head.data(), end + 2);
  auto status = getNextHeader(rest);
  if (!status) return HTTP_STATUS_LINE;
  if (int rc = parseStatusLine(*status, resp)) return rc;
  while (auto line = getNextHeader(rest)) parseHeaderLine(*line, resp);
  return HTTP_SUCCESS;
}

int writeBody(const char* data, std::size_t size, UploadFile& target) {
  if (target.write(data, size)) return HTTP_SUCCESS;
  LOG(LEVEL_ERROR, "error writing %d byte to %s", static_cast<int>(size), target.tempPath().c_str());
  return HTTP_WRITE_TARGET;
}

int receiveBody(int sock, const Response& resp, UploadFile& target) {
  LOG(LEVEL_INFO, "Downloading %lld bytes to '%s'", resp.contentLength, target.tempPath().c_str());
  const auto total = static_cast<std::size_t>(resp.contentLength);
  std::size_t got = std::min(resp.bodyStart.size(), total);
  if (int rc = writeBody(resp.bodyStart.data(), got, target)) return rc;
  char buf[kHttpReceiveBlock];
  while (got < total) {
    ssize_t n = receiveSome(sock, buf, std::min(sizeof buf, total - got));
    if (n <= 0) return HTTP_RECEIVE;
    if (int rc = writeBody(buf, static_cast<std::size_t>(n), target)) return rc;
    got += static_cast<std::size_t>(n);
  }
  LOG(LEVEL_DEBUG, "Done.");
  return HTTP_SUCCESS;
}

// One request on its own connection. A redirect leaves its target in resp.location.
int fetchOnce(const URL& url, UploadFile& target, Response& resp) {
  Fd sock;
  if (int rc = connectTo(url, sock)) return rc;
  if (int rc = sendRequest(sock.get(), url)) return rc;
  LOG(LEVEL_DEBUG, "downloading to '%s'", target.tempPath().c_str());
  LOG(LEVEL_DEBUG, "Recieving data...");
  if (int rc = readHead(sock.get(), resp)) return rc;
  if (isRedirect(resp.status)) return resp.location.empty() ? HTTP_NO_LOCATION : HTTP_SUCCESS;
  if (resp.status != 200) return HTTP_UNEXPECTED_STATUS;
  if (resp.contentLength < 0) return HTTP_NO_CONTENT_LENGTH;
  return receiveBody(sock.get(), resp, target);
}

// The absolute URL a Location value points to from `current`.
std::string joinRedirect(const URL& current, const std::string& location) {
  if (location.find("://") != std::string::npos) return location;
  if (location.starts_with("//")) return current.scheme + ":" + location;
  const std::string origin = current.scheme + "://" + current.host;
  if (location.starts_with("/")) return origin + location;
  // Relative to the directory of the current path.
  std::string dir = current.path.substr(0, current.path.find_last_of('/') + 1);
  return origin + dir + location;
}

int download(std::string url, UploadFile& target) {
  for (int redirects = 0;; ++redirects) {
    auto parsed = parseUrl(url);
    if (!parsed) return HTTP_PARSE_URL;
    LOG(LEVEL_DEBUG, "url: %s", url.c_str());
    LOG(LEVEL_DEBUG, "scheme: %s", parsed->scheme.c_str());
    LOG(LEVEL_DEBUG, "host: %s", parsed->host.c_str());
    if (parsed->scheme != "http") return HTTP_ONLY_HTTP;
    Response resp;
    if (int rc = fetchOnce(*parsed, target, resp)) return rc;
    if (!isRedirect(resp.status)) return HTTP_SUCCESS;
    if (redirects >= kHttpMaxRedirects) return HTTP_TOO_MANY_REDIRECTS;
    url = joinRedirect(*parsed, resp.location);
    LOG(LEVEL_INFO, "Redirected to %s", url.c_str());
  }
}

}  // namespace

const char* get_http_error(int code) {
  if (code < 0 || code > HTTP_TOO_MANY_REDIRECTS) return "unknown";
  return kHttpClientErrors[code];
}

std::string URL::hostName() const {
  auto colon = host.rfind(':');
  return colon == std::string::npos ? host : host.substr(0, colon);
}

int URL::port() const {
  auto colon = host.rfind(':');
  if (colon == std::string::npos) return 80;
  return parsePort(std::string_view(host).substr(colon + 1)).value_or(80);
}

std::optional<URL> parseUrl(std::string_view text) {
  LOG(LEVEL_DEBUG, "parse url %.*s", static_cast<int>(text.size()), text.data());
  auto sep = text.find("://");
  if (sep == std::string_view::npos || sep == 0) return std::nullopt;
  auto slash = text.find('/', sep + 3);
  if (slash == std::string_view::npos || slash == sep + 3) return std::nullopt;
  URL url{std::string(text.substr(0, sep)), std::string(text.substr(sep + 3, slash - sep - 3)),
          std::string(text.substr(slash))};
  if (auto colon = url.host.rfind(':'); colon != std::string::npos) {
    if (colon == 0 || !parsePort(std::string_view(url.host).substr(colon + 1))) return std::nullopt;
  }
  LOG(LEVEL_DEBUG, "schema: %s, host: %s, path: %s", url.scheme.c_str(), url.host.c_str(), url.path.c_str());
  return url;
}

std::optional<std::string_view> getNextHeader(std::string_view& buffer) {
  auto end = buffer.find("\r\n");
  if (end == std::string_view::npos) return std::nullopt;
  std::string_view line = buffer.substr(0, end);
  buffer.remove_prefix(end + 2);
  return line;
}

int http_client(const std::string& url, UploadFile& target) {
  if (!target.isOpen()) return HTTP_OPEN_TARGET;
  int rc = download(url, target);
  if (rc != HTTP_SUCCESS) LOG(LEVEL_ERROR, "http client error message: %s - %s", url.c_str(), get_http_error(rc));
  return rc;
}

int http_client(const std::string& url, const std::string& targetFile) {
  auto slash = targetFile.find_last_of('/');
  UploadFile out;
  if (!out.create(slash == std::string::npos ? "." : targetFile.substr(0, slash ? slash : 1))) {
    LOG(LEVEL_ERROR, "http client error message: %s - %s", url.c_str(), get_http_error(HTTP_OPEN_TARGET));
    return HTTP_OPEN_TARGET;
  }
  int rc = http_client(url, out);
  if (rc == HTTP_SUCCESS && !out.commitTo(targetFile)) rc = HTTP_WRITE_TARGET;
  return rc;
}

}  // namespace korvo
