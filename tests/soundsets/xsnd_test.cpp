#include "soundsets/xsnd.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include "base/handles.h"
#include "base/log.h"
#include "storage_fixture.h"

namespace korvo {
namespace {

using test::StorageFixture;

uint32_t be32(const std::string& b, std::size_t at) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v = (v << 8) | static_cast<unsigned char>(b[at + i]);
  return v;
}
uint16_t be16(const std::string& b, std::size_t at) { return static_cast<uint16_t>(be32(b, at) >> 16); }

// Walks the framing of a container: the positions of its chunk headers.
std::vector<std::size_t> chunkPositions(const std::string& b) {
  std::vector<std::size_t> out;
  for (std::size_t pos = 12; pos + 10 <= b.size(); pos += 10 + be32(b, pos + 4)) out.push_back(pos);
  return out;
}

// The index of a container decoded by Debian's protoc against our schema, as text.
std::string protocDecode(const test::TempDir& tmp, const std::string& b) {
  std::size_t pos = chunkPositions(b).back();
  EXPECT_EQ(b.compare(pos, 4, "META"), 0);
  uLongf outLen = be32(b, pos + 10);
  std::string meta(outLen, '\0');
  EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(meta.data()), &outLen,
                       reinterpret_cast<const Bytef*>(b.data() + pos + 14), be32(b, pos + 4) - 4),
            Z_OK);
  meta.resize(outLen);
  test::writeFile(tmp / "meta.bin", meta);
  std::string proto = (test::sourceDir() / "src/soundsets").string();
  EXPECT_EQ(test::runTool({"protoc", "--proto_path=" + proto, "--decode=SoundSet", "Audio.proto"},
                          (tmp / "meta.bin").string(), (tmp / "meta.txt").string()),
            0);
  return test::readFile(tmp / "meta.txt");
}

TEST(XsndFraming, ReadingChecksTheNameNotTheLength) {
  test::TempDir tmp;
  FileHandle file(fopen((tmp / "h.bin").c_str(), "w+b"));
  ASSERT_TRUE(file);
  FILE* f = file.get();
  writeChunkHeader(f, makeChunkHeader("xSMP", 42));
  long placeholder = writeChunkHeaderPlaceHolder(f);
  writeUint16(f, 0xBEEF);
  updateChunkHeader(f, makeChunkHeader("META", 0xFFFFFFF0u), placeholder);
  EXPECT_EQ(ftell(f), 22);  // back where it was
  rewind(f);
  ChunkHeader h;
  EXPECT_EQ(readChunkHeader(f, h), 42);
  EXPECT_TRUE(isChunk(h, "xSMP"));
  EXPECT_EQ(readChunkHeader(f, h), 0xFFFFFFF0);  // a damaged length passes
  fseek(f, 1, SEEK_SET);  // a damaged name does not
  fputc('Q', f);
  rewind(f);
  test::LogCapture cap;
  EXPECT_EQ(readChunkHeader(f, h), -1);
  EXPECT_TRUE(cap.contains("invalid header"));
}

TEST(XsndContainer, EmptySetIsHeaderVersionAndIndex) {
  StorageFixture fx;
  std::string b = test::readFile(fx.pack("empty.xsnd"));
  ASSERT_GE(b.size(), 26u);
  EXPECT_EQ(b.substr(0, 4), "xSND");
  EXPECT_EQ(be32(b, 4), 2u);
  EXPECT_EQ(be16(b, 8), 0x015D);
  EXPECT_EQ(be16(b, 10), 1);  // version
  EXPECT_EQ(be16(b, 20), 0x0127);  // META header check
  EXPECT_EQ(be32(b, 16) + 22, b.size());
  std::string text = protocDecode(fx.tmp, b);
  EXPECT_NE(text.find("name: \"foo\""), std::string::npos) << text;
  EXPECT_NE(text.find("basedir: \".\""), std::string::npos);
  EXPECT_NE(text.find("ducking: 65"), std::string::npos);
  EXPECT_EQ(text.find("samples"), std::string::npos);
}

