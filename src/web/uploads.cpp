#include "web/uploads.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "bus/session_recorder.h"
#include "core/settings.h"
#include "sound/sdl_sound.h"
#include "soundsets/editing.h"
#include "soundsets/unzip.h"
#include "soundsets/xsnd.h"
#include "web/ops_handlers.h"
#include "web/responses.h"
#include "web/safe_path.h"
#include "web/upload_file.h"
#include "web/web_context.h"

namespace korvo {

namespace fs = std::filesystem;

// ---- shared pieces ----

WebContext& contextOf(const ConnectionInfo& ci) { return ci.ctx ? *ci.ctx : webContext(); }

void logPostCall(const ConnectionInfo& ci, bool trace, MHD_ValueKind kind, const char* key, const char* filename,
                 const char* contentType, const char* transferEncoding, const char* data, uint64_t off,
                 size_t size) {
  LOG(trace ? LEVEL_TRACE : LEVEL_DEBUG,
      "connCtx: %p, kind: %d, key: %s, filename: %s, contentType: %s, TransferEncoding: %s, data: %p, off: %lu, "
      "size: %zu",
      static_cast<const void*>(&ci), static_cast<int>(kind), key ? key : "(null)", filename ? filename : "(null)",
      contentType ? contentType : "(null)", transferEncoding ? transferEncoding : "(null)",
      static_cast<const void*>(data), static_cast<unsigned long>(off), size);
}

MHD_Result decide(ConnectionInfo& ci, bool ok, std::string_view message) {
  ci.answerstring = ok ? makeSuccessAnswer(message) : makeFailedAnswer(message);
  ci.contentType = "application/json";
  ci.responseCode = MHD_HTTP_OK;
  if (!ok) ci.fp.discard();
  return MHD_NO;
}

bool beginUpload(ConnectionInfo& ci, const std::string& dir, const char* clientName, const std::string& destination) {
  if (clientName && *clientName && !isSafeName(clientName)) {
    LOG(LEVEL_ERROR, "upload file name not valid: '%s'", clientName);
    decide(ci, false, "File name not valid.");
    return false;
  }
  // The header itself, not the record's 32-bit copy: a claim beyond 4 GB must not wrap.
  const unsigned long long length = ci.connection ? getContentLen(ci.connection) : ci.contentLength;
  const long long space = freeSpaceOf(dir);
  if (space >= 0 && length > static_cast<unsigned long long>(space)) {
    LOG(LEVEL_ERROR, "upload of %llu bytes does not fit into %s (%lld bytes free)", length, dir.c_str(), space);
    decide(ci, false, "Not enough free space for the upload.");
    return false;
  }
  if (!ci.fp.create(dir)) {
    LOG(LEVEL_ERROR, "could not open %s", destination.c_str());
    decide(ci, false, "Upload failed.");
    return false;
  }
  LOG(LEVEL_INFO, "writing file %s", destination.c_str());
  return true;
}

bool appendUpload(ConnectionInfo& ci, const char* data, size_t size) {
  if (size == 0) return true;
  if (!ci.fp.write(data, size)) {
    LOG(LEVEL_ERROR, "could not write upload file %s: %s", ci.fp.tempPath().c_str(), strerror(errno));
    LOG(LEVEL_ERROR, "write to upload file ? failed");
    decide(ci, false, "Upload failed.");
    return false;
  }
  ci.processed = static_cast<uint32_t>(ci.fp.written());
  return true;
}

MHD_Result refuseKey(ConnectionInfo& ci) {
  LOG(LEVEL_ERROR, "no file key provided -> abort");
  return decide(ci, false, "Upload refused: no file key provided.");
}

MHD_Result receiveUploadPiece(const UploadForm& form, void* cls, MHD_ValueKind kind, const char* key,
                              const char* filename, const char* contentType, const char* transferEncoding,
                              const char* data, uint64_t off, size_t size) {
  ConnectionInfo& ci = connectionOf(cls);
  logPostCall(ci, false, kind, key, filename, contentType, transferEncoding, data, off, size);
  if (ci.answerstring) return MHD_NO;
  const std::string_view k = key ? key : "";
  if (k == "file") {
    if (!ci.fp.exists() && !form.begin(ci, filename)) return MHD_NO;
    if (!appendUpload(ci, data, size)) return MHD_NO;
    if (form.written) form.written(ci, size);
    return MHD_YES;
  }
  if (k == "endOfUpload") return form.finish(ci);
  return form.other ? form.other(ci, key, data, size) : refuseKey(ci);
}

// ---- sound sets ----

namespace {

bool isZipName(std::string_view name) { return endsWith(name, ".zip"); }
bool isXsndName(std::string_view name) { return endsWith(name, ".xsnd"); }

// Top-level names of an unpacked archive; an error when one is already installed.
bool collectNewSets(const fs::path& staging, const fs::path& base, std::vector<std::string>& names,
                    std::string& clash) {
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(staging, ec)) {
    const std::string name = e.path().filename().string();
    std::error_code missing;  // set for a name that is free
    if (fs::exists(fs::symlink_status(base / name, missing))) {
      clash = name;
      return false;
    }
    names.push_back(name);
  }
  return !ec;
}

// Unpacks into a hidden directory beside the sets and moves its top-level entries in
// only when every entry was written: a damaged or hostile archive leaves nothing.
// False when refused (the answer is then decided).
bool installZipSet(ConnectionInfo& ci, const std::string& base) {
  std::string staging = base + "/.unpack.tmpXXXXXX";
  if (!mkdtemp(staging.data())) {
    LOG(LEVEL_ERROR, "cannot create %s: %s", staging.c_str(), strerror(errno));
    decide(ci, false, "Upload failed.");
    return false;
  }
  struct Cleanup {
    std::string dir;
    ~Cleanup() {
      std::error_code ec;
      fs::remove_all(dir, ec);
    }
  } cleanup{staging};
  const int rc = unzip(ci.fp.tempPath().c_str(), staging.c_str());
  LOG(LEVEL_INFO, "deleting tmp zip %s", ci.fp.tempPath().c_str());
  ci.fp.discard();
  if (rc != UNZIP_OK) {
    LOG(LEVEL_ERROR, "soundset archive refused (unzip result %d)", rc);
    decide(ci, false, "Soundset archive could not be unpacked.");
    return false;
  }
  std::vector<std::string> names;
  std::string clash;
  if (!collectNewSets(staging, base, names, clash)) {
    LOG(LEVEL_ERROR, "soundset archive refused: '%s' exists already", clash.c_str());
    decide(ci, false, "Soundset already exists. Remove it first.");
    return false;
  }
  if (names.empty()) {
    LOG(LEVEL_ERROR, "soundset archive refused: it is empty");
    decide(ci, false, "Soundset archive is empty.");
    return false;
  }
  for (const auto& name : names) {
    std::error_code ec;
    fs::rename(fs::path(staging) / name, fs::path(base) / name, ec);
    if (ec) LOG(LEVEL_ERROR, "cannot move %s into %s: %s", name.c_str(), base.c_str(), ec.message().c_str());
  }
  syncDirectoryOf(base + "/.");
  return true;
}

bool installXsndSet(ConnectionInfo& ci, const std::string& base) {
  SampleIndex scratch;  // the upload's own index: the loaded set is not touched
  if (readSamplesFromBinary(scratch, ci.fp.tempPath()) != 0) {
    LOG(LEVEL_ERROR, "uploaded soundset %s is not an xsnd container", ci.filename.c_str());
    decide(ci, false, "Soundset file is not a valid xsnd container.");
    return false;
  }
  const std::string target = base + "/" + ci.filename;
  if (fileExists(target)) {
    LOG(LEVEL_ERROR, "soundset refused: %s exists already", target.c_str());
    decide(ci, false, "Soundset already exists. Remove it first.");
    return false;
  }
  if (!ci.fp.commitTo(target)) {
    decide(ci, false, "Upload failed.");
    return false;
  }
  return true;
}

bool beginSoundset(ConnectionInfo& ci, const char* filename) {
  ci.filename = filename && *filename ? filename : "1.zip";
  if (!isZipName(ci.filename) && !isXsndName(ci.filename)) {
    LOG(LEVEL_ERROR, "soundset upload %s is neither .zip nor .xsnd", ci.filename.c_str());
    decide(ci, false, "Soundset must be a .zip or .xsnd file.");
    return false;
  }
  const std::string& base = contextOf(ci).baseDir;
  return beginUpload(ci, base, filename, base + "/" + ci.filename);
}

MHD_Result finishSoundset(ConnectionInfo& ci) {
  WebContext& ctx = contextOf(ci);
  if (!ci.fp.exists()) return decide(ci, false, "Upload refused: no file received.");
  if (!ci.fp.finish()) return decide(ci, false, "Upload failed.");
  const bool zip = isZipName(ci.filename);
  if (!(zip ? installZipSet(ci, ctx.baseDir) : installXsndSet(ci, ctx.baseDir))) return MHD_NO;
  ctx.engine.searchSoundSets();  // the new set joins the catalogue now
  return decide(ci, true, "Soundset added.");
}

}  // namespace

