#include "soundsets/altsound.h"

#include <gtest/gtest.h>

#include <tuple>

#include "base/log.h"
#include "soundsets/altsound_table.h"
#include "storage_fixture.h"

namespace korvo {
namespace {

using test::StorageFixture;
using test::Traits;
using test::traits;

// An 8-column pack as Windows tools write them: BOM, CRLF, quoted header and names,
// ids with and without 0x, backslashes, file names in another case, rows of one id
// apart, garbage rows and a file that is missing.
const char* const kPack8 =
    "\xEF\xBB\xBF\"ID\",\"CHANNEL\",\"DUCK\",\"GAIN\",\"LOOP\",\"STOP\",\"NAME\",\"FNAME\"\r\n"
    "0x0001,0,100,80,100,0,\"Main Theme\",\"music\\01_Main_Theme.ogg\"\r\n"
    "0x0002,,40,,0,0,\"Hello, World\",\"sfx\\hello1.ogg\"\r\n"
    "\r\n"
    "this row is garbage\r\n"
    "0003,1,20,30,0,1,\"Single\",\"sfx\\single.ogg\"\r\n"
    "0x0002,,40,,0,0,\"Hello, World\",\"SFX\\HELLO2.OGG\"\r\n"
    "0x00zz,1,1,1,0,0,\"bad id\",\"sfx\\hello1.ogg\"\r\n"
    "0x0004,1,-1,60,0,0,\"Jingle \"\"J\"\"\",\"sfx\\gone.ogg\"\r\n"
    "0x0005,2,,,0,0,NoFile,\r\n"
    "0x0006,2,10,10,0,0,Evil,\"..\\..\\etc\\passwd\"\r\n";

// A 13-column pack with the optional columns, LF line ends, no header quoting.
const char* const kPack13 =
    "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME,GROUP,SHAKER,SERIAL,PRELOAD,STOP CMD\n"
    "0x10,0,50,150,100,0,Theme,theme.ogg,1,,,1,\n"
    "0x11,2,70,40,0,0,Boom,boom.ogg,2,\"100,200,300\",P1;P2,0,0x10\n"
    "0x12,,-5,50,0,0,Pause,pause.ogg,2,,,0,\n";

// A pack directory holding `csv` and the audio files the tables name, read into idx.
struct PackFixture : StorageFixture {
  std::string dir = (tmp / "pack").string();
  explicit PackFixture(const std::string& csv) {
    for (const char* f : {"music/01_main_theme.ogg", "Sfx/Hello1.ogg", "Sfx/hello2.ogg", "Sfx/single.ogg", "theme.ogg",
                          "boom.ogg", "pause.ogg"})
      test::writeFile(tmp / "pack" / f, std::string("audio:") + f);
    test::writeFile(tmp / "pack/altsound.csv", csv);
    EXPECT_EQ(readSamplesFromCsv(idx, dir), 0);
  }
  std::string csv() const { return test::readFile(dir + "/altsound.csv"); }
  // The sounds as a fresh reader sees the table of `from`.
  std::unique_ptr<SampleIndex> reread(const std::string& from) {
    auto again = std::make_unique<SampleIndex>(s);
    EXPECT_EQ(readSamplesFromCsv(*again, from), 0);
    return again;
  }
};

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at; (at = text.find(from)) != std::string::npos;) text.replace(at, from.size(), to);
}

TEST(AltsoundRead, EightColumnPackFromWindows) {
  test::LogCapture cap(LEVEL_WARN);
  PackFixture fx(kPack8);
  EXPECT_EQ(fx.idx.samplesMap().mapSize(), 4);
  AudioSample *theme = fx.idx.getSampleForId(1), *hello = fx.idx.getSampleForId(2), *jingle = fx.idx.getSampleForId(4);
  ASSERT_TRUE(theme && hello && jingle);
  EXPECT_EQ(traits(theme), (Traits{MUSIC, 80, 100, "Main Theme"}));
  EXPECT_EQ(traits(hello), (Traits{SFX, 50, 40, "Hello, World"}));  // empty CHANNEL and GAIN
  EXPECT_EQ(traits(jingle), (Traits{JINGLE, 60, 100, "Jingle \"J\""}));  // DUCK -1: "pause the music"
  EXPECT_EQ(theme->basepath, fx.dir);
  EXPECT_EQ(theme->samples, std::vector<std::string>{fx.dir + "/music/01_main_theme.ogg"});
  EXPECT_EQ(theme->size, std::string("audio:music/01_main_theme.ogg").size());
  EXPECT_TRUE(hello->gaindefault);
  EXPECT_EQ(hello->samples, (std::vector<std::string>{fx.dir + "/Sfx/Hello1.ogg", fx.dir + "/Sfx/hello2.ogg"}));
  EXPECT_EQ(hello->chunk.size(), 2u);
  EXPECT_EQ(fx.idx.getSampleForId(3)->type, SINGLE);
  EXPECT_EQ(jingle->samples.size(), 1u);  // the missing file's row stays
  EXPECT_EQ(fx.idx.getSampleForId(5), nullptr);
  EXPECT_EQ(fx.idx.getSampleForId(6), nullptr);
  for (const char* want : {"altsound.csv:5: skipping row with bad id 'this row is garbage'",
                           "altsound.csv:8: skipping row with bad id '0x00zz'", "altsound.csv:9: file '",
                           "altsound.csv:10: skipping row without FNAME",
                           "altsound.csv:11: skipping row with bad file name"})
    EXPECT_TRUE(cap.contains(want)) << want;
}

