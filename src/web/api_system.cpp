// The configuration catalogue, the log files, restart and version.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/stringutil.h"
#include "core/options.h"
#include "core/settings.h"
#include "platform/clock.h"
#include "sound/sdl_sound.h"
#include "web/api_common.h"
#include "web/api_handlers.h"
#include "web/responses.h"
#include "web/web_context.h"

namespace korvo {

namespace {

// Rows whose value is never sent back.
bool isSecret(const SettingsMap& row) { return row.name == "http_password"; }

std::string enumOptions(const SettingsMap& row) {
  Joined options(", ");
  for (std::size_t i = 0; i < row.values.size() && i < 10 && i < row.labels.size(); ++i) {
    if (row.labels[i].empty()) break;
    options.add(strFormat("{ \"value\": \"%s\", \"label\": \"%s\" }", escape(row.values[i]).c_str(),
                          escape(row.labels[i]).c_str()));
  }
  return "\"options\": [" + options.text() + "], ";
}

std::string stopCommands() {
  Joined cmds(" ");
  for (int i = 0; i < settings.noOfStopCmds && i < kMaxStopCmds; ++i) cmds.add(strFormat("0x%02x", settings.stopCmds[i]));
  return cmds.text();
}

std::string configValue(const SettingsMap& row) {
  switch (row.type) {
    case INT:
    case ENUM: return strFormat(" \"value\": %d }", row.intValue());
    case BOOL: return row.intValue() ? " \"value\": true}" : " \"value\": false}";
    case HEX: return strFormat(" \"value\": \"%x\"}", static_cast<unsigned>(row.intValue()));
    case STRING: {
      if (row.name == "stop_cmds") return " \"value\": \"" + stopCommands() + "\"}";
      if (isSecret(row)) return " \"value\": \"\"}";
      const std::string v = row.stringValue();
      return v.empty() ? std::string(" \"value\": null}") : " \"value\": \"" + escape(v) + "\"}";
    }
    case GROUP: break;
  }
  return " \"value\": \"-\" }";
}

}  // namespace

MHD_Result handleGetConfig(MHD_Connection* connection, const char*, char*) {
  Joined rows;
  if (Configuration* config = webContext().configuration) {
    for (const SettingsMap& row : config->masterConfigMap()) {
      if (row.name.empty()) break;
      std::string item = strFormat("{ \"name\": \"%s\", \"displayName\": \"%s\", \"type\": %d,",
                                   escape(row.name).c_str(), escape(row.displayName).c_str(), static_cast<int>(row.type));
      if (row.type == ENUM) item += enumOptions(row);
      rows.add(item + configValue(row));
    }
  }
  return sendJsonResponse(connection, "[" + rows.text() + "]");
}

MHD_Result handleLogFileRequest(MHD_Connection* connection, const char*, char*) {
  LOG(LEVEL_INFO, "request for logfile");
  flushLog();
  const char* type = queryArg(connection, "dl") ? "application/octet-stream" : "text/plain";
  return sendFile(connection, webContext().logFile, type);
}

MHD_Result handleLiveLogFileRequest(MHD_Connection* connection, const char*, char*) {
  const char* since = queryArg(connection, "i");
  const char* level = queryArg(connection, "l");
  const char* filter = queryArg(connection, "f");
  if (level) {
    setLiveLogLevel(atoi(level));
    LOG(LEVEL_INFO, "set live log level to %d", atoi(level));
  }
  if (isNotEmptyString(filter)) {
    setLiveLogFilter(filter);
    LOG(LEVEL_INFO, "set live log filter to '%s'", filter);
  } else {
    setLiveLogFilter(nullptr);
  }
  Joined entries;
  for (const LiveLogEntry& e : Log::instance().readLiveLog(since ? atoi(since) : 0))
    entries.add(strFormat("{\"msg\": \"%s\", \"timestamp\": %lu, \"inc\": %d}", escape(e.msg).c_str(), e.timeInMillis,
                          e.inc));
  return sendJsonResponse(connection, "[" + entries.text() + "]");
}

MHD_Result handleRestart(MHD_Connection* connection, const char*, char* buffer) {
  const char* arg = queryArg(connection, "code");
  const int code = arg ? atoi(arg) : 1;
  const WebContext& ctx = webContext();
  if (!ctx.srvBuild && ctx.stopMainLoop) ctx.stopMainLoop(2000, code);
  return success(connection, buffer, "Hold on. VELT!Audio is %s. ", code == 2 ? "rebooting" : "restarting");
}

MHD_Result handleVersion(MHD_Connection* connection, const char*, char* buffer) {
  // Reading the figure from /proc costs more than the rest of the request; a browser
  // polling /version sees it at most a second old. Per HTTP thread.
  thread_local unsigned long memory = 0, readAt = 0;
  const unsigned long now = millis();
  if (readAt == 0 || now - readAt >= 1000) {
    memory = static_cast<unsigned long>(SoundEngine::getMemoryUsedForSamples());
    readAt = now == 0 ? 1 : now;
  }
  snprintf(buffer, kWorkBufferSize, "{  \"version\": \"%s\", \"srvBuild\": \"%u\", \"memory\": \"%lu\" }", kVersion,
           webContext().srvBuild, memory);
  return sendJsonResponse(connection, buffer);
}

}  // namespace korvo
