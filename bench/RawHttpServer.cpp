// tolan-raw-httpd - the same HTTP/1.1 service as tolan-httpd's `/`, written on
// a bare libevent loop, so that a load test can tell what the task scheduler
// costs over the loop it runs on.
//
// It takes tolan-httpd's command line and does the same work per request: one
// persistent level-triggered read event per connection, 16 KiB reads, the
// request parsed with http_parser (keep-alive, pipelined requests answered in
// order), the prebuilt answer appended to an output buffer and sent, the
// connection's idle timer re-armed. Only `/` is served; every other path is
// 404 and a method other than GET 405, bad requests 400, oversized headers
// 431, connections over the limit 503, each closing the connection after a
// lingering close. No libTolan code is linked in.
#include <arpa/inet.h>
#include <http_parser.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <event2/event.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/httpd/Options.h"

namespace {

// The same command line, limits and pacing as tolan-httpd.
using namespace TolanHttpd;

// Byte for byte what tolan-httpd answers to GET / on a kept-alive connection.
const std::string kGreetingResponse =
    "HTTP/1.1 200 OK\r\nServer: tolan-httpd\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
    std::to_string(kGreeting.size()) + "\r\n\r\n" + std::string(kGreeting);

struct Server;

timeval toTimeval(double seconds) {
  timeval tv;
  tv.tv_sec = time_t(seconds);
  tv.tv_usec = suseconds_t((seconds - double(tv.tv_sec)) * 1e6);
  return tv;
}

struct Connection {
  Connection(Server* s, int f) : server(s), fd(f) {}
  Server* server;
  int fd;
  event* readEv = nullptr;
  event* writeEv = nullptr;
  event* idleEv = nullptr;
  http_parser parser;
  std::string url;
  size_t headerBytes = 0;
  bool headersTooLarge = false;
  bool closeAfterOutput = false;
  bool lingering = false;
  std::string out;
  size_t outOffset = 0;

