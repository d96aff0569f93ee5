// The soak's loads for the Lua binding and the front panel. Each drives its part as the
// daemon wires it and counts every command it gives ("sent ...") as answered or
// dropped with its reason, so the soak can check that nothing went unaccounted.
#include "soak_hooks.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <SDL2/SDL_thread.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include "base/handles.h"
#include "base/thread.h"
#include "panel/front_panel.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"
#include "scripting/lua_binding.h"
#include "sound/protocol_handlers.h"
#include "support/testutil.h"

namespace korvo::soak {
namespace {

using Count = std::function<void(const std::string&)>;

void countN(const Count& count, const std::string& outcome, uint64_t n) {
  for (uint64_t i = 0; i < n; ++i) count(outcome);
}

// ---- Lua events ----

// Every event the handler finishes is counted in `answered`; an error ends it before.
// `posted` counts the chunks the engine's hook ran.
constexpr const char* kInitChunk = R"(
answered, posted = 0, 0
local sounds = { ["game start"] = 1, jackpot = 10, ["ball 1"] = 11 }
function eventHandler(e)
  if e == 'crash' then error('the event handler fails on purpose') end
  local id = sounds[e]
  if id then playSound(id) end
  answered = answered + 1
end
)";

// The engine's way into Lua (post) from a thread of its own, at about the pace of a
// busy game's sample commands (a pace, not a wait).
std::thread startPoster(LuaBinding& lua, const std::atomic<bool>& stop, std::atomic<uint64_t>& posts) {
  return startThread("soak-lua-post", [&lua, &stop, &posts] {
    while (!stop) {
      lua.post("posted = posted + 1 playSound(10)");
      ++posts;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    SDL_TLSCleanup();  // playSound ran SDL calls on this thread
  });
}

// Sends the event texts round and round, at most 64 ahead of the service so the kernel
// never drops a datagram uncounted. Returns the number sent.
uint64_t sendEvents(const EventService& events, const std::atomic<bool>& stop) {
  Fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(events.port()));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const char* texts[] = {"game start", "jackpot", "ball 1", "tilt", "crash", "\x02noise"};
  uint64_t sent = 0;
  for (uint64_t i = 0; !stop; ++i) {
    const char* t = texts[i % std::size(texts)];
    if (sendto(sock.get(), t, strlen(t), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) > 0) ++sent;
    while (!stop && sent > events.eventsDelivered() + events.datagramsDropped() + 64) std::this_thread::yield();
  }
  return sent;
}

// `answered` and `posted` as the interpreter holds them once every queued chunk ran.
std::pair<uint64_t, uint64_t> luaCounts(LuaBinding& lua) {
  lua.lua_run("");  // runs the work still queued for the state before it lets go
  lua.lua_reset_output();
  lua.lua_run_with_debug("print(answered, posted)");
  const std::vector<std::string> lines = lua.lua_get_print_buffer();
  uint64_t answered = 0, posted = 0;
  if (!lines.empty()) std::istringstream(lines[0]) >> answered >> posted;
  return {answered, posted};
}

void runLuaEvents(SoakParts& parts, const std::atomic<bool>& stop, const Count& count) {
  // The interpreter's `config` is read from settings of its own: the daemon reads them
  // before any other thread runs, while here the web flood already changes the shared ones.
  Settings own;
  initSettings(&own);
  Configuration config{own};
  LuaBinding lua(own);
  if (lua.lua_init(config.masterConfigMap()) != 0 || lua.lua_run(kInitChunk) != 0) {
    count("dropped (no interpreter)");
    return;
  }
  lua.setEngine(&parts.engine);
  EventService events;  // after `lua`: stops before the handler's interpreter goes
  if (!events.start(0, "127.0.0.1") ||
      !lua.lua_register_eventcallback([&](LuaBinding::Handler fn) { events.addEventHandler(std::move(fn)); })) {
    count("dropped (no event service)");
    return;
  }
  std::atomic<uint64_t> posts{0};
  std::thread poster = startPoster(lua, stop, posts);
  const uint64_t sent = sendEvents(events, stop);
  poster.join();
  // The last datagrams are still on their way: the service's counts tell when they are in.
  const bool allIn = test::waitFor([&] { return events.eventsDelivered() + events.datagramsDropped() == sent; });
  events.stop();
  const auto [answered, posted] = luaCounts(lua);
  const uint64_t delivered = events.eventsDelivered(), noise = events.datagramsDropped();
  countN(count, "sent event", sent);
  countN(count, "answered event", answered);
  countN(count, "dropped (lua error)", delivered - std::min(answered, delivered));
  countN(count, "dropped (binary)", noise);
  if (!allIn) countN(count, "dropped (lost on the way)", sent - delivered - noise);
  countN(count, "sent post", posts);
  countN(count, "answered post", posted);
  countN(count, "dropped (post queue full)", posts - std::min<uint64_t>(posted, posts));
}

// ---- front panel ----

// The main loop over a simulated front panel on its own sim pins and ADC. Time is the
// loop's own: each iteration is one millisecond handed to the panel as `now`, so the
// encoder's and the button's timings hold however slowly a sanitizer runs the loop.
// The panel sees settings of its own, whose volume only it changes: the engine's volume
// also moves with the web and bus floods (and a flooded ring loses requests), and the pot
// stays quiet when it would set the volume the settings already hold.
class PanelDriver {
 public:
  PanelDriver(SoakParts& parts, const Count& count)
      : parts_(parts), count_(count), port_(parts.engine), panel_(gpio_, own_, actions()) {
    initSettings(&own_);
    own_.volume = 64;  // never where the pot is about to go after an encoder turn
  }

