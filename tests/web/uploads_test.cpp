// Uploads through the real server with libcurl's multipart forms: sound sets (zip and
// xsnd), samples, recordings, the configuration form and the single-field sound
// updates; refused, broken and dropped uploads leave nothing behind.
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include "soundsets/xsnd.h"
#include "support/loopback.h"
#include "tools/upload_client.h"
#include "web/connection_info.h"
#include "web/uploads.h"
#include "web_fixture.h"

namespace korvo::test {
namespace {

namespace fs = std::filesystem;

class UploadsTest : public WebFixture {
 protected:
  void SetUp() override {
    WebFixture::SetUp();
    start();
    writeSineWav(dir.path() / "tone.wav", 0.05, 8000, 440);
    wav = readFile(dir.path() / "tone.wav");
  }
  FormReply post(const std::string& path, const std::vector<FormPart>& parts) {
    return postForm(http->boundPort(), path, parts);
  }
  // POST with a url-encoded body, as the configuration page and the sound editor send.
  std::string postFields(const std::string& path, const std::string& body) {
    return client->send({"POST", path, body, {"Content-Type: application/x-www-form-urlencoded"}}).body;
  }
  int setCount() {
    auto lock = engine->lock();
    return engine->catalogue().maxSoundSets;
  }
  std::string soundDir(unsigned id) {
    auto lock = engine->lock();
    return engine->index().getSampleForId(id)->basepath;
  }
  // A raw connection that sends a POST head and the start of a file part, and stays.
  Fd startRawUpload(const std::string& path, unsigned long long claimedLength, std::size_t sendBytes) {
    Fd s = connectTcp(http->boundPort());
    EXPECT_TRUE(s);
    std::string msg = "POST " + path + " HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/form-data; boundary=BND\r\n" +
                      "Content-Length: " + std::to_string(claimedLength) + "\r\n\r\n" +
                      "--BND\r\nContent-Disposition: form-data; name=\"file\"; filename=\"big.zip\"\r\n" +
                      "Content-Type: application/zip\r\n\r\n" + std::string(sendBytes, 'x');
    EXPECT_EQ(send(s.get(), msg.data(), msg.size(), MSG_NOSIGNAL), static_cast<ssize_t>(msg.size()));
    return s;
  }

