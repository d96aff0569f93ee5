// The handlers of the operations side of the web service: uploads (form POSTs through
// the post processor), network settings and firmware. The route table refers to them
// by name.
//
// Thread: the HTTP thread; each reaches its WebContext through webContext() (GET
// handlers) or ConnectionInfo::ctx (post callbacks, `cls` is the request's
// ConnectionInfo*).
//
// Uploads are written to a hidden temporary file in their target directory and put in
// place only when complete and valid; a refused, failed or dropped upload leaves
// nothing behind (ConnectionInfo::fp removes its temporary when it is destroyed).
#pragma once

#include <microhttpd.h>

#include <cstddef>
#include <cstdint>

#include "web/connection_info.h"

namespace korvo {

// ---- GET handlers (SimpleHandler) ----
enum MHD_Result handleGetNetwork(struct MHD_Connection* connection, const char* url, char* buffer);
enum MHD_Result handleGetWifi(struct MHD_Connection* connection, const char* url, char* buffer);
enum MHD_Result handleSetWifi(struct MHD_Connection* connection, const char* url, char* buffer);
enum MHD_Result handleGetHostname(struct MHD_Connection* connection, const char* url, char* buffer);
enum MHD_Result handleSetHostname(struct MHD_Connection* connection, const char* url, char* buffer);
enum MHD_Result handleDownloadFirmwareAuto(struct MHD_Connection* connection, const char* url, char* buffer);

// ---- post callbacks (PostCallbackHandler = MHD_PostDataIterator) ----
enum MHD_Result configPostCallback(void* cls, enum MHD_ValueKind kind, const char* key, const char* filename,
                                   const char* contentType, const char* transferEncoding, const char* data,
                                   uint64_t off, size_t size);
enum MHD_Result recordingPostCallback(void* cls, enum MHD_ValueKind kind, const char* key, const char* filename,
                                      const char* contentType, const char* transferEncoding, const char* data,
                                      uint64_t off, size_t size);
enum MHD_Result uploadSoundsetPostCallback(void* cls, enum MHD_ValueKind kind, const char* key, const char* filename,
                                           const char* contentType, const char* transferEncoding, const char* data,
                                           uint64_t off, size_t size);
enum MHD_Result uploadFirmwarePostCallback(void* cls, enum MHD_ValueKind kind, const char* key, const char* filename,
                                           const char* contentType, const char* transferEncoding, const char* data,
                                           uint64_t off, size_t size);
enum MHD_Result sampleUploadPostCallback(void* cls, enum MHD_ValueKind kind, const char* key, const char* filename,
                                         const char* contentType, const char* transferEncoding, const char* data,
                                         uint64_t off, size_t size);
enum MHD_Result updateSoundPostCallback(void* cls, enum MHD_ValueKind kind, const char* key, const char* filename,
                                        const char* contentType, const char* transferEncoding, const char* data,
                                        uint64_t off, size_t size);

// The service calls this once per POST, at the first call of the request handler
// without data (the whole body has then gone through the post processor), before it
// looks at answerstring. An upload whose form ended without "endOfUpload" is decided
// here: a recording is checked and, when valid, kept and answered; other uploads are
// refused. Types without an upload do nothing.
void uploadBodyComplete(ConnectionInfo& ci);

// The service calls this from the request-completed callback, before the record is
// destroyed: a recording that was accepted starts to replay. Other types do nothing.
void uploadRequestCompleted(ConnectionInfo& ci);

}  // namespace korvo
