#include "panel/front_panel.h"

#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

bool rotarySupport(const Settings* s) {
  const int p = s->protocol.load();
  return (p == DATAEAST || p == DATAEAST2 || p == DATAEAST3) && s->enable_dataeast_volume == 0 && s->enableI2S == 0;
}

FrontPanel::FrontPanel(Gpio& gpio, Settings& s, PanelActions actions)
    : gpio_(gpio),
      settings_(s),
      actions_(std::move(actions)),
      encoder_(gpio),
      volume_(gpio, s, [this](int v) {
        if (actions_.setVolume) actions_.setVolume(v);
      }),
      button_(gpio) {}

FrontPanel::~FrontPanel() {
  if (display_) display_->stop();
}

bool FrontPanel::initMiniDisplay() {
  auto d = std::make_unique<MiniDisplay>(gpio_);
  if (!d->minidisplay_available() || !d->init([this](MiniDisplay& m) { refreshStatus(m); })) return false;
  display_ = std::move(d);
  return true;
}

void FrontPanel::showDisplayLine(int x, int y, const std::string& text) {
  if (display_) display_->showLine(x, y, text);
}

void FrontPanel::refreshStatus(MiniDisplay& d) {
  d.showLine(0, 40, strFormat("M: %-11s V: %d", protocolName(settings_.protocol.load()), settings_.volume.load()));
  const int set = settings_.soundSet.load();
  if (set != shownSet_ && actions_.soundSetName) {
    shownSet_ = set;
    d.showLine(0, 32, actions_.soundSetName(set));
  }
}

void FrontPanel::initRotaryEncoder() {
  encoder_.init();
  encoderOn_ = true;
}

bool FrontPanel::initDataEastVolume() { return volume_.init(0); }

void FrontPanel::initButton(PanelButton::Callback cb) { button_.initButton(std::move(cb)); }

void FrontPanel::encode_sense(unsigned now) {
  if (encoderOn_) encoder_.encode_sense(now);
}

void FrontPanel::updateDataEastVolume(unsigned now) { volume_.updateDataEastVolume(now); }

void FrontPanel::doRotaryEncoder() {
  if (!encoderOn_) return;
  if (calls_ <= kEncoderEvery && !encoder_.clickPending()) {
    ++calls_;
    return;
  }
  calls_ = 0;
  const int r = encoder_.encode_read();
  if (r != 0 && actions_.adjustVolume) {
    actions_.adjustVolume(r);
    LOG(LEVEL_DEBUG, "button %d, r: %d, vol: %d", 0, r, settings_.volume.load());
  }
  const int click = encoder_.button_clicked();
  if (click == 1 && actions_.nextSoundSet) {
    actions_.nextSoundSet();
  } else if (click == 2 && actions_.soundHandler) {
    actions_.soundHandler(nextCommand_++);
  }
}

}  // namespace korvo
