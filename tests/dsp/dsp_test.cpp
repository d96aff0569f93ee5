// The DSP programmed from its XML definition on the sim backend's DSP model: the
// coefficients read back from the model's parameter memory are run over test signals.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "base/stringutil.h"
#include "dsp/dsp.h"
#include "platform/sim_gpio.h"
#include "support/testutil.h"

namespace korvo {
namespace {

constexpr double kRate = 48000;

// The sections as the chip holds them: b0, b1, b2 and the negated feedback terms.
std::vector<Biquad> readSections(const SimDsp& dsp, uint16_t address, int order) {
  std::vector<Biquad> out;
  for (int i = 0; i < butterworthSections(order); ++i) {
    auto w = [&](int k) { return fromFixed(dsp.parameter(static_cast<uint16_t>(address + 5 * i + k)), DspFormat::Q5_23); };
    out.push_back({w(0), w(1), w(2), -w(3), -w(4)});
  }
  return out;
}

// Level in dB of a sine at `hz` after the cascade, from the RMS of the settled second
// half of two seconds of signal.
double measuredDb(const std::vector<Biquad>& sections, double hz) {
  const int n = static_cast<int>(2 * kRate);
  std::vector<std::array<double, 4>> state(sections.size());  // x1, x2, y1, y2
  double in2 = 0, out2 = 0;
  for (int i = 0; i < n; ++i) {
    double x = std::sin(2 * std::numbers::pi * hz * i / kRate);
    const double input = x;
    for (std::size_t k = 0; k < sections.size(); ++k) {
      const Biquad& s = sections[k];
      auto& z = state[k];
      const double y = s.b0 * x + s.b1 * z[0] + s.b2 * z[1] - s.a1 * z[2] - s.a2 * z[3];
      z = {x, z[0], y, z[2]};
      x = y;
    }
    if (i >= n / 2) in2 += input * input, out2 += x * x;
  }
  return 10 * std::log10(out2 / in2);
}

std::string allOrdersXml(int cutoff) {
  std::string xml = "<dsp part=\"ADAU1701\" i2c=\"0x34\" format=\"5.23\" rate=\"48000\">\n";
  for (int order = 1; order <= 8; ++order)
    for (const char* kind : {"lowpass", "highpass"}) {
      const int address = (order - 1) * 48 + (kind[0] == 'h' ? 24 : 0);
      xml += strFormat("<setting name=\"%s%d\" value=\"%d\" min=\"10\" max=\"20000\">"
                       "<butterworth kind=\"%s\" order=\"%d\" address=\"%d\"/></setting>\n",
                       kind, order, cutoff, kind, order, address);
    }
  return xml + "</dsp>\n";
}

class DspTest : public ::testing::Test {
 protected:
  std::unique_ptr<Dsp> load(const std::string& xml) {
    test::writeFile(dir_ / "dsp.xml", xml);
    auto dsp = std::make_unique<Dsp>(gpio_, settings_);
    EXPECT_TRUE(dsp->loadDefinition((dir_ / "dsp.xml").string()));
    return dsp;
  }
  bool loadFails(const std::string& xml, const std::string& expected) {
    test::writeFile(dir_ / "bad.xml", xml);
    test::LogCapture log;
    Dsp dsp(gpio_, settings_);
    const bool failed = !dsp.loadDefinition((dir_ / "bad.xml").string()) && dsp.applyDspSettings() == -1;
    return failed && log.contains(expected) && gpio_.dsp().writes().empty();
  }

