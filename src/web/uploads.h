// The pieces every upload callback shares: the request's record, the logged call, the
// decided answer, and the start and growth of an upload file (name check, free space,
// hidden temporary in the target directory).
//
// Thread: the HTTP thread, inside a post callback.
#pragma once

#include <microhttpd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "web/connection_info.h"

namespace korvo {

struct WebContext;

constexpr char kEmptyValue[] = "(empty)";

// The record a post callback gets as `cls`.
inline ConnectionInfo& connectionOf(void* cls) { return *static_cast<ConnectionInfo*>(cls); }
// The context of the request (the record's, else the service's).
WebContext& contextOf(const ConnectionInfo& ci);

// DEBUG (TRACE with `trace`) "connCtx: ..., kind: ..., key: ..." of one call.
void logPostCall(const ConnectionInfo& ci, bool trace, enum MHD_ValueKind kind, const char* key,
                 const char* filename, const char* contentType, const char* transferEncoding, const char* data,
                 uint64_t off, size_t size);

// Decides the answer: success or failed JSON, HTTP 200. Returns MHD_NO, so the caller
// can `return decide(...)` to stop processing. A failure also drops the upload file.
enum MHD_Result decide(ConnectionInfo& ci, bool ok, std::string_view message);

// Starts the upload of the first "file" piece into `dir`. The client's file name (may
// be null) must be one safe path component; the request's Content-Length must fit in
// the free space of `dir`. On refusal the answer is decided (ERROR line) and false
// returned. INFO "writing file %s" with `destination`.
bool beginUpload(ConnectionInfo& ci, const std::string& dir, const char* clientName, const std::string& destination);
// Appends one piece. On failure ERROR "write to upload file ? failed", the answer is
// decided and false returned.
bool appendUpload(ConnectionInfo& ci, const char* data, size_t size);

// "Upload refused" when a form names a key other than the upload's: ERROR "no file key
// provided -> abort".
enum MHD_Result refuseKey(ConnectionInfo& ci);

// What one upload form does with the pieces of its body. `begin` opens the upload at the
// first "file" piece (false: refused, the answer decided); `written` reports each appended
// piece (may be null); `finish` runs at "endOfUpload"; `other` takes any other key (null:
// refuseKey).
struct UploadForm {
  bool (*begin)(ConnectionInfo& ci, const char* filename);
  void (*written)(const ConnectionInfo& ci, size_t size);
  enum MHD_Result (*finish)(ConnectionInfo& ci);
  enum MHD_Result (*other)(ConnectionInfo& ci, const char* key, const char* data, size_t size);
};

// One post callback step of an upload form: the call is logged, a body whose answer is
// already decided is refused, and the piece goes where `form` says.
enum MHD_Result receiveUploadPiece(const UploadForm& form, void* cls, enum MHD_ValueKind kind, const char* key,
                                   const char* filename, const char* contentType, const char* transferEncoding,
                                   const char* data, uint64_t off, size_t size);

}  // namespace korvo
