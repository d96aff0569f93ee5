// The web service's view of the front panel and the DSP: /display mirrors the mini
// display's frame buffer, and a saved configuration reaches the DSP at once.
#include <gtest/gtest.h>

#include <span>

#include "dsp/dsp.h"
#include "panel/font.h"
#include "panel/minidisplay.h"
#include "platform/sim_gpio.h"
#include "web_fixture.h"

namespace korvo {
namespace {

using PanelRoutes = test::WebFixture;

TEST_F(PanelRoutes, DisplayAnswersTheFrameBufferOr404WithoutADisplay) {
  start();
  EXPECT_EQ(get("/display").status, 404);
  http.reset();

  SimGpio sim;
  MiniDisplay display(sim);
  ASSERT_TRUE(display.init());
  display.showLine(0, 8, "VERSION: 1.30rc24");
  ctx->displayFrame = [&display] {
    const auto f = display.frameBuffer();
    return std::vector<uint8_t>(f.begin(), f.end());
  };
  start();
  const test::Reply r = get("/display");
  EXPECT_EQ(r.status, 200);
  EXPECT_TRUE(r.hasHeader("Content-Type: application/octet-stream")) << r.headers;
  ASSERT_EQ(r.body.size(), 1024u);
  const auto* page = reinterpret_cast<const uint8_t*>(r.body.data()) + kDisplayColumns;
  EXPECT_EQ(readText(std::span<const uint8_t, kDisplayColumns>(page, kDisplayColumns)), "VERSION: 1.30rc24");
}

TEST_F(PanelRoutes, SavedConfigurationAppliesAChangedDspSettingAtOnce) {
  SimGpio sim;
  Dsp dsp(sim, settings);
  ASSERT_TRUE(dsp.loadDefinitionText(
      "<dsp><setting name=\"sub_gain_db\" value=\"0\" min=\"-20\" max=\"10\"><gain address=\"0x30\"/></setting></dsp>",
      "web.xml"));
  config.extendMasterConfigMap(dsp.catalogueEntries());
  ASSERT_EQ(dsp.applyDspSettings(), 0);
  ctx->applyConfigLines = [&dsp](const std::string& lines) { dsp.applySettingLines(lines); };
  start();
  const auto reply = client->send({"POST", "/config", "volume=60&sub_gain_db=6",
                                   {"Content-Type: application/x-www-form-urlencoded"}});
  EXPECT_NE(reply.body.find("Config updated"), std::string::npos) << reply.body;
  EXPECT_NEAR(fromFixed(sim.dsp().parameter(0x30), DspFormat::Q5_23), 1.9953, 1e-4);
  EXPECT_EQ(dsp.definition()->settings[0].value, 6);
  EXPECT_NE(test::readFile(base / "mellosound.ini").find("sub_gain_db=6"), std::string::npos);
}

}  // namespace
}  // namespace korvo
