// Helpers of the upload tests: multipart form POSTs through libcurl (as the web UI
// sends them), zip archives, and a look for upload leftovers.
#pragma once

#include <curl/curl.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/handles.h"
#include "support/zip_builder.h"

namespace korvo::test {

struct FormPart {
  std::string name;
  std::string data;
  std::optional<std::string> filename;  // a file part when set
};

struct FormReply {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string body;
};

inline FormReply postForm(int port, const std::string& path, const std::vector<FormPart>& parts) {
  using Curl = Handle<CURL, curl_easy_cleanup>;
  using Mime = Handle<curl_mime, curl_mime_free>;
  Curl curl(curl_easy_init());
  Mime mime(curl_mime_init(curl.get()));
  for (const FormPart& p : parts) {
    curl_mimepart* part = curl_mime_addpart(mime.get());
    curl_mime_name(part, p.name.c_str());
    curl_mime_data(part, p.data.data(), p.data.size());
    if (p.filename) curl_mime_filename(part, p.filename->c_str());
  }
  FormReply out;
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + path;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_MIMEPOST, mime.get());
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 60L);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, +[](char* p, size_t s, size_t n, void* u) {
    static_cast<std::string*>(u)->append(p, s * n);
    return s * n;
  });
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &out.body);
  out.code = curl_easy_perform(curl.get());
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &out.status);
  return out;
}

// The usual upload form: the file, then the end marker.
inline std::vector<FormPart> fileForm(const std::string& content, std::optional<std::string> filename) {
  return {{"file", content, std::move(filename)}, {"endOfUpload", "1", std::nullopt}};
}

// {  "result" ... } with one blank after the brace, as POST answers are written.
inline std::string postOk(const std::string& m) { return "{ \"result\": \"success\", \"message\": \"" + m + "\" }"; }
inline std::string postErr(const std::string& m) { return "{ \"result\": \"error\", \"message\": \"" + m + "\" }"; }

// Names in `dir` (not recursive) that begin with "." (upload temporaries, staging).
inline std::vector<std::string> hiddenEntries(const std::filesystem::path& dir) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec))
    if (e.path().filename().string().starts_with(".")) out.push_back(e.path().filename().string());
  return out;
}

}  // namespace korvo::test
