// A small HTTP/1.1 client of our own for the firmware download: plain HTTP to the
// update server (no TLS, no chunked bodies), a GET that follows redirects and writes
// the body to a file. Every failure is one of the result codes below, whose texts are
// what the web API answers.
//
// Thread: the caller's (the HTTP thread); it blocks while it downloads. Reads and
// writes on the socket give up after kHttpIoTimeoutSeconds without progress.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korvo {

class UploadFile;

enum HttpClientError : int {
  HTTP_SUCCESS = 0,
  HTTP_UNKNOWN_HOST = 1,
  HTTP_SOCKET = 2,
  HTTP_CONNECT = 3,
  HTTP_SEND = 4,
  HTTP_OPEN_TARGET = 5,
  HTTP_RECEIVE = 6,
  HTTP_NO_CONTENT_LENGTH = 7,
  HTTP_WRITE_TARGET = 8,
  HTTP_STATUS_LINE = 9,
  HTTP_UNEXPECTED_STATUS = 10,
  HTTP_ONLY_HTTP = 11,
  HTTP_PARSE_URL = 12,
  HTTP_NO_LOCATION = 13,
  HTTP_TOO_MANY_REDIRECTS = 14,
};

constexpr int kHttpMaxRedirects = 20;
constexpr int kHttpIoTimeoutSeconds = 30;
constexpr int kHttpReceiveBlock = 10000;

// The text of a result code; "unknown" outside 1..14 (0 is "success").
const char* get_http_error(int code);

struct URL {
  std::string scheme;
  std::string host;  // as written, with ":port" when one was given
  std::string path;  // keeps its leading '/'
  // The host without the port, and the port (80 unless the URL names one).
  std::string hostName() const;
  int port() const;
};

// "scheme://host/path". Nothing when "://" or the path is missing, or a port is not a
// number in 1..65535.
std::optional<URL> parseUrl(std::string_view text);

// Cuts the next line at CR LF off the front of `buffer` and returns it without the
// CR LF; nothing (and `buffer` unchanged) when no CR LF is left.
std::optional<std::string_view> getNextHeader(std::string_view& buffer);

// GETs `url` and writes the body (all Content-Length bytes) to `target`, which must be
// open; it is not committed. Follows up to kHttpMaxRedirects redirects. One of the
// codes above; a failure is logged ERROR "http client error message: ...".
int http_client(const std::string& url, UploadFile& target);
// The same into `targetFile`, written atomically: on failure the file is untouched.
int http_client(const std::string& url, const std::string& targetFile);

}  // namespace korvo