MHD_Result uploadSoundsetPostCallback(void* cls, MHD_ValueKind kind, const char* key, const char* filename,
                                      const char* contentType, const char* transferEncoding, const char* data,
                                      uint64_t off, size_t size) {
  static constexpr UploadForm form{beginSoundset, nullptr, finishSoundset, nullptr};
  return receiveUploadPiece(form, cls, kind, key, filename, contentType, transferEncoding, data, off, size);
}

// ---- samples ----

namespace {

// The directory a sample of sound `id` is stored in (the sound's directory, or the
// container's for an xsnd set); empty for an unknown sound.
std::string sampleDirectory(SoundEngine& engine, int id) {
  auto lock = engine.lock();
  AudioSample* s = engine.getSampleForId(id);
  if (!s) return {};
  if (engine.index().setType() != XSNDFILE) return s->basepath;
  return fs::path(s->basepath).parent_path().string();
}

bool beginSample(ConnectionInfo& ci, const char* filename) {
  if (sscanf(ci.url.c_str(), "/sounds/%d/sample/add", &ci.id) != 1) {
    decide(ci, false, "Sample could not be added.");
    return false;
  }
  ci.filename = filename ? filename : "";
  const std::string dir = sampleDirectory(contextOf(ci).engine, ci.id);
  if (dir.empty() || ci.filename.empty()) {
    LOG(LEVEL_ERROR, "could not create upload file '%s'", ci.filename.c_str());
    decide(ci, false, "Sample could not be added.");
    return false;
  }
  return beginUpload(ci, dir, filename, dir + "/" + ci.filename);
}

void sampleWritten(const ConnectionInfo&, size_t size) { LOG(LEVEL_DEBUG, "written %zu byte to file sample", size); }

MHD_Result ignoreSampleKey(ConnectionInfo&, const char* key, const char*, size_t) {
  LOG(LEVEL_DEBUG, "key '%s' ignored", key ? key : "(null)");
  return MHD_YES;
}

MHD_Result finishSample(ConnectionInfo& ci) {
  if (!ci.fp.exists() || !ci.fp.finish()) return decide(ci, false, "Sample could not be added.");
  SoundEngine& engine = contextOf(ci).engine;
  int rc;
  {
    auto lock = engine.lock();
    rc = addSampleToSound(engine.index(), static_cast<unsigned>(ci.id), ci.fp.tempPath(), ci.filename);
  }
  ci.fp.discard();  // the set holds its own copy now (or the upload was refused)
  return decide(ci, rc == 0, rc == 0 ? "Sample added." : "Sample could not be added.");
}

}  // namespace

