// An HTTP flood, a bus flood on the simulated board and set switching at once. Under
// ThreadSanitizer this must report nothing; in any build every request gets its answer
// and every strobed byte reaches the engine.
#include <SDL2/SDL_thread.h>

#include <atomic>
#include <thread>

#include "bus/sim_board.h"
#include "web_fixture.h"

namespace korvo {
namespace {

using Stress = test::WebFixture;

TEST_F(Stress, HttpFloodBusFloodAndSetSwitching) {
  std::atomic<int> received{0};
  SoundEngine* e = engine.get();
  settings.protocol = DATAEAST;
  bus->initGpio({[&, e](unsigned v) {
                   received++;
                   e->soundHandler(v);
                 },
                 nullptr, nullptr});
  SimMachine machine(gpio, bus->pincom());
  start();

  constexpr int kRounds = 60;
  const char* paths[] = {"/version",        "/sounds/play/10",     "/sounds/category/sfx", "/soundsets",
                         "/sounds/11",      "/volume/90",          "/gainByType/2/60",     "/ports",
                         "/livelog?i=0",    "/sounds/play/stop",   "/config",              "/app.js",
                         "/sounds/play/1",  "/duckByType/1",       "/soundset",            "/nothing"};
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&, t] {
      test::Client c(http->boundPort());
      for (int i = 0; i < kRounds; ++i)
        for (std::size_t p = static_cast<std::size_t>(t); p < std::size(paths); p += 3) {
          test::Reply r = c.get(paths[p]);
          const long want = std::string(paths[p]) == "/nothing" ? 404 : 200;
          if (r.code != CURLE_OK || r.status != want) bad++;
        }
    });
  threads.emplace_back([&] {  // set switching from the web page
    test::Client c(http->boundPort());
    for (int i = 0; i < kRounds; ++i)
      if (c.get(i % 2 ? "/soundsets/1" : "/soundsets/2").status != 200) bad++;
  });
  threads.emplace_back([&] {  // and from the front-panel button
    for (int i = 0; i < kRounds / 4; ++i) e->cycleSoundSet(1);
    SDL_TLSCleanup();
  });
  int sent = 0;
  const uint8_t ids[] = {10, 11, 20, 1, 99};
  for (int i = 0; i < 400; ++i, ++sent) machine.sendByte(ids[i % 5]);
  for (auto& t : threads) t.join();

  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(machine.driver().isrTimeouts(), 0u);
  EXPECT_TRUE(test::waitFor([&] { return received.load() == sent; })) << received.load() << " of " << sent;
  // Everything still answers, and the engine is in a consistent state.
  EXPECT_EQ(body("/sounds/play/stop"), test::ok("music stopped"));
  const int set = settings.soundSet.load();
  EXPECT_TRUE(set == 1 || set == 2);
  EXPECT_EQ(body("/soundset"), "{ \"soundset\": \"" + std::to_string(set) + "\", \"type\": 0 }");
}

}  // namespace
}  // namespace korvo
