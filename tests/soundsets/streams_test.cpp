#include "soundsets/streams.h"

#include <SDL2/SDL.h>
#include <SDL2/SDL_mixer.h>
#include <gtest/gtest.h>

#include "base/handles.h"
#include "base/log.h"
#include "soundsets/xsnd.h"
#include "storage_fixture.h"

namespace korvo {
namespace {

using test::StorageFixture;

// An xsnd container: 1 = the tone, 2 = 300 bytes of a counting pattern, 3 = a WAV.
struct ContainerFixture : StorageFixture {
  std::string path, pattern;
  std::unique_ptr<SampleIndex> loaded;
  ContainerFixture() {
    for (int i = 0; i < 300; ++i) pattern += static_cast<char>(i & 0xFF);
    addSound(1, SFX, "s1", {{"tone.ogg", test::toneOgg()}});
    addSound(2, SFX, "s2", {{"pattern.raw", pattern}});
    addSound(3, SFX, "s3", {{"w.wav", test::wavBytes(tmp / "src.wav")}});
    path = pack("set.xsnd");
    loaded = unpack(path);
  }
};

// Creates a zip holding the tone twice: stored and deflated.
std::string makeToneZip(const test::TempDir& tmp) {
  std::string ogg = test::toneOgg();
  std::string path = (tmp / "tones.zip").string();
  int err = 0;
  ZipHandle archive(zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &err));
  zip_t* za = archive.get();
  for (const char* name : {"music/stored.ogg", "music/deflated.ogg"}) {
    zip_source_t* src = zip_source_buffer(za, ogg.data(), ogg.size(), 0);
    zip_int64_t i = zip_file_add(za, name, src, 0);
    zip_set_file_compression(za, static_cast<zip_uint64_t>(i),
                             name[6] == 's' ? ZIP_CM_STORE : ZIP_CM_DEFLATE, 9);
  }
  if (zip_close(za) == 0) archive.release();  // closed
  return path;
}

TEST(CompStream, WindowSizeReadAndSeekSemantics) {
  ContainerFixture fx;
  AudioSample* s = fx.loaded->getSampleForId(2);
  ASSERT_TRUE(s);
  SDL_RWops* rw = makeCompoundRW(fx.path.c_str(), s, 0);
  ASSERT_TRUE(rw);
  EXPECT_EQ(SDL_RWsize(rw), 300);
  std::string buf(300, '\0');
  EXPECT_EQ(SDL_RWread(rw, buf.data(), 1, 300), 300u);
  EXPECT_EQ(buf, fx.pattern);
  // Relative seeks stay inside the file; absolute ones may leave it.
  EXPECT_EQ(SDL_RWseek(rw, 1, RW_SEEK_CUR), -1);
  EXPECT_EQ(SDL_RWseek(rw, 310, RW_SEEK_SET), 310);
  EXPECT_EQ(SDL_RWseek(rw, -10, RW_SEEK_END), 290);
  EXPECT_EQ(SDL_RWseek(rw, -5, RW_SEEK_CUR), 285);
  char one = 0;
  EXPECT_EQ(SDL_RWread(rw, &one, 1, 1), 1u);
  EXPECT_EQ(one, static_cast<char>(285 & 0xFF));
  // 4096 single bytes with 100 left: exactly the 100, never the container's next bytes.
  EXPECT_EQ(SDL_RWseek(rw, 200, RW_SEEK_SET), 200);
  std::string big(4096, '\0');
  EXPECT_EQ(SDL_RWread(rw, big.data(), 1, 4096), 100u);
  EXPECT_EQ(big.substr(0, 100), fx.pattern.substr(200));
  EXPECT_EQ(SDL_RWtell(rw), 300);
  // Objects that do not fit whole are not handed out.
  EXPECT_EQ(SDL_RWseek(rw, 290, RW_SEEK_SET), 290);
  EXPECT_EQ(SDL_RWread(rw, big.data(), 4, 100), 2u);
  // Past the extent (absolute seek) and at the end, reads answer end of stream.
  EXPECT_EQ(SDL_RWseek(rw, 310, RW_SEEK_SET), 310);
  EXPECT_EQ(SDL_RWread(rw, big.data(), 1, 1), 0u);
  EXPECT_EQ(SDL_RWseek(rw, 0, RW_SEEK_END), 300);
  EXPECT_EQ(SDL_RWread(rw, big.data(), 1, 10), 0u);
  EXPECT_EQ(SDL_RWwrite(rw, "x", 1, 1), 0u);
  EXPECT_EQ(SDL_RWclose(rw), 0);
  // A bad file index or a missing container gives a stream that reads nothing.
  test::LogCapture cap;
  SDL_RWops* badIndex = makeCompoundRW(fx.path.c_str(), s, 7);
  SDL_RWops* noFile = makeCompoundRW((fx.tmp / "missing.xsnd").string().c_str(), s, 0);
  ASSERT_TRUE(badIndex && noFile);
  EXPECT_EQ(SDL_RWsize(badIndex), 0);
  EXPECT_EQ(SDL_RWseek(noFile, 0, RW_SEEK_SET), -1);
  for (SDL_RWops* bad : {badIndex, noFile}) {
    EXPECT_EQ(SDL_RWread(bad, big.data(), 1, 16), 0u);
    SDL_RWclose(bad);
  }
  EXPECT_TRUE(cap.contains("no file chunk 7"));
}

TEST(ZipStream, StoredAndDeflatedEntriesSeekBothWaysAndMissingOnesReadNothing) {
  test::TempDir tmp;
  const std::string zip = makeToneZip(tmp), ogg = test::toneOgg();
  AudioSample s(1);
  s.samples = {"music/stored.ogg", "music/deflated.ogg", "music/none.ogg"};
  char b[8];
  auto readAt = [&](SDL_RWops* rw, std::size_t at) {
    EXPECT_EQ(SDL_RWread(rw, b, 1, 8), 8u) << at;
    EXPECT_EQ(std::string(b, 8), ogg.substr(at, 8)) << at;
  };
  for (int entry : {0, 1}) {
    SCOPED_TRACE(s.samples[entry]);
    SDL_RWops* rw = makeZipRW(zip.c_str(), &s, entry);
    ASSERT_TRUE(rw);
    EXPECT_EQ(SDL_RWsize(rw), static_cast<Sint64>(ogg.size()));
    readAt(rw, 0);
    EXPECT_EQ(SDL_RWseek(rw, 0, RW_SEEK_SET), 0);
    readAt(rw, 0);
    EXPECT_EQ(SDL_RWtell(rw), 8);  // the decoders take a seek by 0 as the position
    EXPECT_EQ(SDL_RWseek(rw, -8, RW_SEEK_END), static_cast<Sint64>(ogg.size() - 8));
    readAt(rw, ogg.size() - 8);
    EXPECT_EQ(SDL_RWseek(rw, 100, RW_SEEK_SET), 100);
    readAt(rw, 100);
    EXPECT_EQ(SDL_RWseek(rw, -50, RW_SEEK_CUR), 58);
    readAt(rw, 58);
    EXPECT_EQ(SDL_RWseek(rw, 1, RW_SEEK_END), -1);
    SDL_RWclose(rw);
  }
  test::LogCapture cap;
  SDL_RWops* rw = makeZipRW(zip.c_str(), &s, 2);
  ASSERT_TRUE(rw);
  EXPECT_TRUE(cap.contains("could not find zip entry music/none.ogg"));
  EXPECT_EQ(SDL_RWread(rw, b, 1, 4), 0u);
  EXPECT_EQ(SDL_RWseek(rw, 0, RW_SEEK_SET), -1);
  SDL_RWclose(rw);
}

TEST(StdioStream, SizeSeekReadOverAnOpenFile) {
  test::TempDir tmp;
  test::writeFile(tmp / "f.bin", "0123456789");
  FILE* f = fopen((tmp / "f.bin").c_str(), "rb");
  SDL_RWops* rw = RWFromFP(f, true);
  ASSERT_TRUE(rw);
  EXPECT_EQ(SDL_RWseek(rw, 3, RW_SEEK_SET), 3);
  EXPECT_EQ(SDL_RWsize(rw), 10);
  EXPECT_EQ(SDL_RWtell(rw), 3);  // size leaves the position alone
  char b[4] = {};
  EXPECT_EQ(SDL_RWread(rw, b, 2, 2), 2u);
  EXPECT_EQ(std::string(b, 4), "3456");
  EXPECT_EQ(SDL_RWseek(rw, -1, RW_SEEK_SET), -1);
  EXPECT_EQ(SDL_RWclose(rw), 0);
}

TEST(Mixer, OggDecodesThroughEveryStreamKind) {
  // Leave SIGINT/SIGTERM to the test runner, so a time-out can stop the binary.
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  ASSERT_EQ(SDL_Init(SDL_INIT_AUDIO), 0) << SDL_GetError();
  ASSERT_EQ(Mix_OpenAudio(22050, AUDIO_S16SYS, 2, 512), 0) << Mix_GetError();
  // Decodes through the stream (the mixer closes it); the decoded byte count.
  auto decode = [](SDL_RWops* rw) {
    Mix_Chunk* c = Mix_LoadWAV_RW(rw, 1);
    Uint32 len = c ? c->alen : 0;
    Mix_FreeChunk(c);
    return len;
  };
  ContainerFixture fx;
  const std::string tone = (fx.tmp / "s1/tone.ogg").string(), zip = makeToneZip(fx.tmp);
  Uint32 direct = decode(SDL_RWFromFile(tone.c_str(), "rb"));
  ASSERT_GT(direct, 0u) << Mix_GetError();
  AudioSample z(9);
  z.samples = {"music/stored.ogg", "music/deflated.ogg"};
  // Container window, zip entries stored and deflated, plain file.
  int kind = 0;
  for (SDL_RWops* rw : {makeCompoundRW(fx.path.c_str(), fx.loaded->getSampleForId(1), 0), makeZipRW(zip.c_str(), &z, 0),
                        makeZipRW(zip.c_str(), &z, 1), RWFromFP(fopen(tone.c_str(), "rb"), true)})
    EXPECT_EQ(decode(rw), direct) << "kind " << kind++ << ": " << Mix_GetError();
  EXPECT_GT(decode(makeCompoundRW(fx.path.c_str(), fx.loaded->getSampleForId(3), 0)), 0u) << Mix_GetError();
  // A broken stream makes the load fail cleanly.
  test::LogCapture cap;
  EXPECT_EQ(decode(makeCompoundRW(fx.path.c_str(), fx.loaded->getSampleForId(2), 0)), 0u);
  Mix_CloseAudio();
  SDL_Quit();
}

}  // namespace
}  // namespace korvo