  test::TempDir dir_;
  SimGpio gpio_;
  Settings settings_;
};

TEST_F(DspTest, ButterworthOfEveryOrderIsThreeDecibelsDownAtTheCutOffAndFallsSixPerOctavePerOrder) {
  for (int cutoff : {200, 1000}) {
    Dsp dsp(gpio_, settings_);
    test::writeFile(dir_ / "all.xml", allOrdersXml(cutoff));
    ASSERT_TRUE(dsp.loadDefinition((dir_ / "all.xml").string()));
    ASSERT_EQ(dsp.applyDspSettings(), 0);
    for (int order = 1; order <= 8; ++order) {
      SCOPED_TRACE(strFormat("cut-off %d Hz, order %d", cutoff, order));
      const auto low = readSections(gpio_.dsp(), static_cast<uint16_t>((order - 1) * 48), order);
      const auto high = readSections(gpio_.dsp(), static_cast<uint16_t>((order - 1) * 48 + 24), order);
      EXPECT_NEAR(measuredDb(low, cutoff), -3.01, 0.1);
      EXPECT_NEAR(measuredDb(high, cutoff), -3.01, 0.1);
      EXPECT_NEAR(measuredDb(low, cutoff / 10.0), 0.0, 0.1);  // pass band flat
      if (cutoff != 200) continue;  // the octaves beyond stay far below Nyquist at 200 Hz
      EXPECT_NEAR(measuredDb(low, 4 * cutoff) - measuredDb(low, 8 * cutoff), 6.02 * order, 0.5);
      EXPECT_NEAR(measuredDb(high, cutoff / 4.0) - measuredDb(high, cutoff / 8.0), 6.02 * order, 0.5);
    }
  }
}

TEST_F(DspTest, DemoDefinitionProgramsWithSafeloadsOfAtMostFiveWords) {
  settings_.dspLedIndicator = 1;
  Dsp dsp(gpio_, settings_);
  ASSERT_TRUE(dsp.loadDefinition((test::sourceDir() / "demo/dsp/velt-demo.xml").string()));
  const auto entries = dsp.catalogueEntries();
  ASSERT_EQ(entries.size(), 8u);  // _mute_all among them: the catalogue hides it
  ASSERT_EQ(dsp.applyDspSettings(), 0);
  SimDsp& model = gpio_.dsp();
  // The program went out first, as written; then only safeload registers and core control.
  const auto writes = model.writes();
  ASSERT_GE(writes.size(), 2u);
  EXPECT_EQ(writes[0].address, 0x081C);
  EXPECT_EQ(writes[1].address, 0x0031);
  for (std::size_t i = 2; i + 1 < writes.size(); ++i) {
    if (writes[i].address == Dsp::kSafeloadData) {
      EXPECT_LE(writes[i].bytes.size(), 25u);
    }
    EXPECT_TRUE(writes[i].address == Dsp::kSafeloadData || writes[i].address == Dsp::kSafeloadAddress ||
                writes[i].address == Dsp::kCoreControl);
  }
  EXPECT_EQ(writes.back().address, 0x0820);  // the activity LED
  EXPECT_EQ(model.word(0x0820), (std::vector<uint8_t>{0x00, 0x01}));
  // main_gain_db -3 dB, sub_gain_db 0 dB.
  EXPECT_NEAR(fromFixed(model.parameter(0x0032), DspFormat::Q5_23), 0.7079, 1e-4);
  EXPECT_EQ(model.parameter(0x0030), 1 << 23);
  // 10 + 10 + 5 + 5 + 20 + 15 filter words and 3 single words, five per safeload.
  EXPECT_EQ(model.safeloads(), 2 + 2 + 1 + 1 + 4 + 3 + 1 + 1 + 1);
}

TEST_F(DspTest, ValuesAreClampedAndAValueThatDoesNotFitIsRefusedWithNothingWritten) {
  auto loaded = load(R"(<dsp format="5.23"><setting name="boost" value="0" min="-10" max="40" unit="dB">
      <gain address="0x0005"/></setting></dsp>)");
  Dsp& dsp = *loaded;
  ASSERT_EQ(dsp.applyDspSettings(), 0);
  const auto before = gpio_.dsp().writes().size();
  {
    test::LogCapture log;
    EXPECT_EQ(dsp.applySetting("boost", 30), 1);  // x31.6 does not fit 5.23 (below 16)
    EXPECT_TRUE(log.contains("ERROR")) << log.text();
    EXPECT_TRUE(log.contains("boost"));
  }
  EXPECT_EQ(gpio_.dsp().writes().size(), before);
  EXPECT_EQ(gpio_.dsp().parameter(0x0005), 1 << 23);
  EXPECT_EQ(dsp.definition()->settings[0].value, 0);
  {
    test::LogCapture log;
    EXPECT_EQ(dsp.applySetting("boost", -50), 0);  // clamped to -10 dB
    EXPECT_TRUE(log.contains("WARN"));
  }
  EXPECT_NEAR(fromFixed(gpio_.dsp().parameter(0x0005), DspFormat::Q5_23), 0.3162, 1e-4);
  // The web form: only the changed DSP keys are applied.
  EXPECT_EQ(dsp.applySettingLines("volume=3\nboost=-10\n"), 0);
  EXPECT_EQ(dsp.applySettingLines("say_mode=1\nboost=6\n"), 1);
  EXPECT_NEAR(fromFixed(gpio_.dsp().parameter(0x0005), DspFormat::Q5_23), 1.9953, 1e-4);
  EXPECT_EQ(dsp.applySetting("nosuch", 1), -1);
}

TEST_F(DspTest, BadFilesAreRefusedWithTheirLineAndNoWrites) {
  EXPECT_TRUE(loadFails("<dsp>\n<setting name=\"a\" value=\"1\"\n</dsp>\n", "bad.xml:3"));
  EXPECT_TRUE(loadFails("<dsp>\n\n<fader address=\"1\"/></dsp>", "bad.xml:3: unknown element <fader>"));
  EXPECT_TRUE(loadFails("<dsp>\n<setting name=\"a\" value=\"1\" min=\"0\" max=\"2\">\n<eq address=\"1\"/></setting></dsp>",
                        "bad.xml:3: unknown target <eq>"));
  EXPECT_TRUE(loadFails("<dsp><setting name=\"a\" value=\"1\" min=\"0\" max=\"2\"><gain address=\"0x0400\"/>"
                        "</setting></dsp>", "not a number in 0..1023"));
  EXPECT_TRUE(loadFails("<dsp><setting name=\"a\" value=\"1\" min=\"0\" max=\"2\"><butterworth kind=\"lowpass\" "
                        "order=\"8\" address=\"1010\"/></setting></dsp>", "runs past the parameter memory"));
  EXPECT_TRUE(loadFails("<dsp><setting name=\"a\" value=\"1\" min=\"0\" max=\"2\"><butterworth kind=\"lowpass\" "
                        "order=\"9\" address=\"1\"/></setting></dsp>", "order=\"9\""));
  EXPECT_TRUE(loadFails("<dsp><program><write address=\"0x10\">0 1x</write></program></dsp>", "hexadecimal"));
  EXPECT_TRUE(loadFails("<dsp format=\"3.29\"/>", "format"));
  EXPECT_TRUE(loadFails("<dsp><setting name=\"a\" value=\"99999999999\" min=\"0\" max=\"2\"><word address=\"1\"/>"
                        "</setting></dsp>", "value="));
  EXPECT_TRUE(loadFails("<mixer/>", "not <dsp>"));
}

TEST_F(DspTest, NoDeviceAtTheAddressIsOneErrorAndTheDaemonGoesOn) {
  gpio_.removeI2cDevice(SimGpio::kDspAddress);
  auto loaded = load("<dsp><setting name=\"g\" value=\"0\" min=\"-6\" max=\"6\"><gain address=\"1\"/></setting></dsp>");
  Dsp& dsp = *loaded;
  test::LogCapture log;
  EXPECT_EQ(dsp.applyDspSettings(), -1);
  EXPECT_EQ(dsp.applySetting("g", 3), -1);
  EXPECT_EQ(log.text().find("does not answer"), log.text().rfind("does not answer"));  // said once
  EXPECT_TRUE(log.contains("does not answer at 0x34"));
}

}  // namespace
}  // namespace korvo
