#include "web/firmware.h"

#include <zip.h>

#include <cctype>
#include <cstring>
#include <filesystem>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "web/http_client.h"
#include "web/net_tools.h"
#include "web/ops_handlers.h"
#include "web/responses.h"
#include "web/signature.h"
#include "web/upload_file.h"
#include "web/uploads.h"
#include "web/web_context.h"

namespace korvo {

namespace fs = std::filesystem;

std::string updateArchivePath(const std::string& baseDir) {
  fs::path base = fs::absolute(baseDir.empty() ? fs::path(".") : fs::path(baseDir)).lexically_normal();
  if (!base.has_filename()) base = base.parent_path();  // "/x/sets/" -> "/x/sets"
  return (base.parent_path() / "update" / "update.zip").string();
}

bool isVersionValid(std::string_view version) {
  if (version.empty() || version == "." || version == "..") return false;
  for (char c : version)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') return false;
  return true;
}

std::string firmwareUrl(const std::string& updateServer, std::string_view version) {
  std::string server = updateServer;
  while (!server.empty() && server.back() == '/') server.pop_back();
  return server + "/files/update-" + std::string(version) + ".zip";
}

std::string checkUpdate(const UploadFile& file, const std::optional<std::string>& signature,
                        const std::string& rootPrefix) {
  int err = 0;
  ZipHandle zip(zip_open(file.tempPath().c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &err));
  if (!zip) return "it is not a zip archive";
  zip.reset();
  const std::string keyFile = underRoot(rootPrefix, kUpdateKeyFile);
  if (!fileExists(keyFile)) return {};
  auto key = readPublicKey(keyFile);
  if (!key) return "the installed update key is not readable";
  if (!signature) return "it has no signature";
  auto sig = parseSignature(*signature);
  if (!sig) return "its signature is not readable";
  if (!verifyFileSignature(file.tempPath(), *sig, *key)) return "its signature does not verify";
  return {};
}

std::string installUpdate(UploadFile& file, const std::optional<std::string>& signature,
                          const std::string& rootPrefix, const std::string& target) {
  std::string why = file.finish() ? checkUpdate(file, signature, rootPrefix) : "it could not be written";
  if (why.empty() && !file.commitTo(target)) why = "it could not be stored";
  if (!why.empty()) {
    LOG(LEVEL_ERROR, "firmware update refused: %s", why.c_str());
    LOG(LEVEL_INFO, "deleting tmp zip %s", file.tempPath().c_str());
    file.discard();
  }
  return why;
}

// ---- /firmware/auto ----

namespace {

// The update directory beside the base directory, made when missing. Empty on failure.
std::string updateDirectory(const std::string& target) {
  std::string dir = fs::path(target).parent_path().string();
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) {
    LOG(LEVEL_ERROR, "cannot create %s: %s", dir.c_str(), ec.message().c_str());
    return {};
  }
  return dir;
}

// The detached signature beside the archive on the server ("<url>.sig"), fetched only
// when a key is installed. The http_client code of a failed fetch goes to *rc.
std::optional<std::string> fetchSignature(const WebContext& ctx, const std::string& url, const std::string& dir,
                                          int* rc) {
  *rc = HTTP_SUCCESS;
  if (!fileExists(underRoot(ctx.rootPrefix, kUpdateKeyFile))) return std::nullopt;
  UploadFile sigFile;
  if (!sigFile.create(dir)) {
    *rc = HTTP_OPEN_TARGET;
    return std::nullopt;
  }
  std::string content;
  *rc = http_client(url + ".sig", sigFile);
  if (*rc == HTTP_SUCCESS && (!sigFile.finish() || !readWholeFile(sigFile.tempPath(), content)))
    *rc = HTTP_WRITE_TARGET;
  if (*rc != HTTP_SUCCESS) return std::nullopt;
  return content;
}

}  // namespace

MHD_Result handleDownloadFirmwareAuto(MHD_Connection* connection, const char*, char* buffer) {
  WebContext& ctx = webContext();
  const char* version = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "version");
  if (!version) return failed(connection, buffer, "version param not set");
  if (!isVersionValid(version)) {
    LOG(LEVEL_ERROR, "firmware version refused: '%s'", version);
    return failed(connection, buffer, "version param not valid");
  }
  const std::string target = updateArchivePath(ctx.baseDir);
  const std::string dir = updateDirectory(target);
  UploadFile file;
  if (dir.empty() || !file.create(dir)) return failed(connection, buffer, "download error: %s", get_http_error(HTTP_OPEN_TARGET));
  const std::string url = firmwareUrl(ctx.updateServer, version);
  int rc = http_client(url, file);
  std::optional<std::string> signature;
  if (rc == HTTP_SUCCESS) signature = fetchSignature(ctx, url, dir, &rc);
  if (rc != HTTP_SUCCESS) return failed(connection, buffer, "download error: %s", get_http_error(rc));
  const std::string why = installUpdate(file, signature, ctx.rootPrefix, target);
  if (!why.empty()) return failed(connection, buffer, "update refused: %s", why.c_str());
  if (!ctx.srvBuild && ctx.stopMainLoop) ctx.stopMainLoop(2000, 1);
  return success(connection, buffer, "download successful, will restart in 2 sec ...");
}

// ---- POST /firmware ----

namespace {

// The signature field is collected in ci.buffer; ci.id counts its bytes (a firmware
// upload has no sound id).
bool collectSignature(ConnectionInfo& ci, const char* data, size_t size) {
  if (static_cast<std::size_t>(ci.id) + size > ci.buffer.size()) {
    LOG(LEVEL_ERROR, "firmware signature too long");
    decide(ci, false, "Firmware refused: its signature is not readable.");
    return false;
  }
  std::memcpy(ci.buffer.data() + ci.id, data, size);
  ci.id += static_cast<int>(size);
  return true;
}

bool beginFirmware(ConnectionInfo& ci, const char* filename) {
  const std::string target = updateArchivePath(contextOf(ci).baseDir);
  const std::string dir = updateDirectory(target);
  if (dir.empty()) {
    decide(ci, false, "Upload failed.");
    return false;
  }
  return beginUpload(ci, dir, filename, target);
}

// The detached signature may come in the same form.
MHD_Result firmwareField(ConnectionInfo& ci, const char* key, const char* data, size_t size) {
  if (key && strcmp(key, "signature") == 0) return collectSignature(ci, data, size) ? MHD_YES : MHD_NO;
  return refuseKey(ci);
}

MHD_Result finishFirmware(ConnectionInfo& ci) {
  if (!ci.fp.exists()) return decide(ci, false, "Firmware refused: no file received.");
  std::optional<std::string> signature;
  if (ci.id > 0) signature = std::string(ci.buffer.data(), static_cast<std::size_t>(ci.id));
  const WebContext& ctx = contextOf(ci);
  const std::string why = installUpdate(ci.fp, signature, ctx.rootPrefix, updateArchivePath(ctx.baseDir));
  if (!why.empty()) return decide(ci, false, "Firmware refused: " + why + ".");
  return decide(ci, true, "Firmware uploaded. Please restart.");
}

}  // namespace

MHD_Result uploadFirmwarePostCallback(void* cls, MHD_ValueKind kind, const char* key, const char* filename,
                                      const char* contentType, const char* transferEncoding, const char* data,
                                      uint64_t off, size_t size) {
  static constexpr UploadForm form{beginFirmware, nullptr, finishFirmware, firmwareField};
  return receiveUploadPiece(form, cls, kind, key, filename, contentType, transferEncoding, data, off, size);
}

}  // namespace korvo