TEST(XsndContainer, RoundTripKeepsRecordsAndExactAudioBytes) {
  StorageFixture fx;
  fx.idx.setDuckingByType(VOICE, 40);  // the container's table, not the reader's default, applies
  const std::string a = test::toneOgg(), b = test::wavBytes(fx.tmp / "w.wav"), c = "short";
  auto* s1 = fx.addSound(0x10, MUSIC, "music/16-theme", {{"theme.ogg", a}});
  s1->shakersequence = {100, 200, 300};
  s1->serialcmd = "P1;P2";
  s1->preload = true;
  fx.addSound(0x2A, VOICE, "voice/42-hello", {{"hello.wav", b}, {"hello2.ogg", c}});
  fx.addSound(7, VOICE, "v", {{"v.ogg", "vv"}})->ducking = 0;  // takes the set's type value
  fx.addSound(8, SFX, "s", {{"s.ogg", "ss"}})->ducking = 33;
  const std::string path = fx.pack("set.xsnd");
  EXPECT_TRUE(s1->filechunks.empty());  // memory untouched

  const std::string bytes = test::readFile(path);
  auto chunks = chunkPositions(bytes);
  ASSERT_EQ(chunks.size(), 6u);
  EXPECT_EQ(bytes.substr(chunks[5], 4), "META");
  auto back = fx.unpack(path);
  ASSERT_EQ(back->samplesMap().mapSize(), 4);
  EXPECT_EQ(back->getSampleForId(7)->ducking, 40u);
  EXPECT_EQ(back->getSampleForId(8)->ducking, 33u);
  AudioSample* r1 = back->getSampleForId(0x10);
  AudioSample* r2 = back->getSampleForId(0x2A);
  ASSERT_TRUE(r1 && r2);
  EXPECT_EQ(r1->type, MUSIC);
  EXPECT_EQ(r1->shakersequence, (std::vector<uint32_t>{100, 200, 300}));
  EXPECT_EQ(r1->serialcmd, "P1;P2");
  EXPECT_TRUE(r1->preload);
  EXPECT_EQ(r1->basepath, path);
  EXPECT_EQ(r2->samples.size(), 2u);
  EXPECT_EQ(r2->chunk.size(), 2u);
  // Each audio chunk: state word 1 and exactly the file's bytes.
  const std::pair<const CompFileChunk*, const std::string*> files[] = {
      {&r1->filechunks[0], &a}, {&r2->filechunks[0], &b}, {&r2->filechunks[1], &c}};
  for (auto [fc, want] : files) {
    EXPECT_EQ(bytes.substr(fc->offset, fc->size), *want);
    EXPECT_EQ(be16(bytes, fc->offset - 2), 1);
    EXPECT_EQ(be16(bytes, fc->offset - 4), 0x0168);  // header check of "xSMP"
    EXPECT_EQ(bytes.substr(fc->offset - 12, 4), "xSMP");
    EXPECT_EQ(be32(bytes, fc->offset - 8), fc->size + 2);
  }
}

TEST(XsndContainer, StripNamesRenamesOnlyTheIndexAndRepacksFromItself) {
  StorageFixture fx;
  auto* s = fx.addSound(4660, SFX, "a", {{"x.ogg", "xx"}, {"y", "yy"}});
  const std::vector<std::string> before = s->samples;
  const std::string path = fx.pack("strip.xsnd", true);
  EXPECT_EQ(s->samples, before);
  std::string text = protocDecode(fx.tmp, test::readFile(path));
  EXPECT_NE(text.find("basePath: \"4660\""), std::string::npos) << text;
  EXPECT_NE(text.find("samples: \"4660-0.ogg\""), std::string::npos);
  EXPECT_NE(text.find("samples: \"4660-1\"\n"), std::string::npos);
  EXPECT_NE(text.find("fileChunks {"), std::string::npos);
  // A container set is repacked from its own container.
  auto loaded = fx.unpack(path);
  loaded->setSetType(XSNDFILE);
  const std::string second = (fx.tmp / "second.xsnd").string();
  ASSERT_EQ(writeSamplesToBinary(*loaded, second, false), 0);
  const CompFileChunk c = fx.unpack(second)->getSampleForId(4660)->filechunks[1];
  EXPECT_EQ(test::readFile(second).substr(c.offset, c.size), "yy");
}