TEST(AltsoundRead, ThirteenColumnTypedAndHeaderlessPacks) {
  PackFixture fx(kPack13);
  AudioSample *theme = fx.idx.getSampleForId(0x10), *boom = fx.idx.getSampleForId(0x11);
  ASSERT_TRUE(theme && boom);
  EXPECT_EQ(theme->gain, 100u);  // clamped
  EXPECT_TRUE(theme->preload);
  EXPECT_EQ(boom->type, SFX);
  EXPECT_EQ(boom->shakersequence, (std::vector<uint32_t>{100, 200, 300}));
  EXPECT_EQ(boom->serialcmd, "P1;P2");
  EXPECT_FALSE(boom->preload);
  EXPECT_EQ(fx.idx.getSampleForId(0x12)->ducking, 100u);
  // A TYPE column wins over CHANNEL; without a header the standard order applies and
  // an empty DUCK takes the type's default.
  PackFixture typed("ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME,TYPE\n0x20,0,30,50,0,0,V,boom.ogg,voice\n");
  EXPECT_EQ(typed.idx.getSampleForId(0x20)->type, VOICE);
  EXPECT_EQ(typed.idx.getSampleForId(0x20)->ducking, 30u);
  PackFixture bare("0x30,1,,70,0,0,J,boom.ogg\n");
  EXPECT_EQ(bare.idx.getSampleForId(0x30)->type, JINGLE);
  EXPECT_EQ(bare.idx.getSampleForId(0x30)->ducking, 10u);
  EXPECT_TRUE(bare.idx.getSampleForId(0x30)->duckingdefault);
}

TEST(AltsoundWrite, EditsChangeOnlyTheFieldsAndRowsOfTheId) {
  PackFixture fx(kPack8);
  AudioSample* hello = fx.idx.getSampleForId(2);
  std::string want = kPack8;
  // A column edit changes that field in every row of the id; a quoted field stays
  // quoted and a value with a comma gets quotes.
  ASSERT_EQ(updateCsvColumn(*hello, SampleIndex::CSV_GAIN, "75"), 0);
  replaceAll(want, "0x0002,,40,,0,0", "0x0002,,40,75,0,0");
  EXPECT_EQ(fx.csv(), want);
  ASSERT_EQ(updateCsvColumn(*hello, SampleIndex::CSV_NAME, "Bye, \"all\""), 0);
  replaceAll(want, "\"Hello, World\"", "\"Bye, \"\"all\"\"\"");
  EXPECT_EQ(fx.csv(), want);
  // A refresh adds a row after the id's last one and drops the row of a removed file.
  const std::string row = "0x0002,,40,75,0,0,\"Bye, \"\"all\"\"\",";
  test::writeFile(fx.tmp / "pack/new.ogg", "new");
  hello->samples.push_back(fx.dir + "/new.ogg");
  hello->samples.erase(hello->samples.begin());
  ASSERT_EQ(refreshCsvTable(*hello), 0);
  replaceAll(want, row + "\"sfx\\hello1.ogg\"\r\n", "");
  const std::string second = row + "\"SFX\\HELLO2.OGG\"\r\n";
  want.insert(want.find(second) + second.size(), row + "\"new.ogg\"\r\n");
  EXPECT_EQ(fx.csv(), want);
  auto again = fx.reread(fx.dir);
  AudioSample* back = again->getSampleForId(2);
  EXPECT_EQ(back->gain, 75u);
  EXPECT_EQ(back->name, "Bye, \"all\"");
  EXPECT_EQ(back->samples, (std::vector<std::string>{fx.dir + "/Sfx/hello2.ogg", fx.dir + "/new.ogg"}));
  // An id without rows changes nothing.
  AudioSample stranger(0x77);
  stranger.basepath = fx.dir;
  test::LogCapture cap;
  EXPECT_EQ(updateCsvColumn(stranger, SampleIndex::CSV_GAIN, "1"), 1);
  EXPECT_EQ(fx.csv(), want);
}

