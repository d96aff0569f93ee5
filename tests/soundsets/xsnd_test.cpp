#include "soundsets/xsnd.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include "core/log.h"
#include "storage_fixture.h"

namespace korvo {
namespace {

using test::StorageFixture;

uint32_t be32(const std::string& b, std::size_t at) {
  return (uint32_t{static_cast<unsigned char>(b[at])} << 24) | (uint32_t{static_cast<unsigned char>(b[at + 1])} << 16) |
         (uint32_t{static_cast<unsigned char>(b[at + 2])} << 8) | uint32_t{static_cast<unsigned char>(b[at + 3])};
}
uint16_t be16(const std::string& b, std::size_t at) {
  return static_cast<uint16_t>((static_cast<unsigned char>(b[at]) << 8) | static_cast<unsigned char>(b[at + 1]));
}

// Walks the framing of a container: the positions of its chunk headers.
std::vector<std::size_t> chunkPositions(const std::string& b) {
  std::vector<std::size_t> out;
  std::size_t pos = 12;
  while (pos + 10 <= b.size()) {
    out.push_back(pos);
    pos += 10 + be32(b, pos + 4);
  }
  return out;
}

// The uncompressed index bytes of a container.
std::string metaBytes(const std::string& b) {
  for (std::size_t pos : chunkPositions(b)) {
    if (b.compare(pos, 4, "META") != 0) continue;
    uLongf outLen = be32(b, pos + 10);
    std::string out(outLen, '\0');
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(out.data()), &outLen,
                         reinterpret_cast<const Bytef*>(b.data() + pos + 14), be32(b, pos + 4) - 4),
              Z_OK);
    out.resize(outLen);
    return out;
  }
  return {};
}

// The index decoded by Debian's protoc against our schema, as text.
std::string protocDecode(const test::TempDir& tmp, const std::string& meta) {
  test::writeFile(tmp / "meta.bin", meta);
  std::string proto = (test::sourceDir() / "src/soundsets").string();
  int rc = test::runTool({"protoc", "--proto_path=" + proto, "--decode=SoundSet", "Audio.proto"},
                         (tmp / "meta.bin").string(), (tmp / "meta.txt").string());
  EXPECT_EQ(rc, 0);
  return test::readFile(tmp / "meta.txt");
}

TEST(XsndFraming, HeadersAreBigEndianWithNameChecks) {
  unsigned char buf[10];
  chunkHeaderToChar(makeChunkHeader("xSMP", 0x01020304), buf);
  const unsigned char want[10] = {'x', 'S', 'M', 'P', 1, 2, 3, 4, 0x01, 0x68};
  EXPECT_EQ(0, memcmp(buf, want, 10));
  EXPECT_EQ(makeChunkHeader("xSND", 0).check, 0x015D);
  EXPECT_EQ(makeChunkHeader("META", 0).check, 0x0127);
  // The name stops at a zero byte.
  chunkHeaderToChar(makeChunkHeader("ab", 7), buf);
  EXPECT_EQ(buf[2], 0);
  EXPECT_EQ(buf[3], 0);
  EXPECT_EQ(getMaxCompressedLen(100000), 100000 + 6 + 7 * 5);
}

TEST(XsndFraming, ReadChunkHeaderChecksNameNotLength) {
  test::TempDir tmp;
  std::string path = (tmp / "h.bin").string();
  FILE* f = fopen(path.c_str(), "w+b");
  ASSERT_TRUE(f);
  writeChunkHeader(f, makeChunkHeader("xSMP", 42));
  long placeholder = writeChunkHeaderPlaceHolder(f);
  EXPECT_EQ(placeholder, 10);
  writeUint16(f, 0xBEEF);
  updateChunkHeader(f, makeChunkHeader("META", 0xFFFFFFF0u), placeholder);
  EXPECT_EQ(ftell(f), 22);  // back where it was
  rewind(f);
  ChunkHeader h;
  EXPECT_EQ(readChunkHeader(f, h), 42);
  EXPECT_TRUE(isChunk(h, "xSMP"));
  EXPECT_EQ(readChunkHeader(f, h), 0xFFFFFFF0);  // a damaged length passes
  uint16_t v = 0;
  EXPECT_TRUE(readUint16(f, v));
  EXPECT_EQ(v, 0xBEEF);
  // A damaged name does not.
  fseek(f, 1, SEEK_SET);
  fputc('Q', f);
  rewind(f);
  test::LogCapture cap;
  EXPECT_EQ(readChunkHeader(f, h), -1);
  EXPECT_TRUE(cap.contains("invalid header"));
  fclose(f);
}

