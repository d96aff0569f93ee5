// Firmware updates: /firmware/auto against a loopback update server and the /firmware
// upload, with and without an installed Ed25519 key.
#include <sodium.h>

#include "tools/loopback_server.h"
#include "tools/upload_client.h"
#include "web/firmware.h"
#include "web_fixture.h"

namespace korvo::test {
namespace {

namespace fs = std::filesystem;

std::string hex(const unsigned char* p, std::size_t n) {
  std::string out(2 * n + 1, '\0');
  sodium_bin2hex(out.data(), out.size(), p, n);
  out.pop_back();
  return out;
}

class FirmwareTest : public WebFixture {
 protected:
  void SetUp() override {
    WebFixture::SetUp();
    ASSERT_GE(sodium_init(), 0);
    crypto_sign_keypair(pk, sk);
    archive = makeZip(dir.path() / "u.zip", {{"korvo", "new program"}, {"html/index.html", "<html/>"}});
    other = makeZip(dir.path() / "o.zip", {{"korvo", "another program"}});
    server = std::make_unique<LoopbackServer>([this](const std::string& path) { return serve(path); });
    ctx->rootPrefix = (dir.path() / "root").string();
    ctx->updateServer = server->url("/");
    ctx->stopMainLoop = [this](int delayMs, int code) { stops.emplace_back(delayMs, code); };
    start();
  }
  std::string serve(const std::string& path) {
    if (path == "/files/update-1.2.zip") return LoopbackServer::reply(200, archive);
    if (path == "/files/update-1.2.zip.sig") return LoopbackServer::reply(200, sign(archive));
    if (path == "/files/update-1.3.zip") return LoopbackServer::reply(200, other);
    if (path == "/files/update-1.3.zip.sig") return LoopbackServer::reply(200, sign(archive));  // wrong one
    if (path == "/files/update-junk.zip") return LoopbackServer::reply(200, "this is no zip");
    if (path == "/files/update-tls.zip") return LoopbackServer::redirect(302, "https://example.org/u.zip");
    return LoopbackServer::reply(404, "not found");
  }
  std::string sign(const std::string& data) {
    unsigned char sig[crypto_sign_BYTES];
    crypto_sign_detached(sig, nullptr, reinterpret_cast<const unsigned char*>(data.data()), data.size(), sk);
    return hex(sig, sizeof sig);
  }
  void installKey() { writeFile(dir.path() / "root/etc/korvo/update.pub", hex(pk, sizeof pk) + "\n"); }
  fs::path installed() const { return dir.path() / "update/update.zip"; }
  FormReply upload(const std::vector<FormPart>& parts) { return postForm(http->boundPort(), "/firmware", parts); }