  std::string wav;
};

TEST_F(UploadsTest, ZipSetsAreUnpackedAndJoinTheCatalogue) {
  const auto zip = makeZip(dir.path() / "three.zip", {{"three/music/1-a/a.wav", wav}, {"three/sfx/", ""}});
  EXPECT_EQ(post("/soundsets", fileForm(zip, "three.zip")).body, postOk("Soundset added."));
  EXPECT_EQ(readFile(base / "three/music/1-a/a.wav"), wav);
  EXPECT_TRUE(fs::is_directory(base / "three/sfx"));
  EXPECT_EQ(setCount(), 3);

  // Without a file name the archive is "1.zip"; it is unpacked and not kept.
  const auto four = makeZip(dir.path() / "four.zip", {{"four/music/2-b/b.wav", wav}});
  EXPECT_EQ(post("/soundsets", fileForm(four, std::nullopt)).body, postOk("Soundset added."));
  EXPECT_EQ(namesIn(base), (std::vector<std::string>{"four", "one", "three", "two"}));
  EXPECT_EQ(setCount(), 4);
}

TEST_F(UploadsTest, RefusedSetUploadsLeaveNothingBehind) {
  const auto before = namesIn(base);
  const auto good = makeZip(dir.path() / "g.zip", {{"five/music/1-a/a.wav", wav}});
  const auto slip = makeZip(dir.path() / "s.zip", {{"five/music/1-a/a.wav", wav}, {"../evil.wav", wav}});
  const auto clash = makeZip(dir.path() / "c.zip", {{"one/music/9-x/x.wav", wav}});
  LogCapture log;
  const std::pair<std::vector<FormPart>, std::string> cases[] = {
      {fileForm(slip, "slip.zip"), "Soundset archive could not be unpacked."},
      {fileForm("PK\x03\x04 not really a zip", "broken.zip"), "Soundset archive could not be unpacked."},
      {fileForm(clash, "clash.zip"), "Soundset already exists. Remove it first."},
      {fileForm("not a container", "bad.xsnd"), "Soundset file is not a valid xsnd container."},
      {fileForm(good, "readme.txt"), "Soundset must be a .zip or .xsnd file."},
      {fileForm(good, "../up.zip"), "File name not valid."},
      {{{"file", good, "late.zip"}}, "Upload incomplete."},
      {{{"other", "x", std::nullopt}}, "Upload refused: no file key provided."},
  };
  for (const auto& [form, answer] : cases) {
    EXPECT_EQ(post("/soundsets", form).body, postErr(answer)) << answer;
    EXPECT_EQ(namesIn(base), before) << answer;
  }
  EXPECT_FALSE(fs::exists(dir.path() / "evil.wav"));
  EXPECT_TRUE(fs::exists(base / "one/music/1-theme/theme.wav"));
  EXPECT_FALSE(fs::exists(base / "one/music/9-x"));
  EXPECT_TRUE(log.contains("upload file name not valid: '../up.zip'"));
  EXPECT_TRUE(log.contains("no file key provided -> abort"));
  EXPECT_EQ(setCount(), 2);
}

TEST_F(UploadsTest, XsndSetIsKeptOnlyWhenItReadsAsAContainer) {
  const auto packed = dir.path() / "packed.xsnd";
  {
    auto lock = engine->lock();
    ASSERT_EQ(writeSamplesToBinary(engine->index(), packed.string(), false), 0);
  }
  EXPECT_EQ(post("/soundsets", fileForm(readFile(packed), "packed.xsnd")).body, postOk("Soundset added."));
  EXPECT_EQ(readFile(base / "packed.xsnd"), readFile(packed));
  EXPECT_EQ(setCount(), 3);
  EXPECT_EQ(post("/soundsets", fileForm(readFile(packed), "packed.xsnd")).body,
            postErr("Soundset already exists. Remove it first."));
  EXPECT_TRUE(hiddenEntries(base).empty());
}

TEST_F(UploadsTest, SamplesJoinTheirSoundUnderFreeNames) {
  const fs::path sound = soundDir(10);
  EXPECT_EQ(post("/sounds/10/sample/add", fileForm(wav, "boom.wav")).body, postOk("Sample added."));
  EXPECT_EQ(post("/sounds/10/sample/add", fileForm(wav, "boom.wav")).body, postOk("Sample added."));
  EXPECT_EQ(readFile(sound / "boom.wav"), wav);
  EXPECT_EQ(readFile(sound / "1-boom.wav"), wav);
  {
    auto lock = engine->lock();
    EXPECT_EQ(engine->index().getSampleForId(10)->samples.size(), 3u);
  }
  EXPECT_EQ(post("/sounds/999/sample/add", fileForm(wav, "boom.wav")).body, postErr("Sample could not be added."));
  EXPECT_EQ(post("/sounds/10/sample/add", fileForm(wav, "..")).body, postErr("File name not valid."));
  EXPECT_TRUE(hiddenEntries(sound).empty());
}

TEST_F(UploadsTest, RecordingIsReplayedWhenValid) {
  EXPECT_EQ(post("/recording", {{"file", "hello\nworld\n", "junk.rec"}}).body,
            postErr("Rec file refused: it is not a valid recording."));
  EXPECT_FALSE(bus->recorder().isReplaying());

  const std::string rec = "# bus recording v1 protocol=DATAEAST\n0 0x01\n5 0x0a\n";
  EXPECT_EQ(post("/recording", {{"file", rec, "game.rec"}}).body, postOk("Rec file received. Playback starts"));
  ASSERT_TRUE(waitFor([&] { return bus->recorder().isReplaying(); }));
  EXPECT_EQ(bus->recorder().replayLength(), 2u);
}

TEST_F(UploadsTest, ConfigurationFormIsWrittenAsOneBatch) {
  EXPECT_EQ(postFields("/config", "volume=50&soundset=2"), postOk("Config updated. Please reload."));
  EXPECT_EQ(readFile(base / "mellosound.ini"), "volume=50\nsoundset=2\n");
  EXPECT_EQ(loop.exitCode(), 1);  // the saved settings take effect by a restart
  EXPECT_NE(loop.stopAt(), 0u);
  // The page never sees the password: its empty field leaves the stored one alone.
  ctx->httpPassword = "s3cret";
  Request save{"POST", "/config", "http_password=&volume=60", {"Content-Type: application/x-www-form-urlencoded"}};
  save.userpwd = "admin:s3cret";
  EXPECT_EQ(client->send(save).body, postOk("Config updated. Please reload."));
  EXPECT_EQ(readFile(base / "mellosound.ini"), "http_password=s3cret\nvolume=60\n");
  ctx->httpPassword.clear();
  EXPECT_EQ(postFields("/config", "volume=50&soundset=2"), postOk("Config updated. Please reload."));
  // A key with '=' would smuggle in a setting of its own.
  EXPECT_EQ(postFields("/config", "lua%3D1%26x=50&volume=1"), postErr("Config not valid."));
  EXPECT_EQ(readFile(base / "mellosound.ini"), "volume=50\nsoundset=2\n");
}

TEST_F(UploadsTest, SingleFieldUpdatesOfOneSound) {
  EXPECT_EQ(postFields("/sounds/10/serial", "value=PORT%201%20on"), postOk("serialCmd updated"));
  EXPECT_EQ(postFields("/sounds/10/gain", "value=20"), postOk("gain updated"));
  EXPECT_EQ(postFields("/sounds/10/ducking", "value=40"), postOk("ducking updated"));
  EXPECT_EQ(postFields("/sounds/10/shaker", "value=100,200"), postOk("shaker updated"));
  // PINSOUND sets keep no names or preload flags per sound.
  EXPECT_EQ(postFields("/sounds/10/preload", "value=true"), postErr("preload per effect not supported"));
  EXPECT_EQ(postFields("/sounds/10/name", "value=boom"), postErr("name update not supported"));
  {
    auto lock = engine->lock();
    const AudioSample* s = engine->index().getSampleForId(10);
    EXPECT_EQ(s->serialcmd, "PORT 1 on");
    EXPECT_EQ(s->ducking, 40u);
    EXPECT_EQ(s->shakersequence, (std::vector<uint32_t>{100, 200}));
  }
  EXPECT_EQ(postFields("/sounds/10/serial", "value="), postOk("serialCmd updated"));
  {
    auto lock = engine->lock();
    EXPECT_EQ(engine->index().getSampleForId(10)->serialcmd, "");
  }
  EXPECT_EQ(postFields("/sounds/10/name", "value="), postErr("could not update name (invalid)"));
  EXPECT_EQ(postFields("/sounds/999/preload", "value=1"), postErr("could not set preload"));
  EXPECT_EQ(postFields("/sounds/999/type", "value=2"), postErr("something went wrong"));
  EXPECT_EQ(postFields("/sounds/999/gain", "value=2"), postOk("gain updated"));
  EXPECT_EQ(postFields("/sounds//gain", "value=2"), postErr("no sound id given"));
}

TEST_F(UploadsTest, DroppedUploadIsRemoved) {
  Fd conn = startRawUpload("/soundsets", 50'000'000, 300'000);
  ASSERT_TRUE(waitFor([&] { return !hiddenEntries(base).empty(); }));
  conn.reset();
  ASSERT_TRUE(waitFor([&] { return hiddenEntries(base).empty(); }));
  EXPECT_EQ(namesIn(base), (std::vector<std::string>{"one", "two"}));
}

TEST_F(UploadsTest, UploadLargerThanTheFreeSpaceIsRefusedBeforeWriting) {
  LogCapture log;
  Fd conn = startRawUpload("/soundsets", 1'000'000'000'000'000ULL, 300'000);
  // The refusal leaves nothing to see on disk: once the server has taken every byte
  // sent and answered another request, the one thread has been through the upload's
  // first piece; stopping it makes its log safe to read.
  ASSERT_TRUE(waitFor([&] {
    int unsent = 0;
    return ioctl(conn.get(), SIOCOUTQ, &unsent) == 0 && unsent == 0;
  }));
  body("/version");
  http->stopHttpService();
  EXPECT_TRUE(log.contains("bytes does not fit into " + base.string()));
  EXPECT_TRUE(hiddenEntries(base).empty());
}

}  // namespace
}  // namespace korvo::test