TEST(XsndContainer, EmptySetIsHeaderVersionAndIndex) {
  StorageFixture fx;
  std::string path = (fx.tmp / "empty.xsnd").string();
  ASSERT_EQ(writeSamplesToBinary(fx.idx, path, false), 0);
  std::string b = test::readFile(path);
  ASSERT_GE(b.size(), 26u);
  EXPECT_EQ(b.substr(0, 4), "xSND");
  EXPECT_EQ(be32(b, 4), 2u);
  EXPECT_EQ(be16(b, 8), 0x015D);
  EXPECT_EQ(be16(b, 10), 1);  // version
  EXPECT_EQ(b.substr(12, 4), "META");
  EXPECT_EQ(be32(b, 16) + 22, b.size());
  std::string text = protocDecode(fx.tmp, metaBytes(b));
  EXPECT_NE(text.find("name: \"foo\""), std::string::npos) << text;
  EXPECT_NE(text.find("basedir: \".\""), std::string::npos);
  EXPECT_NE(text.find("ducking: 65"), std::string::npos);
  EXPECT_EQ(text.find("samples"), std::string::npos);
}

TEST(XsndContainer, RoundTripKeepsRecordsAndExactAudioBytes) {
  StorageFixture fx;
  const std::string a = test::toneOgg(), b = test::makeWav(300), c = "short";
  auto* s1 = fx.addSound(0x10, MUSIC, "music/16-theme", {{"theme.ogg", a}});
  s1->shakersequence = {100, 200, 300};
  s1->serialcmd = "P1;P2";
  s1->preload = true;
  fx.addSound(0x2A, VOICE, "voice/42-hello", {{"hello.wav", b}, {"hello2.ogg", c}});
  fx.idx.gainByType[SFX] = 70;
  std::string path = (fx.tmp / "set.xsnd").string();
  ASSERT_EQ(writeSamplesToBinary(fx.idx, path, false), 0);
  EXPECT_TRUE(fx.idx.getSampleForId(0x10)->filechunks.empty());  // memory untouched

  const std::string bytes = test::readFile(path);
  // Three audio chunks, each state word 1 and exactly the file's bytes, then META.
  auto chunks = chunkPositions(bytes);
  ASSERT_EQ(chunks.size(), 4u);
  EXPECT_EQ(bytes.substr(chunks[3], 4), "META");

  SampleIndex back(fx.s);
  ASSERT_EQ(readSamplesFromBinary(back, path), 0);
  ASSERT_EQ(back.samplesMap.mapSize(), 2);
  AudioSample* r1 = back.getSampleForId(0x10);
  AudioSample* r2 = back.getSampleForId(0x2A);
  ASSERT_TRUE(r1 && r2);
  EXPECT_EQ(r1->type, MUSIC);
  EXPECT_EQ(r1->shakersequence, (std::vector<uint32_t>{100, 200, 300}));
  EXPECT_EQ(r1->serialcmd, "P1;P2");
  EXPECT_TRUE(r1->preload);
  EXPECT_EQ(r1->basepath, path);
  EXPECT_EQ(r1->isplayingonchannel, AudioSample::kNotPlaying);
  EXPECT_EQ(r2->samples.size(), 2u);
  EXPECT_EQ(r2->chunk.size(), 2u);
  const std::string* want[3] = {&a, &b, &c};
  const AudioSample* owner[3] = {r1, r2, r2};
  for (int i = 0; i < 3; ++i) {
    const CompFileChunk& fc = owner[i]->filechunks[i == 2 ? 1 : 0];
    EXPECT_EQ(fc.size, want[i]->size());
    EXPECT_EQ(bytes.substr(fc.offset, fc.size), *want[i]);
    EXPECT_EQ(be16(bytes, fc.offset - 2), 1);
    EXPECT_EQ(bytes.substr(fc.offset - 12, 4), "xSMP");
    EXPECT_EQ(be32(bytes, fc.offset - 8), fc.size + 2);
  }
}

TEST(XsndContainer, StripNamesRenamesOnlyTheIndex) {
  StorageFixture fx;
  auto* s = fx.addSound(4660, SFX, "a", {{"x.ogg", "xx"}, {"y", "yy"}});
  const std::vector<std::string> before = s->samples;
  std::string path = (fx.tmp / "strip.xsnd").string();
  {
    test::LogCapture cap(LEVEL_INFO);
    ASSERT_EQ(writeSamplesToBinary(fx.idx, path, true), 0);
    EXPECT_TRUE(cap.contains("stripped to '4660-0.ogg'"));
  }
  EXPECT_EQ(s->samples, before);
  std::string text = protocDecode(fx.tmp, metaBytes(test::readFile(path)));
  EXPECT_NE(text.find("basePath: \"4660\""), std::string::npos) << text;
  EXPECT_NE(text.find("samples: \"4660-0.ogg\""), std::string::npos);
  EXPECT_NE(text.find("samples: \"4660-1\"\n"), std::string::npos);
  EXPECT_NE(text.find("fileChunks {"), std::string::npos);
}