  size_t pending() const { return out.size() - outOffset; }
};

struct Server {
  Options options;
  event_base* base = nullptr;
  int listenFd = -1;
  event* acceptEv = nullptr;
  event* backoffEv = nullptr;
  double backoff = kFirstBackoffSeconds;
  size_t connections = 0;
  unsigned long long requests = 0;
};

void closeConnection(Connection* c) {
  event_free(c->readEv);
  event_free(c->writeEv);
  event_free(c->idleEv);
  ::close(c->fd);
  --c->server->connections;
  delete c;
}

void armIdle(Connection* c, double seconds) {
  const timeval tv = toTimeval(seconds);
  event_add(c->idleEv, &tv);
}

void respond(Connection* c, int code, const char* reason) {
  const std::string body = std::string(reason) + "\n";
  c->out += "HTTP/1.1 " + std::to_string(code) + " " + reason +
            "\r\nServer: tolan-httpd\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
            std::to_string(body.size()) + "\r\n" + (code == 405 ? "Allow: GET\r\n" : "") +
            "Connection: close\r\n\r\n" + body;
  c->closeAfterOutput = true;
  if (HTTP_PARSER_ERRNO(&c->parser) == HPE_OK) http_parser_pause(&c->parser, 1);
}

bool countHeaderBytes(Connection* c, size_t n) {
  c->headerBytes += n;
  if (c->headerBytes <= kMaxHeaderBytes) return true;
  c->headersTooLarge = true;
  return false;
}

Connection* self(http_parser* p) { return static_cast<Connection*>(p->data); }

int onHeadersComplete(http_parser* p) {
  Connection* c = self(p);
  ++c->server->requests;
  armIdle(c, c->server->options.idleTimeout);
  const std::string path = c->url.substr(0, c->url.find('?'));
  if (p->method != HTTP_GET) {
    respond(c, 405, "Method Not Allowed");
  } else if (path != "/") {
    respond(c, 404, "Not Found");
  } else if (http_should_keep_alive(p) && p->http_minor == 1) {
    c->out += kGreetingResponse;
  } else {
    const bool keep = http_should_keep_alive(p);
    c->out += std::string("HTTP/1.1 200 OK\r\nServer: tolan-httpd\r\nContent-Type: text/plain; charset=utf-8\r\n"
                          "Content-Length: 23\r\n") +
              (keep ? "Connection: keep-alive\r\n" : "Connection: close\r\n") + "\r\nHello from tolan-httpd\n";
    if (!keep) {
      c->closeAfterOutput = true;
      http_parser_pause(p, 1);
    }
  }
  return 0;
}

http_parser_settings makeSettings() {
  http_parser_settings s;
  http_parser_settings_init(&s);
  s.on_message_begin = [](http_parser* p) {
    self(p)->url.clear();
    self(p)->headerBytes = 0;
    return 0;
  };
  s.on_url = [](http_parser* p, const char* at, size_t n) {
    if (!countHeaderBytes(self(p), n)) return 1;
    self(p)->url.append(at, n);
    return 0;
  };
  s.on_header_field = [](http_parser* p, const char*, size_t n) { return countHeaderBytes(self(p), n) ? 0 : 1; };
  s.on_header_value = [](http_parser* p, const char*, size_t n) { return countHeaderBytes(self(p), n) ? 0 : 1; };
  s.on_headers_complete = onHeadersComplete;
  return s;
}

// After a closing answer: stop sending, discard input until the client
// closes (or the linger time ends), so that the answer is not destroyed by a
// reset from closing over unread input.
void linger(Connection* c) {
  c->lingering = true;
  ::shutdown(c->fd, SHUT_WR);
  event_del(c->writeEv);
  event_add(c->readEv, nullptr);
  armIdle(c, std::min(kLingerSeconds, c->server->options.idleTimeout));
}

// Returns false when the connection was closed.
bool flush(Connection* c) {
  while (c->pending() > 0) {
    const ssize_t n = ::send(c->fd, c->out.data() + c->outOffset, c->pending(), MSG_NOSIGNAL);
    if (n > 0) {
      c->outOffset += size_t(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && errno == EAGAIN) {
      break;
    } else {
      closeConnection(c);
      return false;
    }
  }
  if (c->pending() == 0) {
    c->out.clear();
    c->outOffset = 0;
    event_del(c->writeEv);
    if (c->closeAfterOutput) {
      linger(c);
    } else {
      event_add(c->readEv, nullptr);
    }
    return true;
  }
  if (c->outOffset > c->out.size() / 2) {
    c->out.erase(0, c->outOffset);
    c->outOffset = 0;
  }
  event_add(c->writeEv, nullptr);
  // A client that does not read its answers is not read either.
  if (c->pending() > kMaxPendingOutput || c->closeAfterOutput) event_del(c->readEv);
  return true;
}

void onReadable(evutil_socket_t, short, void* arg) {
  static const http_parser_settings settings = makeSettings();
  Connection* c = static_cast<Connection*>(arg);
  char buf[16384];
  for (int i = 0; i < kReadsPerRun; ++i) {
    const ssize_t n = ::read(c->fd, buf, sizeof buf);
    if (n > 0) {
      if (c->lingering || c->closeAfterOutput) continue;
      http_parser_execute(&c->parser, &settings, buf, size_t(n));
      const auto err = HTTP_PARSER_ERRNO(&c->parser);
      if (err != HPE_OK && err != HPE_PAUSED && !c->closeAfterOutput)
        respond(c, c->headersTooLarge ? 431 : 400,
                c->headersTooLarge ? "Request Header Fields Too Large" : "Bad Request");
      // As tolan-httpd: a short read emptied the socket, so no EAGAIN read.
      if (size_t(n) < sizeof buf) break;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) break;
    // End of file or a reset. A client that half-closed after its requests
    // still gets its answers.
    if (n < 0 || c->lingering || c->pending() == 0) return closeConnection(c);
    c->closeAfterOutput = true;
    event_del(c->readEv);
    break;
  }
  if (!c->lingering) flush(c);
}

void onWritable(evutil_socket_t, short, void* arg) { flush(static_cast<Connection*>(arg)); }

void onIdle(evutil_socket_t, short, void* arg) { closeConnection(static_cast<Connection*>(arg)); }

void accepted(Server* s, int fd) {
  const bool reject = s->connections >= s->options.maxConnections;
  if (reject && s->connections >= s->options.maxConnections + kRejectSlots) {
    ::close(fd);
    return;
  }
  auto* c = new Connection(s, fd);
  ++s->connections;
  http_parser_init(&c->parser, HTTP_REQUEST);
  c->parser.data = c;
  c->readEv = event_new(s->base, fd, EV_READ | EV_PERSIST, onReadable, c);
  c->writeEv = event_new(s->base, fd, EV_WRITE | EV_PERSIST, onWritable, c);
  c->idleEv = evtimer_new(s->base, onIdle, c);
  if (reject) {
    respond(c, 503, "Service Unavailable");
    flush(c);
    return;
  }
  event_add(c->readEv, nullptr);
  armIdle(c, s->options.idleTimeout);
}

void onAcceptable(evutil_socket_t, short, void* arg) {
  Server* s = static_cast<Server*>(arg);
  for (int i = 0; i < kAcceptsPerRun; ++i) {
    const int fd = ::accept4(s->listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      s->backoff = kFirstBackoffSeconds;
      accepted(s, fd);
      continue;
    }
    if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) continue;
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      // Out of descriptors: the backlog keeps the clients until ours close.
      event_del(s->acceptEv);
      const timeval tv = toTimeval(s->backoff);
      event_add(s->backoffEv, &tv);
      s->backoff = std::min(s->backoff * 2, kMaxBackoffSeconds);
    }
    return;
  }
}

