// The AltSound export over the real server: the zip that a download answers, read back
// with libzip and with the daemon's own AltSound reader, and the refusals, none of
// which leaves a file behind.
#include <zip.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "soundsets/altsound.h"
#include "soundsets/sample_index.h"
#include "soundsets/unzip.h"
#include "web_fixture.h"

namespace korvo {
namespace {

namespace fs = std::filesystem;
using Export = test::WebFixture;
using test::err;

// Every entry of the archive at `path`: name -> bytes.
std::map<std::string, std::string> entries(const fs::path& path) {
  std::map<std::string, std::string> out;
  int error = 0;
  ZipHandle za(zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error));
  EXPECT_TRUE(za) << "libzip error " << error;
  if (!za) return out;
  for (zip_int64_t i = 0; i < zip_get_num_entries(za.get(), 0); ++i) {
    zip_stat_t st;
    zip_stat_init(&st);
    EXPECT_EQ(zip_stat_index(za.get(), i, 0, &st), 0);
    ZipFileHandle f(zip_fopen_index(za.get(), i, 0));
    EXPECT_TRUE(f) << st.name;
    std::string bytes(st.size, '\0');
    if (f) {
      EXPECT_EQ(zip_fread(f.get(), bytes.data(), st.size), static_cast<zip_int64_t>(st.size));
    }
    out[st.name] = bytes;
  }
  return out;
}

// Names in the base directory that an export might have left.
std::set<std::string> leftovers(const fs::path& base) {
  std::set<std::string> out;
  for (const auto& e : fs::directory_iterator(base))
    if (e.path().filename().string().rfind(".altsound-export", 0) == 0) out.insert(e.path().filename().string());
  return out;
}

TEST_F(Export, AnswersTheSetAsAnAltSoundPack) {
  start();
  test::Reply r = get("/soundsets/two/altsound.zip");
  ASSERT_EQ(r.code, CURLE_OK);
  EXPECT_EQ(r.status, 200);
  EXPECT_TRUE(r.hasHeader("Content-Type: application/zip")) << r.headers;
  EXPECT_TRUE(r.hasHeader("Content-Disposition: attachment; filename=\"two-altsound.zip\"")) << r.headers;
  const fs::path zip = dir.path() / "two.zip";
  test::writeFile(zip, r.body);

  auto files = entries(zip);
  const std::map<std::string, fs::path> copies = {
      {"0x0001-theme.wav", base / "two/music/1-theme/theme.wav"}, {"0x000A-beep.wav", base / "two/sfx/10-beep/beep.wav"},
      {"0x000B-a.wav", base / "two/sfx/11-twin/a.wav"},           {"0x000B-b.wav", base / "two/sfx/11-twin/b.wav"},
      {"0x0014-talk.wav", base / "two/voice/20-talk/talk.wav"}};
  ASSERT_EQ(files.size(), copies.size() + 1);
  for (const auto& [name, original] : copies) EXPECT_EQ(files[name], test::readFile(original)) << name;

  // The table: the full header, one row per file naming its copy, the type last.
  const std::string& csv = files["altsound.csv"];
  ASSERT_EQ(csv.rfind("ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME,GROUP,SHAKER,SERIAL,PRELOAD,STOPCMD,TYPE\n", 0), 0u);
  std::set<std::string> rows;
  std::size_t start = csv.find('\n') + 1;
  for (std::size_t end; (end = csv.find('\n', start)) != std::string::npos; start = end + 1) {
    auto f = splitCsvLine(std::string_view(csv).substr(start, end - start));
    ASSERT_EQ(f.size(), 14u);
    rows.insert(f[0].value + " " + f[7].value + " " + f[13].value);
  }
  EXPECT_EQ(rows, (std::set<std::string>{"0x0001 0x0001-theme.wav music", "0x000A 0x000A-beep.wav sfx",
                                         "0x000B 0x000B-a.wav sfx", "0x000B 0x000B-b.wav sfx",
                                         "0x0014 0x0014-talk.wav voice"}));

  // Unpacked, it is an AltSound set the daemon reads again.
  const fs::path unpacked = dir.path() / "unpacked";
  ASSERT_EQ(unzip(zip.string(), unpacked.string()), UNZIP_OK);
  Settings s;
  SampleIndex idx(s);
  ASSERT_EQ(readSamplesFromCsv(idx, unpacked.string()), 0);
  ASSERT_NE(idx.getSampleForId(11), nullptr);
  EXPECT_EQ(idx.getSampleForId(11)->samples.size(), 2u);
  EXPECT_EQ(idx.getSampleForId(20)->type, VOICE);
  EXPECT_TRUE(leftovers(base).empty());
  // The playing set was not touched.
  EXPECT_EQ(body("/soundset"), "{ \"soundset\": \"1\", \"type\": 0 }");
}

TEST_F(Export, RefusesBadNamesAndSetsThatDoNotConvert) {
  // An AltSound set whose table names a file that is not there cannot become a pack.
  test::writeFile(base / "broken/altsound.csv", "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME\n0x05,1,0,50,0,0,gone,gone.wav\n");
  // A PINSOUND set without a single sound.
  fs::create_directories(base / "empty/music");
  start();
  ASSERT_NE(body("/soundsets?refresh=1").find("\"name\": \"broken\""), std::string::npos);

  EXPECT_EQ(body("/soundsets/three/altsound.zip"), err("unknown sound set 'three'"));
  EXPECT_EQ(body("/soundsets/../altsound.zip"), err("invalid sound set name '..'"));
  EXPECT_EQ(body("/soundsets/one/../../altsound.zip"), err("invalid sound set name 'one/../..'"));
  EXPECT_EQ(body("/soundsets/broken/altsound.zip"), err("sound set 'broken' could not be converted (see the log)"));
  EXPECT_EQ(body("/soundsets/empty/altsound.zip"), err("sound set 'empty' has no sounds to export"));
  EXPECT_TRUE(leftovers(base).empty());
  EXPECT_EQ(test::readFile(base / "broken/altsound.csv"),
            "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME\n0x05,1,0,50,0,0,gone,gone.wav\n");
}

}  // namespace
}  // namespace korvo