TEST(XsndContainer, ZeroDuckingTakesTheSetsTypeValue) {
  StorageFixture fx;
  auto* v = fx.addSound(7, VOICE, "v", {{"v.ogg", "vv"}});
  v->ducking = 0;
  fx.addSound(8, SFX, "s", {{"s.ogg", "ss"}})->ducking = 33;
  std::string path = (fx.tmp / "d.xsnd").string();
  ASSERT_EQ(writeSamplesToBinary(fx.idx, path, false), 0);
  SampleIndex back(fx.s);
  back.duckingByType[VOICE] = 1;  // the container's table wins over the index's
  ASSERT_EQ(readSamplesFromBinary(back, path), 0);
  EXPECT_EQ(back.getSampleForId(7)->ducking, 65u);
  EXPECT_EQ(back.getSampleForId(8)->ducking, 33u);
}

TEST(XsndContainer, DeletedChunksAndAppendedChunksKeepTheIndexReadable) {
  StorageFixture fx;
  fx.addSound(1, SFX, "s", {{"a.ogg", "AAAA"}, {"b.ogg", "BBBB"}});
  std::string path = (fx.tmp / "x.xsnd").string();
  ASSERT_EQ(writeSamplesToBinary(fx.idx, path, false), 0);
  SampleIndex back(fx.s);
  ASSERT_EQ(readSamplesFromBinary(back, path), 0);
  AudioSample* r = back.getSampleForId(1);
  ASSERT_EQ(markChunkAsDeleted(path, r->filechunks[0]), 0);
  EXPECT_EQ(r->filechunks[0].state, CompFileChunk::DELETED);
  std::string bytes = test::readFile(path);
  EXPECT_EQ(be16(bytes, r->filechunks[0].offset - 2), 0);
  // Append a chunk after META, as sample editing does.
  FILE* f = fopen(path.c_str(), "r+b");
  ASSERT_TRUE(f);
  fseek(f, 0, SEEK_END);
  test::writeFile(fx.tmp / "c.ogg", "CCCCCC");
  ASSERT_EQ(writeFileChunk(f, (fx.tmp / "c.ogg").string(), *r, 2), 0);
  fclose(f);
  bytes = test::readFile(path);
  EXPECT_EQ(bytes.substr(r->filechunks[2].offset, 6), "CCCCCC");
  EXPECT_EQ(bytes.substr(bytes.size() - 6), "CCCCCC");
  SampleIndex again(fx.s);
  ASSERT_EQ(readSamplesFromBinary(again, path), 0);
  EXPECT_EQ(again.getSampleForId(1)->samples.size(), 2u);  // the index predates the append
  // A chunk that is not where the record says is never overwritten.
  CompFileChunk wrong{r->filechunks[1].offset + 1, 4, CompFileChunk::REGULAR};
  test::LogCapture cap;
  EXPECT_EQ(markChunkAsDeleted(path, wrong), -1);
  EXPECT_EQ(test::readFile(path), bytes);
}

TEST(XsndContainer, XsndSetIsRepackedFromItsOwnContainer) {
  StorageFixture fx;
  fx.addSound(3, JINGLE, "j", {{"j.ogg", "JJJJJJJ"}});
  std::string first = (fx.tmp / "first.xsnd").string(), second = (fx.tmp / "second.xsnd").string();
  ASSERT_EQ(writeSamplesToBinary(fx.idx, first, true), 0);
  SampleIndex loaded(fx.s);
  ASSERT_EQ(readSamplesFromBinary(loaded, first), 0);
  loaded.setType = XSNDFILE;
  ASSERT_EQ(writeSamplesToBinary(loaded, second, false), 0);
  SampleIndex back(fx.s);
  ASSERT_EQ(readSamplesFromBinary(back, second), 0);
  const CompFileChunk& c = back.getSampleForId(3)->filechunks[0];
  EXPECT_EQ(test::readFile(second).substr(c.offset, c.size), "JJJJJJJ");
}