  unsigned char pk[crypto_sign_PUBLICKEYBYTES];
  unsigned char sk[crypto_sign_SECRETKEYBYTES];
  std::string archive, other;
  std::unique_ptr<LoopbackServer> server;
  std::vector<std::pair<int, int>> stops;
};

TEST(Firmware, PathsVersionsAndUrls) {
  EXPECT_EQ(updateArchivePath("/var/lib/korvo/sets"), "/var/lib/korvo/update/update.zip");
  EXPECT_EQ(updateArchivePath("/var/lib/korvo/sets/"), "/var/lib/korvo/update/update.zip");
  EXPECT_TRUE(isVersionValid("1.30rc24"));
  for (const char* bad : {"", "..", "1/../x", "1 2", "1\r\nHost: x", "1%41"}) EXPECT_FALSE(isVersionValid(bad)) << bad;
  EXPECT_EQ(firmwareUrl("http://h:8080/", "1.2"), "http://h:8080/files/update-1.2.zip");
  EXPECT_EQ(firmwareUrl("http://h", "1.2"), "http://h/files/update-1.2.zip");
}

TEST_F(FirmwareTest, AutoDownloadPlacesTheArchiveAndAsksForARestart) {
  EXPECT_EQ(body("/firmware/auto"), err("version param not set"));
  EXPECT_EQ(body("/firmware/auto?version=..%2Fx"), err("version param not valid"));
  EXPECT_TRUE(server->requests().empty());

  EXPECT_EQ(body("/firmware/auto?version=1.2"), ok("download successful, will restart in 2 sec ..."));
  EXPECT_EQ(readFile(installed()), archive);
  EXPECT_EQ(stops, (std::vector<std::pair<int, int>>{{2000, 1}}));
  EXPECT_NE(server->requests().at(0).find("GET /files/update-1.2.zip HTTP/1.1\r\n"), std::string::npos);

  EXPECT_EQ(body("/firmware/auto?version=9.9"), err("download error: unexpected response status"));
  EXPECT_EQ(body("/firmware/auto?version=tls"), err("download error: only http supported"));
  EXPECT_EQ(body("/firmware/auto?version=junk"), err("update refused: it is not a zip archive"));
  EXPECT_EQ(readFile(installed()), archive);
  EXPECT_EQ(stops.size(), 1u);
  EXPECT_TRUE(hiddenEntries(installed().parent_path()).empty());
}

TEST_F(FirmwareTest, WithAKeyOnlySignedArchivesAreInstalled) {
  installKey();
  EXPECT_EQ(body("/firmware/auto?version=1.3"), err("update refused: its signature does not verify"));
  EXPECT_FALSE(fs::exists(installed()));
  EXPECT_EQ(body("/firmware/auto?version=1.2"), ok("download successful, will restart in 2 sec ..."));
  EXPECT_EQ(readFile(installed()), archive);
  EXPECT_NE(server->requests().back().find("GET /files/update-1.2.zip.sig "), std::string::npos);
  EXPECT_EQ(body("/firmware/auto?version=junk"), err("download error: unexpected response status"));  // no .sig
  EXPECT_EQ(readFile(installed()), archive);

  writeFile(dir.path() / "root/etc/korvo/update.pub", "not a key");
  EXPECT_EQ(body("/firmware/auto?version=1.2"), err("update refused: the installed update key is not readable"));
}

TEST_F(FirmwareTest, UploadedArchivesAreCheckedTheSameWay) {
  EXPECT_EQ(upload(fileForm(archive, "update.zip")).body, postOk("Firmware uploaded. Please restart."));
  EXPECT_EQ(readFile(installed()), archive);
  EXPECT_EQ(upload(fileForm("no zip at all", "update.zip")).body, postErr("Firmware refused: it is not a zip archive."));
  EXPECT_EQ(readFile(installed()), archive);

  installKey();
  EXPECT_EQ(upload(fileForm(other, "update.zip")).body, postErr("Firmware refused: it has no signature."));
  std::vector<FormPart> signedForm = {{"file", other, "update.zip"},
                                      {"signature", sign(archive), "update.zip.sig"},
                                      {"endOfUpload", "1", std::nullopt}};
  EXPECT_EQ(upload(signedForm).body, postErr("Firmware refused: its signature does not verify."));
  EXPECT_EQ(readFile(installed()), archive);

  // The raw 64 signature bytes are accepted as well as their hexadecimal text.
  unsigned char raw[crypto_sign_BYTES];
  crypto_sign_detached(raw, nullptr, reinterpret_cast<const unsigned char*>(other.data()), other.size(), sk);
  signedForm[1].data = std::string(reinterpret_cast<const char*>(raw), sizeof raw);
  EXPECT_EQ(upload(signedForm).body, postOk("Firmware uploaded. Please restart."));
  EXPECT_EQ(readFile(installed()), other);
  EXPECT_TRUE(hiddenEntries(installed().parent_path()).empty());
  EXPECT_TRUE(stops.empty());  // an upload waits for the user's restart
}

}  // namespace
}  // namespace korvo::test