MHD_Result sampleUploadPostCallback(void* cls, MHD_ValueKind kind, const char* key, const char* filename,
                                    const char* contentType, const char* transferEncoding, const char* data,
                                    uint64_t off, size_t size) {
  static constexpr UploadForm form{beginSample, sampleWritten, finishSample, ignoreSampleKey};
  return receiveUploadPiece(form, cls, kind, key, filename, contentType, transferEncoding, data, off, size);
}

// ---- recordings ----

namespace {

std::string recordingDirectory() {
  const char* tmp = getenv("TMPDIR");
  return tmp && *tmp ? tmp : "/tmp";
}

bool beginRecording(ConnectionInfo& ci, const char*) {
  if (!contextOf(ci).recorder) {
    decide(ci, false, "Rec file refused: no bus to replay it on.");
    return false;
  }
  return beginUpload(ci, recordingDirectory(), nullptr, recordingDirectory() + "/a<n>.rec");
}

void recordingWritten(const ConnectionInfo& ci, size_t size) {
  LOG(LEVEL_DEBUG, "written %zu byte to file '%s'", size, ci.fp.tempPath().c_str());
}

// Keeps a recording that parses completely and has something to replay; its final
// name ("a<n>.rec") goes to ci.filename, which the service replays when the request
// completes.
MHD_Result finishRecording(ConnectionInfo& ci) {
  if (!ci.fp.exists() || !ci.fp.finish()) return decide(ci, false, "Rec file refused: nothing received.");
  int skipped = 0;
  std::ifstream in(ci.fp.tempPath());
  auto events = SessionRecorder::parseRecording(in, ci.fp.tempPath(), settings.protocol.load(), &skipped);
  if (skipped > 0 || events.empty()) {
    LOG(LEVEL_ERROR, "uploaded recording refused: %d malformed lines, %zu bytes", skipped, events.size());
    return decide(ci, false, "Rec file refused: it is not a valid recording.");
  }
  std::random_device rd;
  const std::string target = strFormat("%s/a%u.rec", recordingDirectory().c_str(), rd() % 1000000000u);
  if (!ci.fp.commitTo(target)) return decide(ci, false, "Rec file refused: it could not be stored.");
  ci.filename = target;
  return decide(ci, true, "Rec file received. Playback starts");
}

}  // namespace

