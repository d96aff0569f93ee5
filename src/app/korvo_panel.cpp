// The owner's front-panel and DSP steps: the DSP definition, the mini display, the start-up
// lines and the Wi-Fi fallback, the encoder and volume input, the button, the DSP settings
// after "mellosound.ini", and the panel's parts of the main loop.
#include <algorithm>
#include <filesystem>

#include "app/korvo.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "platform/clock.h"
#include "web/netinfo.h"

namespace korvo {

void Korvo::loadDspDefinition() {
  if (opt_.dspXmlFile.empty()) return;
  LOG(LEVEL_INFO, "dsp xml def set to '%s'", opt_.dspXmlFile.c_str());
  dsp_ = std::make_unique<Dsp>(*gpio_, settings);
  // A bad file has been logged with its line; the daemon runs on without a DSP.
  if (!dsp_->loadDefinition(opt_.dspXmlFile)) {
    dsp_.reset();
    return;
  }
  config_.extendMasterConfigMap(dsp_->catalogueEntries());
}

void Korvo::applyDspSettings() {
  if (dsp_ && gpio_->hasI2C()) dsp_->applyDspSettings();
}

void Korvo::startMiniDisplay() {
  if (!gpio_->hasI2C()) settings.enable_minidisplay = 0;
  panel_ = std::make_unique<FrontPanel>(*gpio_, settings, panelActions());
  if (settings.enable_minidisplay) panel_->initMiniDisplay();
}

PanelActions Korvo::panelActions() {
  PanelActions a;
  // Every action posts to the engine's ring or takes its lock only briefly: the loop
  // must not wait for a set load.
  a.adjustVolume = [this](int steps) {
    if (!protocolPort_) return;
    protocolPort_->postSetVolume(std::clamp(settings.volume.load() + 5 * steps, 0, 128));
  };
  a.setVolume = [this](int v) {
    if (protocolPort_) protocolPort_->postSetVolume(v);
  };
  a.nextSoundSet = [this] { postNextSoundSet(); };
  a.soundHandler = [this](unsigned id) {
    if (engine_) engine_->soundHandler(id);
  };
  // On the display thread, which may wait for the engine.
  a.soundSetName = [this](int n) -> std::string {
    SoundEngine* engine = panelEngine_.load(std::memory_order_acquire);
    if (!engine) return "";
    auto lock = engine->lock();
    const SoundSet* set = engine->catalogue().get(n);
    if (!set) return "";
    return std::filesystem::path(set->basedir).filename().string();
  };
  return a;
}

void Korvo::postNextSoundSet() {
  if (!engine_) return;
  SoundServiceRequest req = engine_->ring().buildRequest(SWITCH_SOUNDSET);
  req.id = 1;
  engine_->ring().queuePut(req);
}

void Korvo::showStartupDisplay() {
  panel_->showDisplayLine(0, 8, strFormat("VERSION: %s", kVersion));
  panel_->showDisplayLine(0, 48, strFormat("SERIAL: %u", boardSerial_));
  const std::vector<NetworkInterface> networks = queryNetworks();
  if (!networks.empty()) panel_->showDisplayLine(0, 16, strFormat("IP: %s", networks[0].ip.c_str()));
  wifi_ = std::make_unique<WifiFallback>(
      [] { return queryNetworks(); },
      [this](const std::string& ip) { panel_->showDisplayLine(0, 16, strFormat("IP: %s", ip.c_str())); },
      [] { return WifiFallback::runApScript(); });
  wifi_->setInitial(networks);
  panel_->showDisplayLine(0, 40, strFormat("M: %-11s V: %d", protocolName(settings.protocol.load()),
                                           settings.volume.load()));
}

void Korvo::startPanelInputs() {
  if (rotarySupport(&settings)) panel_->initRotaryEncoder();
  if (settings.enable_dataeast_volume) panel_->initDataEastVolume();
}

void Korvo::registerButton() {
  panel_->initButton([this](unsigned ms) { buttonClicked(ms); });
}

void Korvo::senseEncoder() { panel_->encode_sense(static_cast<unsigned>(millis())); }

void Korvo::updateFrontPanel(unsigned now) {
  panel_->updateButton(now);
  if (settings.enable_dataeast_volume) panel_->updateDataEastVolume(now);
}

void Korvo::doRotaryEncoder() { panel_->doRotaryEncoder(); }

void Korvo::checkWifi(unsigned long n) {
  if (wifi_) wifi_->check(n);
}

void Korvo::wirePanelAndDsp(WebContext& w) {
  if (MiniDisplay* d = panel_ ? panel_->display() : nullptr) w.displayFrame = [d] {
    const MiniDisplay::Frame f = d->frameBuffer();
    return std::vector<uint8_t>(f.begin(), f.end());
  };
  if (Dsp* dsp = dsp_.get()) w.applyConfigLines = [dsp](const std::string& lines) { dsp->applySettingLines(lines); };
}

}  // namespace korvo