TEST(XsndContainer, DeletedAndAppendedChunksAndLookalikesKeepTheIndexReadable) {
  StorageFixture fx;
  // Audio that carries a well-formed "META" header of its own.
  const std::string fake = "....META" + std::string("\x00\x00\x00\x08\x01\x27", 6) + "\x00\x00\x01\x00zzzz";
  fx.addSound(1, SFX, "s", {{"fake.ogg", fake}, {"b.ogg", "BBBB"}});
  const std::string path = fx.pack("x.xsnd");
  auto back = fx.unpack(path);
  AudioSample* r = back->getSampleForId(1);
  ASSERT_EQ(markChunkAsDeleted(path, r->filechunks[0]), 0);
  EXPECT_EQ(r->filechunks[0].state, CompFileChunk::DELETED);
  EXPECT_EQ(be16(test::readFile(path), r->filechunks[0].offset - 2), 0);
  // Appends after META, as sample editing does, beyond any tail window: the reader
  // walks the chunks instead.
  const std::string big(1500000, 'B');
  test::writeFile(fx.tmp / "big.ogg", big);
  for (int i = 0; i < 2; ++i) {
    FileHandle f(fopen(path.c_str(), "r+b"));
    ASSERT_TRUE(f);
    fseek(f.get(), 0, SEEK_END);
    ASSERT_EQ(writeFileChunk(f.get(), (fx.tmp / "big.ogg").string(), *r, 2 + i), 0);
  }
  const std::string bytes = test::readFile(path);
  EXPECT_EQ(bytes.substr(r->filechunks[3].offset), big);
  auto again = fx.unpack(path);
  EXPECT_EQ(again->getSampleForId(1)->samples.size(), 2u);  // the index predates the appends
  EXPECT_EQ(again->getSampleForId(1)->filechunks[0].size, fake.size());
  // A chunk that is not where the record says is never overwritten.
  CompFileChunk wrong{r->filechunks[1].offset + 1, 4, CompFileChunk::REGULAR};
  test::LogCapture cap;
  EXPECT_EQ(markChunkAsDeleted(path, wrong), -1);
  EXPECT_EQ(test::readFile(path), bytes);
}

TEST(XsndBadInput, TruncatedCorruptedAndForeignFilesAreRefused) {
  StorageFixture fx;
  fx.addSound(5, SFX, "s", {{"a.ogg", std::string(5000, 'a')}});
  fx.addSound(6, MUSIC, "m", {{"b.ogg", std::string(3000, 'b')}});
  const std::string path = fx.pack("good.xsnd");
  const std::string good = test::readFile(path);
  auto target = fx.unpack(path);

  test::LogCapture cap;
  // Returns the reader's result; the reader never writes and a refusal keeps the map.
  auto tryBytes = [&](const std::string& bytes) {
    std::string bad = (fx.tmp / "bad.xsnd").string();
    test::writeFile(bad, bytes);
    int rc = readSamplesFromBinary(*target, bad);
    EXPECT_EQ(test::readFile(bad), bytes);
    EXPECT_EQ(target->samplesMap().mapSize(), 2);
    return rc;
  };
  for (std::size_t cut : {std::size_t{0}, std::size_t{5}, std::size_t{12}, std::size_t{3000}, good.size() - 20,
                          good.size() - 1})
    EXPECT_EQ(tryBytes(good.substr(0, cut)), -1) << cut;
  EXPECT_TRUE(cap.contains("no meta data found"));
  EXPECT_TRUE(cap.contains("truncated or corrupt"));
  std::string damaged = good;  // index bytes damaged
  for (std::size_t i = damaged.size() - 30; i < damaged.size() - 10; ++i) damaged[i] = static_cast<char>(~damaged[i]);
  EXPECT_EQ(tryBytes(damaged), -1);
  std::string huge = good;  // an absurd stated size is refused before anything is allocated
  huge[chunkPositions(good).back() + 10] = '\x7F';
  EXPECT_EQ(tryBytes(huge), -1);
  EXPECT_TRUE(cap.contains("implausible"));
  std::string foreign = good;  // a wrong first header is tolerated: the reader is lenient there
  foreign.replace(0, 4, "RIFF");
  EXPECT_EQ(tryBytes(foreign), 0);
  EXPECT_TRUE(cap.contains("bad header"));
  EXPECT_EQ(readSamplesFromBinary(*target, (fx.tmp / "nope.xsnd").string()), -1);
}

TEST(XsndBadInput, MissingSourceFileIsLoggedAndTheContainerStaysValid) {
  StorageFixture fx;
  auto* s = fx.addSound(9, SFX, "s", {{"a.ogg", "AAA"}});
  s->samples.push_back((fx.tmp / "s/gone.ogg").string());
  test::LogCapture cap;
  const std::string path = fx.pack("m.xsnd");
  EXPECT_TRUE(cap.contains("error open"));
  EXPECT_EQ(fx.unpack(path)->getSampleForId(9)->filechunks[1].size, 0u);
  EXPECT_EQ(writeSamplesToBinary(fx.idx, (fx.tmp / "no/such/dir.xsnd").string(), false), -1);
  EXPECT_TRUE(cap.contains("open for bin export to"));
}

}  // namespace
}  // namespace korvo
