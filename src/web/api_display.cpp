// /display: the mini display's frame buffer, so the web page can mirror the panel.
#include "web/api_handlers.h"
#include "web/responses.h"
#include "web/web_context.h"

namespace korvo {

MHD_Result handleGetDisplay(MHD_Connection* connection, const char* url, char*) {
  const WebContext& ctx = webContext();
  // Without a display the page's mirror asks every few seconds; a plain 404 without the
  // ERROR line of an unknown URL keeps the log readable.
  (void)url;
  if (!ctx.displayFrame)
    return sendResponse(connection, "no display", MHD_HTTP_NOT_FOUND, "text/plain");
  const std::vector<uint8_t> frame = ctx.displayFrame();
  return sendResponse(connection, {reinterpret_cast<const char*>(frame.data()), frame.size()}, MHD_HTTP_OK,
                      "application/octet-stream");
}

}  // namespace korvo