  bool init() {
    panel_.initRotaryEncoder();
    panel_.initButton([this](unsigned) {
      count_("answered press");
      nextSet();  // a short press switches the set
    });
    now_ = static_cast<unsigned>(millis());
    potAt(potHere_);
    if (!panel_.initDataEastVolume()) return false;
    // The pot at rest (no volume change) until a full window of readings says where.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (gpio_.adc().conversions() <= DataEastVolume::kMedianOf && std::chrono::steady_clock::now() < deadline)
      loop(DataEastVolume::kPeriodMs);
    return gpio_.adc().conversions() > DataEastVolume::kMedianOf;
  }

  // One round of everything an owner does at the panel.
  void round() {
    // Two detents, up in one round and down in the next, read together in one look.
    turn(up_ ? "31023" "1023" : "32013" "2013");
    up_ = !up_;
    count_("sent step");
    count_("sent step");
    loop(1000);
    press(60);  // single click: the next set
    count_("sent click");
    loop(1000);
    press(60);  // double click: the next command number
    loop(100);
    press(60);
    count_("sent click");
    loop(1000);
    std::swap(potHere_, potThere_);
    potAt(potHere_);
    count_("sent pot");
    untilPotAnswered();
    gpio_.setInput(PanelButton::kPin, LOW);
    loop(120);
    gpio_.setInput(PanelButton::kPin, HIGH);
    count_("sent press");
    loop(50);
  }

 private:
  PanelActions actions() {
    PanelActions a;
    a.adjustVolume = [this](int steps) {
      countN(count_, "answered step", static_cast<uint64_t>(std::abs(steps)));
      setVolume(std::clamp(own_.volume.load() + 5 * steps, 0, 128));
    };
    a.setVolume = [this](int v) {
      ++potAnswers_;
      count_("answered pot");
      setVolume(v);
    };
    a.nextSoundSet = [this] {
      count_("answered click");
      nextSet();
    };
    a.soundHandler = [this](unsigned id) {
      count_("answered click");
      parts_.engine.soundHandler(10 + id % 2);  // the walked number, kept on sounds the set has
    };
    return a;
  }
  void setVolume(int v) {
    own_.volume = v;
    port_.postSetVolume(v);
  }
  void nextSet() {
    SoundServiceRequest req = parts_.engine.ring().buildRequest(SWITCH_SOUNDSET);
    req.id = 1;
    parts_.engine.ring().queuePut(req);
  }
  // The main loop's panel work (sensing, button, volume input, encoder actions) for `ms` milliseconds.
  void loop(unsigned ms) {
    for (unsigned i = 0; i < ms; ++i) {
      ++now_;
      panel_.encode_sense(now_);
      panel_.updateButton(now_);
      panel_.updateDataEastVolume(now_);
      panel_.doRotaryEncoder();
    }
  }
  // The ADC model converts in real time, not in the loop's: the loop runs until the pot's
  // new position has been read and acted on (or, lost, the soak's count shows it).
  void untilPotAnswered() {
    const int before = potAnswers_;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (potAnswers_ == before && std::chrono::steady_clock::now() < deadline) loop(DataEastVolume::kPeriodMs);
  }
  // Each character is one loop iteration of the encoder's A/B pins: "0".."3" = A<<1|B.
  void turn(const std::string& states) {
    for (char c : states) {
      gpio_.setInput(RotaryEncoder::kPinA, (c - '0') >> 1);
      gpio_.setInput(RotaryEncoder::kPinB, (c - '0') & 1);
      loop(1);
    }
  }
  void press(unsigned ms) {
    gpio_.setInput(RotaryEncoder::kPinSwitch, LOW);
    loop(ms);
    gpio_.setInput(RotaryEncoder::kPinSwitch, HIGH);
  }
  // The pot turned to `volume` (volts at the ADC: 2 mV per 12-bit step).
  void potAt(int volume) {
    const Settings& s = own_;
    gpio_.adc().setInputVoltage(0, (s.dataeast_volume_offset + volume * s.dataeast_volume_range / 128.0) * 0.002);
  }

  SoakParts& parts_;
  const Count& count_;
  SimGpio gpio_;
  Settings own_;
  SoundEngineProtocolPort port_;
  FrontPanel panel_;
  unsigned now_ = 0;
  bool up_ = true;
  int potAnswers_ = 0;
  int potHere_ = 40;  // volumes the pot is turned between
  int potThere_ = 100;
};

void runPanelInput(SoakParts& parts, const std::atomic<bool>& stop, const Count& count) {
  PanelDriver panel(parts, count);
  if (!panel.init()) {
    count("dropped (no volume input)");
    return;
  }
  while (!stop) {
    panel.round();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // a person's pace, not a test wait
  }
  SDL_TLSCleanup();  // the engine's calls ran SDL on this thread
}

}  // namespace

const SoakLoad luaEventLoad{"lua-events", runLuaEvents};
const SoakLoad panelInputLoad{"panel-input", runPanelInput};

}  // namespace korvo::soak
