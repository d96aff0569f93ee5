// Start-up conversions: -K writes the loaded set as an xsnd container, -T as an
// AltSound table. A container written from the demo set and read back, or written
// again from the container, keeps every sound, file, gain and ducking.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "soundsets/catalogue.h"
#include "soundsets/sample_index.h"
#include "soundsets/xsnd.h"
#include "support/testutil.h"

namespace fs = std::filesystem;
using namespace korvo;

namespace {

// Conversions run at start-up and the daemon then goes on as usual: wait (bounded)
// until its log says start-up is done, then stop it in order. The log is `cwd`/korvo.out.
int runKorvo(const std::vector<std::string>& args, const std::string& cwd) {
  const std::string out = cwd + "/korvo.out";
  fs::remove(out);  // the log of an earlier run must not count
  pid_t pid = fork();
  if (pid == 0) {
    if (chdir(cwd.c_str()) != 0) _exit(126);
    if (!freopen(out.c_str(), "w", stdout)) _exit(126);
    setenv("KORVO_GPIO", "sim", 1);
    std::vector<std::string> copy = args;
    std::string exe = KORVO_EXE;
    std::vector<char*> argv{exe.data()};
    for (auto& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  bool exited = false;
  const bool started = test::waitUntil([&] {
    exited = waitpid(pid, &status, WNOHANG) == pid;
    return exited || test::readFile(out).find("start-up done") != std::string::npos;
  });
  EXPECT_TRUE(started) << test::readFile(out);
  if (!exited) {
    kill(pid, SIGTERM);
    waitpid(pid, &status, 0);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
  test::writeFile(base1 / "mellosound.ini", "say_version=0\nsay_mode=0\nplay_boot=0\n");
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
  test::writeFile(base2 / "mellosound.ini", "say_version=0\nsay_mode=0\nplay_boot=0\n");
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
  test::writeFile(empty / "mellosound.ini", "say_version=0\nsay_mode=0\nplay_boot=0\n");
  const std::string xsnd = (work / "good.xsnd").string();
  const std::string csv = (work / "good.csv").string();
  test::writeFile(xsnd, "a good container");
  test::writeFile(csv, "ID,CHANNEL\n");
  ASSERT_EQ(runKorvo({"-a", "-K", xsnd, "-T", csv, empty.str()}, work.str()), 0);
  EXPECT_EQ(test::readFile(xsnd), "a good container");
  EXPECT_EQ(test::readFile(csv), "ID,CHANNEL\n");
  const std::string log = test::readFile(work / "korvo.out");
  EXPECT_NE(log.find("ERROR"), std::string::npos) << log;
  EXPECT_NE(log.find("no sound set loaded: nothing to convert"), std::string::npos) << log;
}

}  // namespace