TEST(XsndContainer, IndexIsFoundPastLookalikesAndLargeAppends) {
  StorageFixture fx;
  // Audio that carries a well-formed "META" header of its own, and a large file.
  std::string fake = "....META";
  fake += std::string("\x00\x00\x00\x08\x01\x27", 6) + "\x00\x00\x01\x00zzzz";
  fx.addSound(1, SFX, "s", {{"fake.ogg", fake}});
  std::string path = (fx.tmp / "x.xsnd").string();
  ASSERT_EQ(writeSamplesToBinary(fx.idx, path, false), 0);
  SampleIndex back(fx.s);
  ASSERT_EQ(readSamplesFromBinary(back, path), 0);
  AudioSample* r = back.getSampleForId(1);
  ASSERT_TRUE(r);
  // Appends beyond any tail window: the reader walks the chunks instead.
  test::writeFile(fx.tmp / "big.ogg", std::string(1500000, 'B'));
  for (int i = 0; i < 2; ++i) {
    FILE* f = fopen(path.c_str(), "r+b");
    fseek(f, 0, SEEK_END);
    ASSERT_EQ(writeFileChunk(f, (fx.tmp / "big.ogg").string(), *r, 1 + i), 0);
    fclose(f);
  }
  SampleIndex again(fx.s);
  ASSERT_EQ(readSamplesFromBinary(again, path), 0);
  EXPECT_EQ(again.getSampleForId(1)->samples.size(), 1u);
  EXPECT_EQ(again.getSampleForId(1)->filechunks[0].size, fake.size());
}

TEST(XsndBadInput, TruncatedCorruptedAndForeignFilesAreRefused) {
  StorageFixture fx;
  fx.addSound(5, SFX, "s", {{"a.ogg", std::string(5000, 'a')}});
  fx.addSound(6, MUSIC, "m", {{"b.ogg", std::string(3000, 'b')}});
  std::string path = (fx.tmp / "good.xsnd").string();
  ASSERT_EQ(writeSamplesToBinary(fx.idx, path, false), 0);
  const std::string good = test::readFile(path);
  SampleIndex target(fx.s);
  ASSERT_EQ(readSamplesFromBinary(target, path), 0);

  auto tryBytes = [&](const std::string& bytes) {
    std::string bad = (fx.tmp / "bad.xsnd").string();
    test::writeFile(bad, bytes);
    int rc = readSamplesFromBinary(target, bad);
    EXPECT_EQ(test::readFile(bad), bytes);  // the reader never writes
    return rc;
  };
  test::LogCapture cap;
  // Cut anywhere: either refused (the loaded map stays) or, past the index, loaded.
  for (std::size_t cut : {std::size_t{0}, std::size_t{5}, std::size_t{12}, std::size_t{3000}, good.size() - 20,
                          good.size() - 1}) {
    int rc = tryBytes(good.substr(0, cut));
    EXPECT_EQ(rc, -1) << cut;
    EXPECT_EQ(target.samplesMap.mapSize(), 2) << cut;
  }
  EXPECT_TRUE(cap.contains("no meta data found"));
  EXPECT_TRUE(cap.contains("truncated or corrupt"));
  // Index bytes damaged.
  std::string damaged = good;
  for (std::size_t i = damaged.size() - 30; i < damaged.size() - 10; ++i) damaged[i] = static_cast<char>(~damaged[i]);
  EXPECT_EQ(tryBytes(damaged), -1);
  EXPECT_EQ(target.samplesMap.mapSize(), 2);
  // An absurd stated size is refused before anything is allocated.
  std::string huge = good;
  std::size_t meta = chunkPositions(good).back();
  huge[meta + 10] = '\x7F';
  EXPECT_EQ(tryBytes(huge), -1);
  EXPECT_TRUE(cap.contains("implausible"));
  // A wrong first header is tolerated: the reader is lenient there.
  std::string foreign = good;
  foreign.replace(0, 4, "RIFF");
  EXPECT_EQ(tryBytes(foreign), 0);
  EXPECT_TRUE(cap.contains("bad header"));
  EXPECT_EQ(target.samplesMap.mapSize(), 2);
  // A missing file is an error without a crash.
  EXPECT_EQ(readSamplesFromBinary(target, (fx.tmp / "nope.xsnd").string()), -1);
}

TEST(XsndBadInput, MissingSourceFileIsLoggedAndTheContainerStaysValid) {
  StorageFixture fx;
  auto* s = fx.addSound(9, SFX, "s", {{"a.ogg", "AAA"}});
  s->samples.push_back((fx.tmp / "s/gone.ogg").string());
  std::string path = (fx.tmp / "m.xsnd").string();
  test::LogCapture cap;
  ASSERT_EQ(writeSamplesToBinary(fx.idx, path, false), 0);
  EXPECT_TRUE(cap.contains("error open"));
  SampleIndex back(fx.s);
  ASSERT_EQ(readSamplesFromBinary(back, path), 0);
  EXPECT_EQ(back.getSampleForId(9)->filechunks[1].size, 0u);
  // An unwritable target leaves nothing behind.
  EXPECT_EQ(writeSamplesToBinary(fx.idx, (fx.tmp / "no/such/dir.xsnd").string(), false), -1);
  EXPECT_TRUE(cap.contains("open for bin export to"));
}

}  // namespace
}  // namespace korvo