TEST(AltsoundWrite, MissingColumnsExtendTheHeaderAndPadRows) {
  PackFixture fx(
      "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME\n"
      "0x10,0,50,50,100,0,Theme,theme.ogg\n"
      "0x11,2,70,40,0,0,Boom,boom.ogg");  // no line end on the last row
  AudioSample* boom = fx.idx.getSampleForId(0x11);
  ASSERT_EQ(updateCsvColumn(*boom, SampleIndex::CSV_SERIAL, "S1"), 0);
  EXPECT_EQ(fx.csv(),
            "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME,GROUP,SHAKER,SERIAL\n"
            "0x10,0,50,50,100,0,Theme,theme.ogg,,,\n"
            "0x11,2,70,40,0,0,Boom,boom.ogg,,,S1");
  boom->type = MUSIC;
  ASSERT_EQ(updateCsvType(*boom), 0);
  EXPECT_EQ(fx.csv(),
            "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME,GROUP,SHAKER,SERIAL,PRELOAD,STOPCMD,TYPE\n"
            "0x10,0,50,50,100,0,Theme,theme.ogg,,,,,,\n"
            "0x11,0,100,40,100,0,Boom,boom.ogg,,,S1,,,music");
  boom->type = SINGLE;
  ASSERT_EQ(updateCsvType(*boom), 0);
  EXPECT_EQ(fx.reread(fx.dir)->getSampleForId(0x11)->type, SINGLE);
}

TEST(AltsoundBadInput, FileNamesThatNameADirectoryAreRefusedWithTheirLine) {
  StorageFixture fx;
  const std::string dir = (fx.tmp / "d").string();
  std::filesystem::create_directories(fx.tmp / "d/Sub");
  test::writeFile(fx.tmp / "d/ok.ogg", "x");
  test::writeFile(fx.tmp / "d/altsound.csv",
                  "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME\n0x01,,,,,,dot,.\n0x02,,,,,,sub,sub\n"
                  "0x03,,,,,,slash,./\n0x04,,,,,,ok,ok.ogg\n0x05,,,,,,trail,SUB/\n");
  test::writeFile(fx.tmp / "g/g-sound.csv", "ID,TYPE,GAIN,DUCKING_PROFILE,FNAME\n0x01,sfx,50,0,.\n0x02,sfx,50,0,ok.ogg\n");
  test::writeFile(fx.tmp / "g/ok.ogg", "x");
  test::LogCapture cap;
  ASSERT_EQ(readSamplesFromCsv(fx.idx, dir), 0);
  EXPECT_EQ(fx.idx.samplesMap().mapSize(), 1);
  ASSERT_NE(fx.idx.getSampleForId(4), nullptr);
  for (int line : {2, 3, 4, 6})
    EXPECT_TRUE(cap.contains(dir + "/altsound.csv:" + std::to_string(line) + ": skipping row whose file name")) << line;
  ASSERT_EQ(readSamplesFromCsv(fx.idx, (fx.tmp / "g").string()), 0);
  EXPECT_EQ(fx.idx.samplesMap().mapSize(), 1);
  EXPECT_NE(fx.idx.getSampleForId(2), nullptr);
  EXPECT_TRUE(cap.contains((fx.tmp / "g/g-sound.csv").string() + ":2: skipping row whose file name"));
}

