// Exports of a loaded container set (the -K and -T conversions): what a container's
// index names must never be read from or written to the file system, and a container
// that cannot be written whole is not written at all.
#include <gtest/gtest.h>
#include <zlib.h>

#include <filesystem>

#include "base/log.h"
#include "soundsets/altsound.h"
#include "soundsets/xsnd.h"
#include "storage_fixture.h"

namespace korvo {
namespace {

using test::StorageFixture;
namespace fs = std::filesystem;

std::string be(uint32_t v, int bytes) {
  std::string out;
  for (int i = bytes - 1; i >= 0; --i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
  return out;
}
std::string header(const char* name, uint32_t len) {
  unsigned sum = 0;
  for (int i = 0; i < 4; ++i) sum += static_cast<unsigned char>(name[i]);
  return std::string(name, 4) + be(len, 4) + be(sum & 0xFFFF, 2);
}

// A container whose index is `indexText` (protobuf text of a SoundSet, encoded by
// Debian's protoc) and that holds no audio chunk at all.
std::string craftContainer(const test::TempDir& tmp, const std::string& indexText) {
  test::writeFile(tmp / "index.txt", indexText);
  std::string proto = (test::sourceDir() / "src/soundsets").string();
  EXPECT_EQ(test::runTool({"protoc", "--proto_path=" + proto, "--encode=SoundSet", "Audio.proto"},
                          (tmp / "index.txt").string(), (tmp / "index.bin").string()),
            0);
  const std::string meta = test::readFile(tmp / "index.bin");
  uLongf clen = compressBound(meta.size());
  std::string packed(clen, '\0');
  EXPECT_EQ(compress(reinterpret_cast<Bytef*>(packed.data()), &clen, reinterpret_cast<const Bytef*>(meta.data()),
                     meta.size()),
            Z_OK);
  packed.resize(clen);
  const std::string path = (tmp / "crafted.xsnd").string();
  test::writeFile(path, header("xSND", 2) + be(1, 2) + header("META", static_cast<uint32_t>(clen) + 4) +
                            be(static_cast<uint32_t>(meta.size()), 4) + packed);
  return path;
}

TEST(XsndExport, NamesFromTheIndexNeverReachTheFileSystem) {
  StorageFixture fx;
  test::TempDir outside;
  test::writeFile(outside / "secret", "do not copy");
  const std::string secret = (outside / "secret").string();
  const std::string path = craftContainer(
      fx.tmp, "samples { id: 1 type: SFX basePath: \"1\" samples: \"" + secret +
                  "\" }\nsamples { id: 2 type: SFX basePath: \"2\" samples: \"../../climb.ogg\" }\n");
  ASSERT_EQ(readSamplesFromBinary(fx.idx, path), 0);
  fx.idx.setSetType(XSNDFILE);
  ASSERT_EQ(fx.idx.samplesMap().mapSize(), 2);

  test::LogCapture cap;
  const std::string xsnd = (fx.tmp / "out.xsnd").string();
  EXPECT_EQ(writeSamplesToBinary(fx.idx, xsnd, false), -1);
  EXPECT_TRUE(cap.contains("ERROR"));
  EXPECT_TRUE(cap.contains(secret));
  EXPECT_FALSE(fs::exists(xsnd));

  fs::create_directories(fx.tmp / "csv");
  const std::string csv = (fx.tmp / "csv/altsound.csv").string();
  EXPECT_EQ(writeSamplesToCsv(fx.idx, csv, fx.tmp.str(), true), -1);
  EXPECT_TRUE(cap.contains("../../climb.ogg"));
  EXPECT_FALSE(fs::exists(csv));
  EXPECT_TRUE(fs::is_empty(fx.tmp / "csv"));  // nothing copied, not even the good half
}

TEST(XsndExport, AContainerPastItsSizeLimitFailsAndLeavesTheOldFile) {
  StorageFixture fx;
  for (uint32_t id = 1; id <= 3; ++id) fx.addSound(id, SFX, "s" + std::to_string(id), {{"a.ogg", std::string(100, 'a')}});
  const std::string path = (fx.tmp / "out/set.xsnd").string();
  test::writeFile(path, "the old container");
  test::LogCapture cap;
  EXPECT_EQ(writeSamplesToBinary(fx.idx, path, false, 250), -1);
  EXPECT_TRUE(cap.contains("ERROR"));
  EXPECT_TRUE(cap.contains("grow past 250 bytes"));
  EXPECT_EQ(test::readFile(path), "the old container");
  EXPECT_EQ(test::namesIn(fx.tmp / "out"), std::vector<std::string>{"set.xsnd"});
  // Under the limit the same set is written.
  EXPECT_EQ(writeSamplesToBinary(fx.idx, path, false, 1000), 0);
  EXPECT_EQ(fx.unpack(path)->samplesMap().mapSize(), 3);
}

}  // namespace
}  // namespace korvo
