// The firmware download's own HTTP client against a loopback server.
#include "web/http_client.h"

#include <gtest/gtest.h>

#include "support/testutil.h"
#include "tools/loopback_server.h"
#include "web/upload_file.h"

namespace korvo::test {
namespace {

TEST(HttpClient, UrlsHeaderLinesAndErrorTexts) {
  auto url = parseUrl("http://example.org:8080/files/update-1.zip");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->scheme, "http");
  EXPECT_EQ(url->host, "example.org:8080");
  EXPECT_EQ(url->hostName(), "example.org");
  EXPECT_EQ(url->port(), 8080);
  EXPECT_EQ(url->path, "/files/update-1.zip");
  EXPECT_EQ(parseUrl("http://example.org/")->port(), 80);
  for (const char* bad : {"example.org/x", "http://example.org", "http:///x", "http://h:0/x", "http://h:99999/x",
                          "http://h:abc/x", "://h/x"})
    EXPECT_FALSE(parseUrl(bad)) << bad;

  std::string_view buf = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabc";
  EXPECT_EQ(getNextHeader(buf), "HTTP/1.1 200 OK");
  EXPECT_EQ(getNextHeader(buf), "Content-Length: 3");
  EXPECT_EQ(getNextHeader(buf), "");
  EXPECT_FALSE(getNextHeader(buf));
  EXPECT_EQ(buf, "abc");

  EXPECT_STREQ(get_http_error(0), "success");
  EXPECT_STREQ(get_http_error(7), "no content length header");
  EXPECT_STREQ(get_http_error(14), "too many redirects");
  EXPECT_STREQ(get_http_error(15), "unknown");
  EXPECT_STREQ(get_http_error(-1), "unknown");
}

class HttpClientTest : public ::testing::Test {
 protected:
  // Runs the client against the server into dir/out.bin, which starts as "old".
  int fetch(LoopbackServer& server, const std::string& path) {
    writeFile(target(), "old");
    return http_client(server.url(path), target().string());
  }
  std::filesystem::path target() const { return dir / "out.bin"; }
  bool onlyTargetLeft() const { return namesIn(dir.path()) == std::vector<std::string>{"out.bin"}; }
  TempDir dir;
};

TEST_F(HttpClientTest, DownloadsTheBodyAndFollowsRedirects) {
  const std::string payload(100000, 'z');
  LoopbackServer server([&](const std::string& path) -> std::string {
    if (path == "/files/a.zip") return LoopbackServer::redirect(302, "/moved/b.zip");
    if (path == "/moved/b.zip") return LoopbackServer::redirect(301, "c.zip");
    if (path == "/moved/c.zip") return LoopbackServer::reply(200, "chain");
    if (path == "/direct") return LoopbackServer::reply(200, payload);
    if (path == "/empty") return LoopbackServer::reply(200, "");
    return LoopbackServer::reply(404, "no");
  });
  EXPECT_EQ(fetch(server, "/direct"), HTTP_SUCCESS);
  EXPECT_EQ(readFile(target()), payload);
  EXPECT_NE(server.requests().back().find("GET /direct HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port())),
            std::string::npos);
  EXPECT_EQ(fetch(server, "/empty"), HTTP_SUCCESS);
  EXPECT_EQ(readFile(target()), "");

  // An absolute-path redirect, then one relative to the directory.
  EXPECT_EQ(fetch(server, "/files/a.zip"), HTTP_SUCCESS);
  EXPECT_EQ(readFile(target()), "chain");
  const auto seen = server.requests();
  EXPECT_NE(seen[seen.size() - 2].find("GET /moved/b.zip "), std::string::npos);
  EXPECT_NE(seen.back().find("GET /moved/c.zip "), std::string::npos);
  EXPECT_TRUE(onlyTargetLeft());
}

TEST_F(HttpClientTest, AbsoluteRedirectToAnotherServer) {
  LoopbackServer second([](const std::string&) { return LoopbackServer::reply(200, "from the mirror"); });
  LoopbackServer first([&](const std::string&) { return LoopbackServer::redirect(302, second.url("/m.zip")); });
  EXPECT_EQ(fetch(first, "/x.zip"), HTTP_SUCCESS);
  EXPECT_EQ(readFile(target()), "from the mirror");
  EXPECT_NE(second.requests().at(0).find("GET /m.zip HTTP/1.1"), std::string::npos);
}

TEST_F(HttpClientTest, EveryFailureHasItsCodeAndLeavesTheTargetAlone) {
  LoopbackServer server([](const std::string& path) -> std::string {
    if (path == "/loop") return LoopbackServer::redirect(302, "/loop");
    if (path == "/tls") return LoopbackServer::redirect(301, "https://example.org/x.zip");
    if (path == "/nolocation") return "HTTP/1.1 302 Found\r\nContent-Length: 0\r\n\r\n";
    if (path == "/nolength") return "HTTP/1.1 200 OK\r\n\r\nbody without length";
    if (path == "/hangup") return "HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\nonly a part";
    if (path == "/garbage") return "SSH-2.0-OpenSSH\r\n\r\n";
    if (path == "/teapot") return LoopbackServer::reply(418, "");
    return LoopbackServer::reply(404, "not here");
  });
  LogCapture log;
  EXPECT_EQ(fetch(server, "/missing"), HTTP_UNEXPECTED_STATUS);
  EXPECT_EQ(fetch(server, "/teapot"), HTTP_UNEXPECTED_STATUS);
  EXPECT_EQ(fetch(server, "/tls"), HTTP_ONLY_HTTP);
  EXPECT_EQ(fetch(server, "/nolocation"), HTTP_NO_LOCATION);
  EXPECT_EQ(fetch(server, "/nolength"), HTTP_NO_CONTENT_LENGTH);
  EXPECT_EQ(fetch(server, "/hangup"), HTTP_RECEIVE);
  EXPECT_EQ(fetch(server, "/garbage"), HTTP_STATUS_LINE);
  const std::size_t before = server.requests().size();
  EXPECT_EQ(fetch(server, "/loop"), HTTP_TOO_MANY_REDIRECTS);
  EXPECT_EQ(server.requests().size() - before, static_cast<std::size_t>(kHttpMaxRedirects + 1));
  EXPECT_TRUE(log.contains("http client error message: " + server.url("/loop") + " - too many redirects"));
  EXPECT_EQ(readFile(target()), "old");
  EXPECT_TRUE(onlyTargetLeft());

  EXPECT_EQ(http_client("ftp://127.0.0.1/x", target().string()), HTTP_ONLY_HTTP);
  EXPECT_EQ(http_client("not a url", target().string()), HTTP_PARSE_URL);
  EXPECT_EQ(http_client(server.url("/x"), (dir / "no/such/dir/f").string()), HTTP_OPEN_TARGET);
  UploadFile closed;
  EXPECT_EQ(http_client(server.url("/x"), closed), HTTP_OPEN_TARGET);
}

TEST_F(HttpClientTest, RefusedConnection) {
  int port;
  {
    LoopbackServer gone([](const std::string&) { return std::string(); });
    port = gone.port();
  }
  EXPECT_EQ(http_client("http://127.0.0.1:" + std::to_string(port) + "/x", target().string()), HTTP_CONNECT);
}

}  // namespace
}  // namespace korvo::test
