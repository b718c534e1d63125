// tolan-httpd's server in-process: clients are socket pairs the server adopts
// (or loopback TCP where the listener matters), the loop runs on the test
// thread, idle timeouts run on virtual time.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "Tolan/Platform.h"
#include "support/FdTesting.h"
#include "support/JsonCheck.h"
#include "tools/httpd/HttpServer.h"

namespace {

using namespace TolanTest;
using TolanHttpd::HttpServer;

// The client end of a connection: what it sent, what came back, and whether
// the server closed it.
struct Client {
  explicit Client(int fd) : fd(fd) {}
  ~Client() { ::close(fd); }
  void send(const std::string& bytes) { ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size())); }
  void poll() {
    char buf[65536];
    for (ssize_t n; !closed && (n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) != 0;) {
      if (n < 0) {
        closed = errno == ECONNRESET;
        return;
      }
      got.append(buf, size_t(n));
    }
    closed = true;
  }
  // Runs the loop until the server closed us, or `text` has come back.
  bool await(const std::string& text = {}) {
    return runUntil([&] { return poll(), closed || (!text.empty() && got.find(text) != std::string::npos); }, 5);
  }
  int fd;
  std::string got;
  bool closed = false;
};

class HttpServerTest : public ::testing::Test {
 protected:
  std::unique_ptr<Client> adopted() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    server.adoptConnection(fds[0]);
    return std::make_unique<Client>(fds[1]);
  }
  std::unique_ptr<Client> connected() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{AF_INET, htons(server.port()), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    return std::make_unique<Client>(fd);
  }
  // Every connection closed by the server, as a long-running one must.
  void TearDown() override {
    server.stop();
    EXPECT_TRUE(runUntil([&] { return server.stopped(); }, 5)) << server.connectionCount() << " left open";
  }
  TolanHttpd::Options options() {
    TolanHttpd::Options o;
    o.idleTimeout = 5;
    o.maxConnections = 3;
    return o;
  }
  HttpServer server{options()};
};

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size()) ++n;
  return n;
}

