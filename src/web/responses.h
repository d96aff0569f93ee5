// Response builders shared by every handler, and the small request helpers.
//
// Thread: the HTTP thread. All builders return the result of queuing the response
// (MHD_NO makes libmicrohttpd close the connection).
#pragma once

#include <microhttpd.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace korvo {

extern const char* const kServerHeader;  // "veltaudio version <version>"
extern const char* const p400;
extern const char* const p404;
extern const char* const p500;

// Sends `body` (its bytes) with `status`; "Content-Type" when a type is given, always the
// "Server" header. The body is copied unless memoryMode says otherwise.
enum MHD_Result sendResponse(struct MHD_Connection* connection, std::string_view body, unsigned status,
                             const char* contentType,
                             enum MHD_ResponseMemoryMode memoryMode = MHD_RESPMEM_MUST_COPY);
// 200, "application/json", copied.
enum MHD_Result sendJsonResponse(struct MHD_Connection* connection, std::string_view body);

// Format the message, write {  "result": "success"|"error", "message": "..." } (two
// blanks after the brace) into `buffer` (kWorkBufferSize bytes) and send it as JSON.
// A failure answer is HTTP 200 too.
enum MHD_Result success(struct MHD_Connection* connection, char* buffer, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
enum MHD_Result failed(struct MHD_Connection* connection, char* buffer, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// { "result": "success"|"error", "message": "..." } (one blank after the brace), for a
// POST's answerstring.
std::string makeSuccessAnswer(std::string_view message);
std::string makeFailedAnswer(std::string_view message);

// ERROR line and the p404 / p400 / p500 page with its status.
enum MHD_Result error404(struct MHD_Connection* connection, std::string_view url);
enum MHD_Result error400(struct MHD_Connection* connection, std::string_view url);
enum MHD_Result error500(struct MHD_Connection* connection, std::string_view url);
// "Redirect to <target>", header "Location", status 401 (pages written for this API rely on it).
enum MHD_Result sendRedirect(struct MHD_Connection* connection, const char* target);
// 401 with "WWW-Authenticate: Basic realm=..." for a request without the password.
enum MHD_Result sendAuthRequired(struct MHD_Connection* connection);
// Streams the file ("<path>.gz" with "Content-Encoding: gzip" when it exists), 200;
// 404 when it cannot be opened. `contentType` may be null.
enum MHD_Result sendFile(struct MHD_Connection* connection, const std::string& path, const char* contentType);

// Content type by the extension from the last '.' (exact, case-sensitive);
// "application/octet-stream" otherwise.
const char* mime(std::string_view path);
// JSON-safe copy, cut at 1024 bytes: CR/LF -> blank, TAB -> \t, '"' and '\\' escaped.
std::string escape(std::string_view text);
// The "Content-Length" request header as a number, 0 when absent or not a number.
unsigned long getContentLen(struct MHD_Connection* connection);
// True when `header` starts with `expected` followed by ';' or its end.
bool isContentType(const char* expected, const char* header);
// Number of '&' in the data plus 1 when size is non-zero.
int getNumberOfKeys(const char* data, std::size_t size);
// POSIX extended regex test; compiled patterns are cached by their text (any thread).
// A pattern that does not compile logs ERROR "bad regex: %s" and matches nothing.
bool matches(const char* text, const char* pattern);

}  // namespace korvo
