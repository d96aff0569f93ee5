// Start-up conversions: -K writes the loaded set as an xsnd container, -T as an
// AltSound table. A container written from the demo set and read back, or written
// again from the container, keeps every sound, file, gain and ducking.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "soundsets/catalogue.h"
#include "soundsets/sample_index.h"
#include "soundsets/xsnd.h"
#include "daemon.h"
#include "support/testutil.h"

namespace fs = std::filesystem;
using namespace korvo;

namespace {

// Conversions run at start-up and the daemon then goes on as usual: once its log says
// start-up is done it is stopped in order. Its exit code; the log in `log`.
int runKorvo(const std::vector<std::string>& args, const std::string& cwd, std::string* log = nullptr) {
  test::Daemon d(args, cwd);
  EXPECT_TRUE(d.waitForOutput("start-up done")) << d.seen();
  const test::Exit r = d.stop();
  if (log) *log = r.out;
  return r.code;
}

// What a sound is, independent of where its files are stored.
struct SoundFacts {
  int type;
  std::string name;
  uint32_t gain, ducking;
  std::vector<std::string> audio;  // the bytes of each file
  bool operator==(const SoundFacts&) const = default;
};

std::map<unsigned, SoundFacts> factsOfContainer(const std::string& path, const test::TempDir& scratch) {
  SampleIndex index;
  EXPECT_EQ(readSamplesFromBinary(index, path), 0);
  std::map<unsigned, SoundFacts> out;
  for (auto& node : index.samplesMap()) {
    const AudioSample& s = *node.value;
    SoundFacts f{static_cast<int>(s.type), s.name, s.gain, s.ducking, {}};
    for (const CompFileChunk& c : s.filechunks) {
      std::string dest = (scratch / "chunk").string();
      EXPECT_EQ(extractContainerFile(path, c, dest), 0);
      f.audio.push_back(test::readFile(dest));
    }
    out[node.key] = f;
  }
  return out;
}

TEST(Conversion, XsndFromTheDemoSetRoundTripsAndExportsCsv) {
  test::TempDir work, base1, base2, scratch;
  fs::copy(test::sourceDir() / "demo", base1.path(), fs::copy_options::recursive);
  test::writeFile(base1 / "mellosound.ini", test::kQuietIni);
  std::string out1 = (work / "demo.xsnd").string();
  ASSERT_EQ(runKorvo({"-a", "-K", out1, base1.str()}, work.str()), 0) << "korvo -K failed";
  ASSERT_TRUE(fs::exists(out1));

  // The container holds what the PINSOUND scan of the same set holds.
  SoundSetCatalogue catalogue;
  catalogue.searchSoundSets(base1.str());
  ASSERT_GE(catalogue.maxSoundSets, 1);
  SampleIndex scanned;
  ASSERT_EQ(scanned.initSamples(*catalogue.get(1), 0), 0);
  auto facts1 = factsOfContainer(out1, scratch);
  ASSERT_EQ(facts1.size(), static_cast<size_t>(scanned.samplesMap().mapSize()));
  for (auto& node : scanned.samplesMap()) {
    const AudioSample& s = *node.value;
    ASSERT_TRUE(facts1.count(node.key)) << node.key;
    const SoundFacts& f = facts1[node.key];
    EXPECT_EQ(f.type, static_cast<int>(s.type));
    EXPECT_EQ(f.gain, s.gain);
    EXPECT_EQ(f.ducking, s.ducking);
    ASSERT_EQ(f.audio.size(), s.samples.size());
    for (size_t i = 0; i < s.samples.size(); ++i) EXPECT_EQ(f.audio[i], test::readFile(s.samples[i])) << s.samples[i];
  }

  // Loading the container and writing it again with stripped paths keeps every fact;
  // only the stored file names become "<id>-<n>.ogg".
  fs::copy_file(out1, base2 / "demo.xsnd");
  test::writeFile(base2 / "mellosound.ini", test::kQuietIni);
  std::string out2 = (work / "again.xsnd").string();
  std::string csv = (work / "export" / "altsound.csv").string();
  fs::create_directories(work / "export");
  ASSERT_EQ(runKorvo({"-a", "-K", out2, "-s", "-T", csv, base2.str()}, work.str()), 0);
  auto facts2 = factsOfContainer(out2, scratch);
  ASSERT_EQ(facts2.size(), facts1.size());
  for (auto& [id, f] : facts1) EXPECT_EQ(facts2[id], f) << "sound " << id;
  SampleIndex stripped;
  ASSERT_EQ(readSamplesFromBinary(stripped, out2), 0);
  for (auto& node : stripped.samplesMap())
    for (size_t i = 0; i < node.value->samples.size(); ++i)
      EXPECT_EQ(node.value->samples[i], std::to_string(node.key) + "-" + std::to_string(i) + ".ogg");

  // The exported table lists one row per file and copies each file beside it.
  std::string table = test::readFile(csv);
  EXPECT_EQ(table.rfind("ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME,GROUP,SHAKER,SERIAL,PRELOAD,STOPCMD,TYPE\n", 0), 0u);
  size_t files = 0;
  for (auto& [id, f] : facts1) files += f.audio.size();
  EXPECT_EQ(static_cast<size_t>(std::count(table.begin(), table.end(), '\n')), files + 1);
  size_t copies = 0;
  for (auto& e : fs::directory_iterator(work / "export")) copies += e.path().filename().string().rfind("0x", 0) == 0;
  EXPECT_EQ(copies, files);
}

// Without a sound set there is nothing to convert: a good container or table from an
// earlier run stays as it is.
TEST(Conversion, WithoutASetNothingIsWrittenAndExistingFilesStay) {
  test::TempDir work, empty;
  test::writeFile(empty / "mellosound.ini", test::kQuietIni);
  const std::string xsnd = (work / "good.xsnd").string();
  const std::string csv = (work / "good.csv").string();
  test::writeFile(xsnd, "a good container");
  test::writeFile(csv, "ID,CHANNEL\n");
  std::string log;
  ASSERT_EQ(runKorvo({"-a", "-K", xsnd, "-T", csv, empty.str()}, work.str(), &log), 0);
  EXPECT_EQ(test::readFile(xsnd), "a good container");
  EXPECT_EQ(test::readFile(csv), "ID,CHANNEL\n");
  EXPECT_NE(log.find("ERROR"), std::string::npos) << log;
  EXPECT_NE(log.find("no sound set loaded: nothing to convert"), std::string::npos) << log;
}

}  // namespace