TEST(AltsoundGSound, ReadsProfilesAndRefusesEdits) {
  StorageFixture fx;
  std::string dir = (fx.tmp / "g").string();
  test::writeFile(fx.tmp / "g/g-sound.csv",
                  "ID,TYPE,GAIN,DUCKING_PROFILE,FNAME\r\n0x01,music,80,0,m.ogg\r\n0x02,callout,60,1,c.ogg\r\n"
                  "0x03,sfx,40,2,s.ogg\r\n0x04,solo,40,0,s.ogg\r\n0x05,overlay,40,0,s.ogg\r\n");
  test::writeFile(fx.tmp / "g/AltSound.ini",
                  "[format]\nformat = g-sound\n[callout_ducking_profiles]\nducking_profile1 = sfx:65, music:50\n"
                  "[sfx_ducking_profiles]\nducking_profile2 = callout:10\n");
  for (const char* f : {"m.ogg", "c.ogg", "s.ogg"}) test::writeFile(fx.tmp / "g" / f, "x");
  test::writeFile(fx.tmp / "g/altsound.csv", "0x09,0,0,0,0,0,x,m.ogg\n");
  bool gsound = false;
  EXPECT_EQ(findCsvTable(dir, &gsound), dir + "/g-sound.csv");
  EXPECT_TRUE(gsound);
  ASSERT_EQ(readSamplesFromCsv(fx.idx, dir), 0);
  EXPECT_EQ(fx.idx.samplesMap().mapSize(), 5);
  const std::pair<AudioType, unsigned> want[] = {{MUSIC, 100}, {VOICE, 50}, {SFX, 100}, {SINGLE, 0}, {JINGLE, 0}};
  for (unsigned id = 2; id <= 3; ++id) EXPECT_EQ(fx.idx.getSampleForId(id)->ducking, want[id - 1].second) << id;
  for (unsigned id = 1; id <= 5; ++id) EXPECT_EQ(fx.idx.getSampleForId(id)->type, want[id - 1].first) << id;
  EXPECT_EQ(fx.idx.getSampleForId(2)->gain, 60u);
  const std::string before = test::readFile(fx.tmp / "g/g-sound.csv");
  EXPECT_EQ(updateCsvColumn(*fx.idx.getSampleForId(2), SampleIndex::CSV_GAIN, "1"), 2);
  EXPECT_EQ(test::readFile(fx.tmp / "g/g-sound.csv"), before);
  // The ini can choose the other table.
  test::writeFile(fx.tmp / "g/AltSound.ini", "[format]\nformat = altsound\n");
  EXPECT_EQ(findCsvTable(dir, &gsound), dir + "/altsound.csv");
  EXPECT_FALSE(gsound);
}

TEST(AltsoundExport, ExportedPackReadsBackTheSameSounds) {
  PackFixture fx(kPack13);
  fx.idx.getSampleForId(0x11)->name = "Boom, big";
  const std::string out = (fx.tmp / "export").string();
  std::filesystem::create_directories(out);
  ASSERT_EQ(writeSamplesToCsv(fx.idx, out + "/altsound.csv", fx.dir, true), 0);
  const std::string csv = test::readFile(out + "/altsound.csv");
  EXPECT_EQ(csv.substr(0, csv.find('\n')),
            "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME,GROUP,SHAKER,SERIAL,PRELOAD,STOPCMD,TYPE");
  EXPECT_NE(csv.find("0x0011,,70,40,0,0,\"Boom, big\",0x0011-boom.ogg,,\"100,200,300\",P1;P2,0,,sfx\n"), std::string::npos)
      << csv;
  auto back = fx.reread(out);
  ASSERT_EQ(back->samplesMap().mapSize(), 3);
  for (unsigned id : {0x10u, 0x11u, 0x12u}) {
    AudioSample *a = fx.idx.getSampleForId(id), *b = back->getSampleForId(id);
    ASSERT_TRUE(b) << id;
    EXPECT_EQ(traits(a), traits(b));
    EXPECT_EQ(a->shakersequence, b->shakersequence);
    EXPECT_EQ(test::readFile(a->samples[0]), test::readFile(b->samples[0]));
  }
  // Without copying, FNAME is relative to the base path.
  ASSERT_EQ(writeSamplesToCsv(fx.idx, out + "/plain.csv", fx.dir, false), 0);
  EXPECT_NE(test::readFile(out + "/plain.csv").find(",theme.ogg,"), std::string::npos);
}

TEST(AltsoundBadInput, GarbageTablesNeverCrashAndLeaveTheMapWhenUnreadable) {
  StorageFixture fx;
  fx.addSound(1, SFX, "keep", {{"k.ogg", "k"}});
  std::string dir = (fx.tmp / "empty").string();
  std::filesystem::create_directories(dir);
  test::LogCapture cap;
  EXPECT_EQ(readSamplesFromCsv(fx.idx, dir), -1);
  EXPECT_EQ(fx.idx.samplesMap().mapSize(), 1);
  test::writeFile(fx.tmp / "empty/ALTSOUND.CSV", std::string("\"unterminated,,,\n\0\0\xff,\"\",,,,,,,,,,,,,,,,,,\n,,,\n", 40));
  EXPECT_EQ(readSamplesFromCsv(fx.idx, dir), 0);
  EXPECT_EQ(fx.idx.samplesMap().mapSize(), 0);
  uint32_t id = 0;
  EXPECT_TRUE(parseHexId("0X00001a", id));
  EXPECT_EQ(id, 0x1Au);
  EXPECT_FALSE(parseHexId("0x123456789", id));
  EXPECT_FALSE(parseHexId("-1", id));
}

}  // namespace
}  // namespace korvo
