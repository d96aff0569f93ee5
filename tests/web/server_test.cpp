// The server core: static files and their .gz variants, routing order and methods,
// the POST flow, the helpers' exact texts.
#include "core/options.h"
#include "web_fixture.h"

#include "web/responses.h"

namespace korvo {
namespace {

using Server = test::WebFixture;
using test::Reply;
using test::Request;

TEST_F(Server, ServesTheWebRootWithGzipVariants) {
  start();
  Reply index = get("/");
  EXPECT_EQ(index.status, 200);
  EXPECT_EQ(index.body, "<html>korvo</html>");
  EXPECT_TRUE(index.hasHeader("Content-Type: text/html"));
  EXPECT_TRUE(index.hasHeader(std::string("Server: veltaudio version ") + kVersion));

  Reply js = get("/app.js");
  EXPECT_EQ(js.status, 200);
  EXPECT_EQ(js.body, std::string("\x1f\x8b\x08\x00gzipped", 12));
  EXPECT_TRUE(js.hasHeader("Content-Encoding: gzip"));
  EXPECT_TRUE(js.hasHeader("Content-Type: text/javascript"));

  EXPECT_EQ(body("/sub/"), "<html>sub</html>");
  EXPECT_EQ(body("/sub/index.html"), "<html>sub</html>");
  Reply css = get("/style.css");
  EXPECT_TRUE(css.hasHeader("Content-Type: text/css"));
  EXPECT_FALSE(css.hasHeader("Content-Encoding: gzip"));

  Reply missing = get("/nothing.png");
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.body, p404);
}

TEST_F(Server, RoutesInTableOrderAndByMethod) {
  start();
  // Rows 25 and 27 want digits, so "stop" reaches row 29.
  EXPECT_EQ(body("/sounds/play/stop"), test::ok("music stopped"));
  EXPECT_EQ(body("/sounds/play/7"), test::ok("sound 7 is playing"));
  // Every path ending in '/' is a directory index (row 2) before any API row sees it.
  EXPECT_EQ(get("/sounds/play/").status, 404);
  EXPECT_EQ(get("/sounds/").status, 404);
  // One digit for a set, three for a volume: anything longer is a static 404.
  EXPECT_EQ(get("/soundsets/12").status, 404);
  EXPECT_EQ(get("/volume/1000").status, 404);
  EXPECT_EQ(get("/sounds/category/unknown").status, 404);
  EXPECT_EQ(get("/sounds/999").status, 400);

  // GET and POST /config go to different rows; PUT takes neither and ends at the web root.
  EXPECT_EQ(get("/config").body.front(), '[');
  Reply put = client->send(Request{"PUT", "/config", "x"});
  EXPECT_EQ(put.status, 404);
  EXPECT_EQ(put.body, p404);
  // A POST on a GET-only path is not taken by any row either.
  Reply post = client->send(Request{"POST", "/version", "a=1", {"Content-Type: application/x-www-form-urlencoded"}});
  EXPECT_EQ(post.status, 404);

  // The host-name rows have no end anchor.
  for (const char* path : {"/hostname", "/hostnameX", "/hostname/anything"}) {
    Reply r = get(path);
    EXPECT_NE(r.body, p404) << path;
    EXPECT_EQ(r.status, 200) << path;
  }
}

TEST_F(Server, ConnectionsStayOpenBetweenRequests) {
  start();
  EXPECT_EQ(get("/version").newConnections, 1);
  for (const char* path : {"/volume", "/", "/app.js", "/nothing", "/sounds/999"}) {
    test::Reply r = get(path);
    EXPECT_EQ(r.newConnections, 0) << path;
    EXPECT_FALSE(r.hasHeader("Connection: close")) << path;
  }
}

TEST_F(Server, PostWithoutContentLengthIsRefused) {
  start();
  test::LogCapture log;
  Request r{"POST", "/config", "log_level=4", {"Content-Type: application/x-www-form-urlencoded"}};
  r.chunked = true;
  Reply reply = client->send(r);
  EXPECT_EQ(reply.code, CURLE_GOT_NOTHING);
  EXPECT_TRUE(log.contains("Post Request w/o Content-Length header"));
  // The service goes on.
  EXPECT_EQ(get("/version").status, 200);
}

TEST_F(Server, StartsOnAGivenPortAndStopsCleanly) {
  test::LogCapture log;
  start();
  const int port = http->boundPort();
  http->stopHttpService();
  EXPECT_FALSE(http->running());
  EXPECT_TRUE(log.contains("started http service on port " + std::to_string(port) + ", current dir: /opt/korvo"));
  EXPECT_TRUE(log.contains("stopped http service"));
  // The port is free again: a second service takes it.
  HttpService again(*ctx);
  ASSERT_EQ(0, again.startHttpService("log", "./korvo", port));
  EXPECT_EQ(again.boundPort(), port);
  test::Client c(port);
  EXPECT_EQ(c.get("/version").status, 200);
  // The port is taken now: a third one fails and says so.
  HttpService third(*ctx);
  EXPECT_EQ(1, third.startHttpService("log", "./korvo", port));
  EXPECT_TRUE(log.contains("starting http service failed"));
}

TEST(Responses, HelpersKeepTheirTexts) {
  EXPECT_EQ(makeSuccessAnswer("done"), "{ \"result\": \"success\", \"message\": \"done\" }");
  EXPECT_EQ(makeFailedAnswer("no"), "{ \"result\": \"error\", \"message\": \"no\" }");
  EXPECT_STREQ(mime("/a/b.js"), "text/javascript");
  EXPECT_STREQ(mime("x.woff2"), "font/woff2");
  EXPECT_STREQ(mime("x.woff"), "application/x-font-woff");
  EXPECT_STREQ(mime("x.PNG"), "application/octet-stream");
  EXPECT_STREQ(mime("README"), "application/octet-stream");
  EXPECT_EQ(escape("a\"b\\c\td\r\ne"), "a\\\"b\\\\c\\td  e");
  EXPECT_EQ(escape("\x1b[1m"), "\\u001b[1m");
  EXPECT_EQ(escape(std::string(2000, 'x')).size(), 1024u);
  EXPECT_EQ(escape(std::string(1023, 'x') + "\"").size(), 1023u);  // an escape is never split
  EXPECT_TRUE(isContentType("multipart/form-data", "multipart/form-data; boundary=x"));
  EXPECT_TRUE(isContentType("text/plain", "text/plain"));
  EXPECT_FALSE(isContentType("text/plain", "text/plainx"));
  EXPECT_EQ(getNumberOfKeys("a=1&b=2&c", 9), 3);
  EXPECT_EQ(getNumberOfKeys("", 0), 0);
  test::LogCapture log;
  EXPECT_TRUE(matches("/sounds/12", "^/sounds/[0-9]+$"));
  EXPECT_TRUE(matches("/sounds/13", "^/sounds/[0-9]+$"));
  EXPECT_TRUE(log.contains("'/sounds/13' matches '^/sounds/[0-9]+$'->0 (cached)"));
  EXPECT_FALSE(matches("x", "(["));
  EXPECT_TRUE(log.contains("bad regex: (["));
}

}  // namespace
}  // namespace korvo