MHD_Result recordingPostCallback(void* cls, MHD_ValueKind kind, const char* key, const char* filename,
                                 const char* contentType, const char* transferEncoding, const char* data,
                                 uint64_t off, size_t size) {
  static constexpr UploadForm form{beginRecording, recordingWritten, finishRecording, nullptr};
  return receiveUploadPiece(form, cls, kind, key, filename, contentType, transferEncoding, data, off, size);
}

// ---- end of the body ----

void uploadBodyComplete(ConnectionInfo& ci) {
  if (ci.answerstring) return;
  switch (ci.connectiontype) {
    case UPLOAD_REC_POST:
      finishRecording(ci);
      break;
    case SOUNDSET_UPLOAD_POST:
    case SAMPLE_UPLOAD_POST:
    case FIRMWARE_UPLOAD_POST:
      LOG(LEVEL_ERROR, "upload %s ended without endOfUpload", ci.url.c_str());
      decide(ci, false, "Upload incomplete.");
      break;
    default:
      break;
  }
}

void uploadRequestCompleted(ConnectionInfo& ci) {
  WebContext& ctx = contextOf(ci);
  if (ci.connectiontype != UPLOAD_REC_POST || ci.filename.empty() || !ctx.recorder) return;
  ctx.recorder->startPlayback(ci.filename);
  ci.filename.clear();
}

}  // namespace korvo
