#include "soundsets/editing.h"

#include <gtest/gtest.h>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "soundsets/altsound.h"
#include "soundsets/xsnd.h"
#include "storage_fixture.h"

namespace korvo {
namespace {

using test::StorageFixture;
namespace fs = std::filesystem;

std::vector<std::string> namesOf(const AudioSample& s) {
  std::vector<std::string> out;
  for (const auto& p : s.samples) out.push_back(p.substr(p.find_last_of('/') + 1));
  return out;
}

TEST(RemoveFromRecord, KeepsTheHistoricalMoveDown) {
  // The move stops one place early: the middle of three keeps the released (empty)
  // path at the new end.
  const std::pair<int, std::vector<std::string>> cases[] = {{2, {"a", "b"}}, {0, {"b", "b"}}, {1, {"a", ""}}};
  for (const auto& [index, want] : cases) {
    AudioSample s(1);
    s.samples = {"a", "b", "c"};
    s.syncChunks();
    removeSampleFromAudioSample(s, index);
    s.samples.pop_back();
    EXPECT_EQ(s.samples, want) << index;
  }
}

TEST(EditPinsound, UploadsAreRenumberedRemovalsDeleteTheFileAndZipSetsRefuse) {
  StorageFixture fx;
  fx.idx.setSetType(PINSOUND);
  AudioSample* s = fx.addSound(0x21, SFX, "sfx/33-boom", {{"a.ogg", "A"}});
  const std::string upload = (fx.tmp / "upload.tmp").string();
  for (int i = 0; i < 2; ++i) {
    test::writeFile(upload, "boom" + std::to_string(i));
    ASSERT_EQ(addSampleToSound(fx.idx, 0x21, upload, "C:\\x/boom.ogg"), 0);
    EXPECT_FALSE(fs::exists(upload));
  }
  EXPECT_EQ(namesOf(*s), (std::vector<std::string>{"a.ogg", "boom.ogg", "1-boom.ogg"}));
  EXPECT_EQ(s->chunk.size(), 3u);
  EXPECT_EQ(test::readFile(fx.tmp / "sfx/33-boom/boom.ogg"), "boom0");
  EXPECT_EQ(test::readFile(fx.tmp / "sfx/33-boom/1-boom.ogg"), "boom1");
  ASSERT_EQ(removeSampleFromSound(fx.idx, 0x21, 2), 0);
  EXPECT_FALSE(fs::exists(fx.tmp / "sfx/33-boom/1-boom.ogg"));
  EXPECT_EQ(namesOf(*s), (std::vector<std::string>{"a.ogg", "boom.ogg"}));
  EXPECT_EQ(s->chunk.size(), 2u);
  // Unknown sounds, bad indexes and hostile names change nothing.
  EXPECT_EQ(removeSampleFromSound(fx.idx, 0x99, 0), 1);
  EXPECT_EQ(removeSampleFromSound(fx.idx, 0x21, 5), 1);
  test::writeFile(upload, "x");
  EXPECT_EQ(addSampleToSound(fx.idx, 0x99, upload, "x.ogg"), -1);
  EXPECT_EQ(addSampleToSound(fx.idx, 0x21, upload, "../.."), -1);
  EXPECT_EQ(s->samples.size(), 2u);
  // Zip sets have no edit handlers: their files stay as they are.
  fx.idx.setSetType(ZIPFILE);
  test::LogCapture cap;
  EXPECT_EQ(removeSampleFromSound(fx.idx, 0x21, 0), 1);
  EXPECT_TRUE(cap.contains("remove sample for sound not expected for soundset type"));
  EXPECT_EQ(addSampleToSound(fx.idx, 0x21, upload, "u.ogg"), -1);
  EXPECT_TRUE(fs::exists(fx.tmp / "sfx/33-boom/a.ogg"));
  EXPECT_EQ(s->samples.size(), 2u);
}

TEST(EditXsnd, AddAppendsAfterTheIndexAndRemoveMarksTheChunk) {
  StorageFixture fx;
  fx.addSound(5, SFX, "s", {{"a.ogg", "AAAA"}, {"b.ogg", "BBBB"}});
  const std::string path = fx.pack("set.xsnd", true);
  auto loaded = fx.unpack(path);
  loaded->setSetType(XSNDFILE);
  AudioSample* s = loaded->getSampleForId(5);
  const std::string before = test::readFile(path);
  {  // a failed append leaves the container as it was
    test::LogCapture cap;
    EXPECT_EQ(addSampleToSound(*loaded, 5, (fx.tmp / "missing.ogg").string(), "m.ogg"), -1);
    EXPECT_EQ(test::readFile(path), before);
    EXPECT_EQ(s->samples.size(), 2u);
    EXPECT_EQ(s->filechunks.size(), 2u);
  }
  test::writeFile(fx.tmp / "up.ogg", test::toneOgg());
  // The container is replaced, never changed in place: a file opened before the append
  // (a stream that is playing) still reads the old container whole.
  FileHandle open(fopen(path.c_str(), "rb"));
  ASSERT_EQ(addSampleToSound(*loaded, 5, (fx.tmp / "up.ogg").string(), "new.ogg"), 0);
  fseek(open.get(), 0, SEEK_END);
  EXPECT_EQ(ftell(open.get()), static_cast<long>(before.size()));
  for (const auto& e : fs::directory_iterator(fx.tmp.path()))
    EXPECT_FALSE(isOwnTemporary(e.path().filename().string())) << e.path();
  ASSERT_EQ(s->samples.size(), 3u);
  ASSERT_EQ(s->filechunks.size(), 3u);
  EXPECT_EQ(s->samples[2], "new.ogg");
  const std::string after = test::readFile(path);
  EXPECT_EQ(after.substr(0, before.size()), before);  // only appended
  EXPECT_EQ(s->filechunks[2].offset, before.size() + 12);
  EXPECT_EQ(after.substr(s->filechunks[2].offset), test::toneOgg());
  // Remove the first file: state word 0 on disk, the index untouched.
  const uint32_t firstOffset = s->filechunks[0].offset;
  ASSERT_EQ(removeSampleFromSound(*loaded, 5, 0), 0);
  const std::string removed = test::readFile(path);
  EXPECT_EQ(removed.substr(firstOffset - 2, 2), std::string(2, '\0'));
  EXPECT_EQ(removed.size(), after.size());
  EXPECT_EQ(s->samples.size(), 2u);
  EXPECT_EQ(s->filechunks.size(), 3u);  // the chunk table keeps its length
  EXPECT_EQ(s->filechunks[0].offset, s->filechunks[1].offset);  // moved down by the same rule
  EXPECT_EQ(fx.unpack(path)->getSampleForId(5)->samples.size(), 2u);
}

TEST(EditAltsound, RowsFollowAddedAndRemovedFilesAndAudioStays) {
  StorageFixture fx;
  const std::string head = "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME\r\n", theme = "0x02,0,100,50,100,0,Theme,theme.ogg\r\n";
  auto row = [](const std::string& file) { return "0x01,2,80,50,0,0,Boom," + file + "\r\n"; };
  test::writeFile(fx.tmp / "alt/altsound.csv", head + row("boom.ogg") + theme);
  test::writeFile(fx.tmp / "alt/boom.ogg", "boom");
  test::writeFile(fx.tmp / "alt/theme.ogg", "theme");
  ASSERT_EQ(readSamplesFromCsv(fx.idx, (fx.tmp / "alt").string()), 0);
  fx.idx.setSetType(ALTSOUND);
  for (int i = 0; i < 2; ++i) {
    test::writeFile(fx.tmp / "up", "boom" + std::to_string(i));
    ASSERT_EQ(addSampleToSound(fx.idx, 1, (fx.tmp / "up").string(), "boom.ogg"), 0);
  }
  EXPECT_EQ(test::readFile(fx.tmp / "alt/1-boom.ogg"), "boom0");
  EXPECT_EQ(test::readFile(fx.tmp / "alt/altsound.csv"),
            head + row("boom.ogg") + row("1-boom.ogg") + row("2-boom.ogg") + theme);
  // Removing the middle of three follows the move-down rule above, yet never leaves
  // the released (empty) path behind; the audio stays on disk.
  ASSERT_EQ(removeSampleFromSound(fx.idx, 1, 1), 0);
  EXPECT_EQ(namesOf(*fx.idx.getSampleForId(1)), std::vector<std::string>{"boom.ogg"});
  EXPECT_EQ(fx.idx.getSampleForId(1)->chunk.size(), 1u);
  EXPECT_TRUE(fs::exists(fx.tmp / "alt/1-boom.ogg"));
  EXPECT_EQ(test::readFile(fx.tmp / "alt/altsound.csv"), head + row("boom.ogg") + theme);
}

}  // namespace
}  // namespace korvo
