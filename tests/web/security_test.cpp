// Hostile requests: no path leaves the web root, the password guards every route but
// the static UI, and a stalled client does not hold the one HTTP thread.
#include <sys/socket.h>

#include <filesystem>

#include "support/loopback.h"
#include "web/responses.h"
#include "web/safe_path.h"
#include "web_fixture.h"

namespace korvo {
namespace {

using Security = test::WebFixture;

TEST_F(Security, NoRequestPathLeavesTheWebRoot) {
  std::filesystem::create_symlink(dir.path() / "secret.txt", dir.path() / "html/link.txt");
  start();
  for (const char* path : {"/../secret.txt", "/%2e%2e/secret.txt", "/%2E%2E%2Fsecret.txt", "/sub/../../secret.txt",
                           "/..%2fsecret.txt", "//etc/passwd", "/index.html%00.png", "/sub%00/", "/../index.html",
                           "/../", "/link.txt", "/%5c..%5csecret.txt"}) {
    test::Reply r = get(path);
    EXPECT_EQ(r.code, CURLE_OK) << path;
    EXPECT_TRUE(r.status == 400 || r.status == 404) << path << " -> " << r.status;
    EXPECT_EQ(r.body.find("outside"), std::string::npos) << path;
  }
  EXPECT_EQ(get("/../secret.txt").body, p400);
  // The service is still there, and a name with dots inside it is fine.
  test::writeFile(dir.path() / "html/a..b.css", "x");
  EXPECT_EQ(get("/a..b.css").status, 400);  // ".." anywhere is refused, as before
  EXPECT_EQ(body("/style.css"), "body{}");
}

TEST(SafePath, NamesAndResolution) {
  EXPECT_TRUE(isSafeName("set-1.xsnd"));
  for (const char* bad : {"", ".", "..", "a/b", "a\\b", "a\nb", "a\x7f"}) EXPECT_FALSE(isSafeName(bad)) << bad;
  EXPECT_FALSE(isSafeName(std::string_view("a\0b", 3)));
  test::TempDir d;
  const std::string root = d.str();
  EXPECT_EQ(resolveUnder(root, "x/y.txt"), std::filesystem::weakly_canonical(d.path() / "x/y.txt").string());
  EXPECT_EQ(resolveUnder(root, ""), std::filesystem::canonical(d.path()).string());
  EXPECT_EQ(resolveUnder(root, "x/./y"), std::filesystem::weakly_canonical(d.path() / "x/y").string());
  for (const char* bad : {"../x", "x/../../y", "/etc/passwd", "a\\..\\b"}) EXPECT_FALSE(resolveUnder(root, bad)) << bad;
  EXPECT_FALSE(resolveUnder(root, std::string_view("a\0b", 3)));
  // A link inside the root that points out of it is judged by where it points.
  std::filesystem::create_directory_symlink("/etc", d.path() / "etc");
  EXPECT_FALSE(resolveUnder(root, "etc/passwd"));
  // A sibling whose name begins with the root's name is not inside it.
  std::filesystem::create_directories(d.path() / "r" / "a");
  std::filesystem::create_directories(d.path() / "rb");
  EXPECT_FALSE(resolveUnder((d.path() / "r").string(), "a/../../rb"));
}

TEST_F(Security, PasswordGuardsTheApiButNotTheUi) {
  ctx->httpPassword = "s3cret";
  test::LogCapture log;
  start();
  test::Reply none = get("/version");
  EXPECT_EQ(none.status, 401);
  EXPECT_TRUE(none.hasHeader("WWW-Authenticate: Basic realm=\"VELT!Audio\""));
  EXPECT_EQ(none.body, "{  \"result\": \"error\", \"message\": \"password required\" }");
  test::Request wrong{"GET", "/volume"};
  wrong.userpwd = "admin:s3cre";
  EXPECT_EQ(client->send(wrong).status, 401);
  test::Request right{"GET", "/volume"};
  right.userpwd = "admin:s3cret";
  test::Reply r = client->send(right);
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.body, "{  \"volume\": \"100\" }");
  // POST routes too, before anything of the body is looked at.
  test::Request post{"POST", "/config", "log_level=4", {"Content-Type: application/x-www-form-urlencoded"}};
  EXPECT_EQ(client->send(post).status, 401);
  // The UI itself loads, so the browser can ask for the password.
  EXPECT_EQ(body("/"), "<html>korvo</html>");
  EXPECT_EQ(body("/style.css"), "body{}");
  EXPECT_FALSE(log.contains("s3cret"));
}

TEST_F(Security, StalledClientsDoNotHoldTheThread) {
  start();
  // Half a request line, a request without its body, and a connection that says nothing.
  std::vector<Fd> stalled;
  for (const char* part : {"GET /vers", "POST /config HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n"
                                        "Content-Type: application/x-www-form-urlencoded\r\n\r\nlog_",
                           ""}) {
    Fd fd = test::connectTcp(http->boundPort());
    ASSERT_TRUE(fd);
    ASSERT_EQ(send(fd.get(), part, strlen(part), 0), static_cast<ssize_t>(strlen(part)));
    stalled.push_back(std::move(fd));
  }
  for (int i = 0; i < 20; ++i) EXPECT_EQ(get("/volume").status, 200);
  // More connections than one address may hold are turned away; the others go on.
  std::vector<Fd> many;
  for (unsigned i = 0; i < HttpService::kPerIpConnectionLimit + 4; ++i) many.push_back(test::connectTcp(http->boundPort()));
  many.clear();
  stalled.clear();
  EXPECT_TRUE(test::waitFor([&] { return get("/volume").status == 200; }));
}

}  // namespace
}  // namespace korvo