void onBackoffOver(evutil_socket_t, short, void* arg) { event_add(static_cast<Server*>(arg)->acceptEv, nullptr); }

void onSignal(evutil_socket_t, short, void* arg) { event_base_loopexit(static_cast<event_base*>(arg), nullptr); }

}  // namespace

int main(int argc, char** argv) {
  Server server;
  Options& o = server.options;
  const int status =
      parseCommandLine(argc, argv, "tolan-raw-httpd", "tolan-httpd's / on a bare libevent loop; --throughput is ignored.\n", o);
  if (status >= 0) return status;

  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(o.port);
  if (::inet_pton(AF_INET, o.bindAddress.c_str(), &addr.sin_addr) != 1) {
    std::fprintf(stderr, "tolan-raw-httpd: bad bind address %s\n", o.bindAddress.c_str());
    return 1;
  }
  server.listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int on = 1;
  ::setsockopt(server.listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  socklen_t len = sizeof addr;
  if (server.listenFd < 0 || ::bind(server.listenFd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      ::listen(server.listenFd, SOMAXCONN) != 0 ||
      ::getsockname(server.listenFd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    std::fprintf(stderr, "tolan-raw-httpd: listen on %s:%u: %s\n", o.bindAddress.c_str(), unsigned(o.port), std::strerror(errno));
    return 1;
  }

  server.base = event_base_new();
  server.acceptEv = event_new(server.base, server.listenFd, EV_READ | EV_PERSIST, onAcceptable, &server);
  server.backoffEv = evtimer_new(server.base, onBackoffOver, &server);
  event* sigint = evsignal_new(server.base, SIGINT, onSignal, server.base);
  event* sigterm = evsignal_new(server.base, SIGTERM, onSignal, server.base);
  event_add(server.acceptEv, nullptr);
  event_add(sigint, nullptr);
  event_add(sigterm, nullptr);

  std::printf("tolan-raw-httpd listening on %s:%u\n", o.bindAddress.c_str(), unsigned(ntohs(addr.sin_port)));
  std::fflush(stdout);
  event_base_dispatch(server.base);
  // Connections still open are left to the exit: a peer for measurements
  // needs no graceful stop.
  std::fprintf(stderr, "tolan-raw-httpd: %llu requests, %zu connections open at exit\n", server.requests,
               server.connections);
  return 0;
}
