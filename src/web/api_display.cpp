// /display: the mini display's frame buffer, so the web page can mirror the panel.
#include "web/api_handlers.h"
#include "web/responses.h"
#include "web/web_context.h"

namespace korvo {

MHD_Result handleGetDisplay(MHD_Connection* connection, const char* url, char*) {
  const WebContext& ctx = webContext();
  if (!ctx.displayFrame) return error404(connection, url);
  const std::vector<uint8_t> frame = ctx.displayFrame();
  return sendResponse(connection, {reinterpret_cast<const char*>(frame.data()), frame.size()}, MHD_HTTP_OK,
                      "application/octet-stream");
}

}  // namespace korvo