TEST_F(HttpServerTest, AnswersAndWhetherTheConnectionStays) {
  const std::string big(TolanHttpd::kMaxHeaderBytes, 'x');
  const struct {
    std::string request, expected;
    bool closes;
  } cases[] = {
      {"GET / HTTP/1.1\r\nHost: a\r\n\r\n", "HTTP/1.1 200 OK\r\n", false},
      {"GET /?q=1 HTTP/1.1\r\n\r\n", "Hello from tolan-httpd\n", false},
      {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", "Connection: keep-alive\r\n", false},
      {"GET /stats HTTP/1.1\r\n\r\n", "Priority RunnableCount", false},
      {"GET /history HTTP/1.1\r\n\r\n", "scheduler events", false},
      {"GET / HTTP/1.0\r\n\r\n", "Connection: close\r\n", true},
      {"GET / HTTP/1.1\r\nConnection: close\r\n\r\n", "HTTP/1.1 200 OK\r\n", true},
      {"POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc", "HTTP/1.1 405 Method Not Allowed\r\n", true},
      {"GET /nope HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found\r\n", true},
      {"GET / HTTP/1.1\r\nBad Header\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n", true},
      {"GET / HTTP/1.1\r\nX: " + big + "\r\n\r\n", "HTTP/1.1 431 Request Header Fields Too Large\r\n", true},
  };
  for (const auto& c : cases) {
    auto client = adopted();
    client->send(c.request);
    EXPECT_TRUE(client->await(c.closes ? "" : c.expected));
    EXPECT_NE(client->got.find(c.expected), std::string::npos) << c.request << "\n got: " << client->got;
    EXPECT_EQ(client->closed, c.closes) << c.request;
  }
}

TEST_F(HttpServerTest, PipelinedRequestsAreAnsweredInOrderUntilOneCloses) {
  auto client = adopted();
  client->send("GET / HTTP/1.1\r\n\r\nGET /stats HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(runUntil([&] { return client->poll(), count(client->got, "HTTP/1.1 200") == 3; }, 5));
  const size_t stats = client->got.find("Priority"), last = client->got.rfind("Hello");
  EXPECT_TRUE(client->got.find("Hello") < stats && stats < last) << client->got;
  client->send("GET / HTTP/1.1\r\n\r\nGET /nope HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(client->await());
  EXPECT_EQ(count(client->got, "HTTP/1.1 200"), 4u) << "nothing is answered after the 404";
  EXPECT_EQ(count(client->got, "404"), 1u);
}

TEST_F(HttpServerTest, TasksIsTheIntrospectionDocumentAndSurvivesAVanishingReader) {
  auto client = adopted();
  client->send("GET /tasks HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(client->await());
  const size_t body = client->got.find("\r\n\r\n");
  ASSERT_NE(body, std::string::npos);
  EXPECT_NE(client->got.find("Connection: close"), std::string::npos);
  EXPECT_NE(client->got.find("\"HttpConnection\""), std::string::npos) << "the connections' own tasks are listed";
  EXPECT_VALID_DOCUMENTS({client->got.substr(body + 4)});
  client.reset();

  // Readers that go away before, while and after the document is written.
  for (int i = 0; i < 3; ++i) {
    auto gone = adopted();
    gone->send("GET /tasks HTTP/1.1\r\n\r\n");
    for (int pass = 0; pass < i * 3; ++pass) Tolan::Platform::doEventLoop(0.001);
    gone.reset();
  }
  EXPECT_TRUE(runUntil([&] { return server.connectionCount() == 0; }, 5));
}

TEST_F(HttpServerTest, IdleAndTricklingConnectionsCloseAfterTheIdleTimeout) {
  Tolan::Platform::setFastForward(true);
  auto idle = adopted(), trickling = adopted(), busy = adopted();
  trickling->send("GET / HTTP/1.1\r\nX-Slow: ");
  for (int i = 0; i < 3; ++i) {  // 6 virtual seconds: past the timeout
    trickling->send("a");
    busy->send("GET / HTTP/1.1\r\n\r\n");
    Tolan::Platform::doEventLoop(2.0);  // returns when the 2 s are up, maybe before the answer
    for (int pass = 0; pass < 20; ++pass) Tolan::Platform::doEventLoop(0.0);
    for (auto* c : {idle.get(), trickling.get(), busy.get()}) c->poll();
    EXPECT_EQ(count(busy->got, "Hello"), size_t(i + 1));
  }
  EXPECT_TRUE(idle->closed && trickling->closed);
  EXPECT_TRUE(trickling->got.empty());
  EXPECT_FALSE(busy->closed) << "requests keep a connection alive";
  EXPECT_EQ(server.counters().closedIdle, 2u);
  Tolan::Platform::setFastForward(false);
}

TEST_F(HttpServerTest, AClientThatNeverReadsIsNotReadEitherAndOthersAreServed) {
  auto stuck = adopted();
  ::fcntl(stuck->fd, F_SETFL, O_NONBLOCK);
  const std::string request = "GET /stats HTTP/1.1\r\n\r\n";
  // Requests go in until the server stops taking them: its answers back up.
  int blockedPasses = 0;
  for (int round = 0; round < 100000 && blockedPasses < 20; ++round) {
    if (::write(stuck->fd, request.data(), request.size()) < 0) {
      ++blockedPasses;
      Tolan::Platform::doEventLoop(0.001);
    } else if (round % 64 == 0) {
      Tolan::Platform::doEventLoop(0.0);
    }
  }
  EXPECT_EQ(blockedPasses, 20) << "the server kept reading from a client that reads nothing";
  auto other = adopted();
  other->send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(other->await("Hello"));
}

TEST_F(HttpServerTest, OverTheLimitAnswers503AndServesTheOthers) {
  server.start();
  auto a = connected(), b = connected(), spare = connected();
  a->send("GET / HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(a->await("Hello"));
  auto c = connected();
  EXPECT_TRUE(c->await());
  EXPECT_EQ(c->got.rfind("HTTP/1.1 503 Service Unavailable\r\n", 0), 0u) << c->got;
  b->send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(b->await("Hello"));
  EXPECT_EQ(server.counters().rejected, 1u);
}

TEST_F(HttpServerTest, OutOfDescriptorsTheListenerBacksOffAndServesLater) {
#ifdef __SANITIZE_ADDRESS__
  // UBSan's vptr checks probe memory through a pipe: without descriptors
  // they report every virtual call.
  GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own";
#endif
  server.start();
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 2; ++i) clients.push_back(connected());
  rlimit saved;
  ::getrlimit(RLIMIT_NOFILE, &saved);
  const int lowestFree = ::dup(0);
  ::close(lowestFree);
  rlimit tight = saved;
  tight.rlim_cur = rlim_t(lowestFree);  // no descriptor left for accept()
  ::setrlimit(RLIMIT_NOFILE, &tight);
  EXPECT_TRUE(runUntil([&] { return server.counters().acceptBackoffs > 0; }, 5));
  ::setrlimit(RLIMIT_NOFILE, &saved);
  for (auto& c : clients) {
    c->send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(c->await("Hello"));
  }
}

TEST_F(HttpServerTest, StopFinishesAnswersInFlightAndASignalStops) {
  auto idle = adopted(), midRequest = adopted();
  midRequest->send("GET / HTTP/1.1\r\n");
  Tolan::Platform::doEventLoop(0.01);
  server.stop();
  EXPECT_TRUE(idle->await());
  EXPECT_FALSE(server.stopped());
  midRequest->send("\r\n");
  EXPECT_TRUE(midRequest->await());
  EXPECT_NE(midRequest->got.find("Connection: close\r\n\r\nHello"), std::string::npos) << midRequest->got;
  midRequest.reset();
  EXPECT_TRUE(runUntil([&] { return server.stopped(); }));

  HttpServer signalled(options());
  sigset_t term, old;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, &old);
  signalled.stopOnSignals(term);
  ::raise(SIGTERM);
  EXPECT_TRUE(runUntil([&] { return signalled.stopping(); }, 5));
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

}  // namespace
