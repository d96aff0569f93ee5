// Port-extender outputs and the session recorder.
#include <cstdio>
#include <cstdlib>

#include "base/log.h"
#include "base/stringutil.h"
#include "bus/session_recorder.h"
#include "web/api_common.h"
#include "web/api_handlers.h"
#include "web/responses.h"
#include "web/web_context.h"

namespace korvo {

MHD_Result handleGetPorts(MHD_Connection* connection, const char*, char*) {
  const WebContext& ctx = webContext();
  const int n = ctx.getNumberOfPorts ? ctx.getNumberOfPorts() : 0;
  const std::vector<uint8_t> states = ctx.getPortStates ? ctx.getPortStates() : std::vector<uint8_t>{};
  Joined items;
  for (int p = 0; p < n; ++p) {
    const bool on = static_cast<std::size_t>(p) < states.size() && states[static_cast<std::size_t>(p)] != 0;
    items.add(strFormat("{ \"port\": \"%d\", \"value\": \"%s\" }", p, on ? "on" : "off"));
  }
  return sendJsonResponse(connection, "[" + items.text() + "]");
}

MHD_Result handleSetPorts(MHD_Connection* connection, const char* url, char* buffer) {
  int p = 0, v = 0;
  if (sscanf(url, "/ports/%d/%d", &p, &v) != 2) return failed(connection, buffer, "bad request");
  if (const auto& set = webContext().setPortExtenderPin) set(p, v != 0);
  return success(connection, buffer, "setting port: %d to %s", p, v != 0 ? "ON" : "OFF");
}

MHD_Result handleRecordingStart(MHD_Connection* connection, const char*, char* buffer) {
  SessionRecorder* rec = webContext().recorder;
  if (!rec) return failed(connection, buffer, "recording not available");
  const std::string file = strFormat("/tmp/%u.rec", static_cast<unsigned>(random() % 20));
  LOG(LEVEL_INFO, "recording was started, writing to %s", file.c_str());
  if (!rec->startRecording(file)) return failed(connection, buffer, "could not start recording. file: %s", file.c_str());
  return success(connection, buffer, "recording started. file: %s", file.c_str());
}

MHD_Result handleRecordingStop(MHD_Connection* connection, const char*, char* buffer) {
  SessionRecorder* rec = webContext().recorder;
  if (!rec || !rec->isRecording()) return failed(connection, buffer, "you must start recording first");
  rec->stopRecording();
  LOG(LEVEL_INFO, "recording was stopped");
  return success(connection, buffer, "recording stopped. rec file: %s", rec->recordingFile().c_str());
}

MHD_Result handleRecordingState(MHD_Connection* connection, const char*, char* buffer) {
  SessionRecorder* rec = webContext().recorder;
  const bool running = rec && rec->isRecording();
  const bool available = rec && !rec->recordingFile().empty();
  snprintf(buffer, kWorkBufferSize, "{  \"state\": \"%s\", \"available\": %s }", running ? "running" : "stopped",
           available ? "true" : "false");
  return sendJsonResponse(connection, buffer);
}

MHD_Result handleRecordingRequest(MHD_Connection* connection, const char* url, char*) {
  SessionRecorder* rec = webContext().recorder;
  const std::string file = rec ? rec->recordingFile() : std::string();
  if (file.empty()) return error404(connection, url);
  return sendFile(connection, file, "application/octet-stream");
}

}  // namespace korvo
