// The web page's command box: /playCommand with "debug" runs the text in the real
// interpreter and answers with the lines it printed, or its error.
#include <cstdlib>

#include "scripting/lua_binding.h"
#include "web/web_fixture.h"

namespace korvo::test {
namespace {

class LuaWeb : public WebFixture {
 protected:
  void SetUp() override {
    // The engine tests of this binary leave SDL on the disk driver of a removed directory.
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    WebFixture::SetUp();
  }

  // As the daemon wires it.
  void startWithLua() {
    ASSERT_EQ(lua.lua_init(config.masterConfigMap()), 0);
    lua.setEngine(engine.get());
    ctx->runLuaWithDebug = [this](const std::string& chunk) {
      lua.lua_reset_output();
      lua.lua_run_with_debug(chunk);
      return lua.lua_get_print_buffer();
    };
    start();
  }

  LuaBinding lua{settings};
};

TEST_F(LuaWeb, TheCommandBoxShowsWhatTheChunkPrinted) {
  startWithLua();
  EXPECT_EQ(body("/playCommand?cmd=print(1%2B1)%20print('say%20%22hi%22')&debug=1"),
            "{  \"result\": \"success\", \"message\": \"cmd is running\" , \"output\": [\"2\",\"say \\\"hi\\\"\"] }");
  // Each call starts with an empty output; an error is its last line.
  EXPECT_EQ(body("/playCommand?cmd=print('x')%20error('nope',0)&debug=1"),
            "{  \"result\": \"success\", \"message\": \"cmd is running\" , \"output\": [\"x\",\"nope\"] }");
  // The chunk reaches the engine.
  body("/playCommand?cmd=playSound(10)&debug=1");
  EXPECT_TRUE(waitFor([&] { return engine->isSamplePlaying(10) == 1 || !engine->enableAudio(); }));
}

}  // namespace
}  // namespace korvo::test
