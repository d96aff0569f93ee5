// The per-request state of a form POST and the handler shapes of the route table.
//
// Thread: the HTTP thread. A ConnectionInfo is created by the first call of the
// request handler for a POST row, lives in libmicrohttpd's per-request context slot
// and is destroyed by the request-completed callback (which closes and, unless it was
// committed, removes its upload file).
#pragma once

#include <microhttpd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "base/handles.h"
#include "web/upload_file.h"

namespace korvo {

struct WebContext;

// Upload kinds, in this order (their numbers appear in logs).
enum ConnType : int {
  GET_REQ = 0,
  CONFIG_POST = 1,
  UPLOAD_SOUNDSET_POST = 2,  // declared, no route uses it
  UPLOAD_REC_POST = 3,
  UPDATE_SERIAL_POST = 4,
  UPDATE_SHAKER_POST = 5,
  UPDATE_GAIN_POST = 6,
  SAMPLE_UPLOAD_POST = 7,
  SOUNDSET_UPLOAD_POST = 8,
  FIRMWARE_UPLOAD_POST = 9,
  UPDATE_TYPE_POST = 10,
  UPDATE_DUCKING_POST = 11,
  UPDATE_PRELOAD_POST = 12,
  UPDATE_NAME_POST = 13,
};
constexpr int kConnTypeCount = 14;
extern const char* const connectionTypeNames[kConnTypeCount];

// Scratch space every GET handler gets from the request handler.
constexpr std::size_t kWorkBufferSize = 1024;

// A GET handler: (connection, request path, 1024-byte work buffer).
using SimpleHandler = enum MHD_Result (*)(struct MHD_Connection* connection, const char* url, char* buffer);
// libmicrohttpd's post-data iterator; `cls` is the request's ConnectionInfo*. The
// service calls it through a guard, so an exception ends only that request.
using PostCallbackHandler = MHD_PostDataIterator;

using PostProcessorHandle = Handle<MHD_PostProcessor, MHD_destroy_post_processor>;

struct ConnectionInfo {
  static constexpr int kBufferSize = 4096;

  ConnType connectiontype = GET_REQ;
  // The body a post callback has decided on; the next call of the request handler
  // sends it with responseCode and contentType.
  std::optional<std::string> answerstring;
  std::string url;
  unsigned responseCode = MHD_HTTP_OK;
  const char* contentType = "application/json";  // not owned: a literal
  std::array<char, kBufferSize> buffer{};
  int bufferSize = kBufferSize;
  uint32_t contentLength = 0;  // the "Content-Length" header
  uint32_t processed = 0;      // upload bytes written so far
  int noOfKeys = 0;            // form keys counted in url-encoded bodies
  UploadFile fp;               // the upload being written (temporary until committed)
  PostProcessorHandle postprocessor;
  int count = 0;  // calls of the request handler for this request
  int id = 0;     // a number taken from the URL by some callbacks (sound id)
  std::string tmpfileName;
  std::string filename;
  bool bodyComplete = false;  // the first call without data has been seen

  // Set by the service: the context, the connection of this request and the row's
  // callback (the post processor calls it through a guard).
  WebContext* ctx = nullptr;
  struct MHD_Connection* connection = nullptr;
  PostCallbackHandler callback = nullptr;
};

}  // namespace korvo
