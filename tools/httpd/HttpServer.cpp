// HttpServer.cpp - connections, the listener and the signal watch of tolan-httpd.
//
// Closing. An answer that ends a connection (an error, /tasks, a client that
// asked for close, a server that stops) must reach the client: closing a
// socket that still has unread input makes the kernel send a reset, which
// may destroy the answer in the client's receive queue. So a connection
// shuts down its sending side once its output is out and reads (discarding)
// until the client closes too, for at most kLingerSeconds, and only then
// closes the descriptor.
//
// The idle timeout counts from the last complete request or output progress,
// never from mere input bytes: a client that trickles its headers in keeps the
// connection only for one idle timeout. Activity only stamps the time; the
// timer, armed once, re-arms itself for the rest when it finds activity, so a
// busy connection costs one clock read per request instead of a timer re-arm.
#include "tools/httpd/HttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <http_parser.h>
#include <netinet/in.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "Tolan/Debug.h"
#include "Tolan/FileDescriptorTask.h"
#include "Tolan/TaskGroup.h"
#include "Tolan/TaskSchedulerRenderJsonAsync.h"
#include "Tolan/TaskSchedulerRoot.h"
#include "Tolan/TaskSchedulerSnapshot.h"
#include "Tolan/TaskStatReport.h"
#include "Tolan/TimerTask.h"

namespace TolanHttpd {

namespace {

using Tolan::TaskPriority;

const auto& traceAccept() {
  static const auto h = Tolan::Platform::getDebugHandler("TolanHttpd.Accept");
  return h;
}
const auto& traceRequest() {
  static const auto h = Tolan::Platform::getDebugHandler("TolanHttpd.Request");
  return h;
}
const auto& traceClose() {
  static const auto h = Tolan::Platform::getDebugHandler("TolanHttpd.Close");
  return h;
}

struct Status {
  int code;
  const char* reason;
  const char* body;
};
constexpr Status kOk{200, "OK", ""};
constexpr Status kBadRequest{400, "Bad Request", "Bad Request\n"};
constexpr Status kNotFound{404, "Not Found", "Not Found\n"};
constexpr Status kMethodNotAllowed{405, "Method Not Allowed", "Method Not Allowed\n"};
constexpr Status kHeadersTooLarge{431, "Request Header Fields Too Large", "Request Header Fields Too Large\n"};
constexpr Status kUnavailable{503, "Service Unavailable", "Service Unavailable\n"};

// How the answer leaves the connection: kept alive (HTTP/1.1 default, or
// HTTP/1.0 with keep-alive, which must be said), closed after the answer, or
// closed with a body of unknown length (/tasks: the end of the data ends it).
enum class Persistence { keepAlive11, keepAlive10, close };

void appendHead(std::string& out, const Status& status, const char* contentType, std::optional<size_t> length,
                Persistence persistence) {
  fmt::format_to(std::back_inserter(out), "HTTP/1.1 {} {}\r\nServer: tolan-httpd\r\nContent-Type: {}\r\n",
                 status.code, status.reason, contentType);
  if (length) fmt::format_to(std::back_inserter(out), "Content-Length: {}\r\n", *length);
  if (status.code == 405) out += "Allow: GET\r\n";
  if (persistence == Persistence::close) out += "Connection: close\r\n";
  if (persistence == Persistence::keepAlive10) out += "Connection: keep-alive\r\n";
  out += "\r\n";
}

void appendResponse(std::string& out, const Status& status, const char* contentType, std::string_view body,
                    Persistence persistence) {
  appendHead(out, status, contentType, body.size(), persistence);
  out.append(body);
}

// The answer to `/` on a kept-alive HTTP/1.1 connection, the one that load
// tests hammer: built once.
const std::string& greetingResponse() {
  static const std::string response = [] {
    std::string r;
    appendResponse(r, kOk, "text/plain; charset=utf-8", kGreeting, Persistence::keepAlive11);
    return r;
  }();
  return response;
}

}  // namespace

// ---- a connection ----

// A timer task that runs `action`: the idle timer of a connection and the
// listener's accept back-off, each owned by the object its action calls.
class ActionTimer : public Tolan::TimerTask {
 public:
  ActionTimer(std::shared_ptr<Tolan::TaskScheduler> scheduler, std::string name, std::function<void()> action)
      : TimerTask(std::move(scheduler), TaskPriority::normal, std::move(name)), action_(std::move(action)) {}
  void taskExecute() override { action_(); }

 private:
  std::function<void()> action_;
};

class Connection : public Tolan::FileDescriptorTask {
 public:
  Connection(HttpServer& server, int fd)
      : FileDescriptorTask(server.group_, TaskPriority::normal, "HttpConnection"),
        server_(server),
        fd_(fd),
        idle_(std::make_shared<ActionTimer>(server.group_, "HttpIdleTimer", [this] { idleExpired(); })) {
    http_parser_init(&parser_, HTTP_REQUEST);
    parser_.data = this;
    taskWatchFdIs(fd);
  }

  // Once the server holds the connection (the answer may close it at once).
  void start(bool reject) {
    if (reject) {
      respond(kUnavailable, Persistence::close);
      return flush();
    }
    taskWatchReadableIs(true);
    lastActivity_ = Tolan::time();
    idle_->scheduleTaskDelay(server_.options_.idleTimeout);
  }

  ~Connection() override {
    idle_->stopTimerTask();
    if (fd_ < 0) return;
    taskWatchFdDel();
    if (jsonActive_) {
      // Only when the server is destroyed mid-document: the writer may still
      // write to this number, so it must not be reused. Destroy a server
      // once stopped() instead.
      ::shutdown(fd_, SHUT_RDWR);
      TOLAN_TRACE(traceClose(), 1, "fd {} left open: destroyed while /tasks was being written", fd_);
      return;
    }
    ::close(fd_);
  }

  void taskExecuteReadable() override {
    char buf[16384];
    for (int i = 0; i < kReadsPerRun && fd_ >= 0 && taskWatchReadable(); ++i) {
      const ssize_t n = ::read(fd_, buf, sizeof buf);
      if (n > 0) {
        if (!lingering_) feed(buf, size_t(n));
        // A short read emptied the socket: asking again would only say
        // EAGAIN, one system call per request wasted. More input is
        // reported by the loop.
        if (size_t(n) < sizeof buf) break;
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) break;
      // End of file, or the client is gone (a reset): no more requests.
      return peerClosed(n < 0);
    }
    if (fd_ >= 0 && !lingering_) flush();
  }

  void taskExecuteWritable() override { flush(); }

  // The idle timer fired: close, unless there was activity since it was
  // armed (then it waits for the rest of the timeout).
  void idleExpired() {
    if (!lingering_) {
      const double rest = lastActivity_ + server_.options_.idleTimeout - Tolan::time();
      if (rest > 0) return idle_->scheduleTaskDelay(rest);
      ++server_.counters_.closedIdle;
      TOLAN_TRACE(traceClose(), 5, "fd {}: idle for {} s, closing", fd_, server_.options_.idleTimeout);
    }
    close();
  }

  // The server stops: finish what is owed, then close.
  void stopGracefully() {
    if (!midRequest_ && pendingOutput() == 0 && !jsonActive_ && !jsonPending_ && !lingering_) return close();
    closeAfterOutput_ = true;
  }

  // Releases the descriptor; may destroy this connection (the server drops
  // it), so it must be the caller's last use of it. While the JSON writer
  // holds the descriptor, shutting the socket down makes its next write fail,
  // and its end closes us for real.
  void close() {
    if (fd_ < 0) return;
    if (jsonActive_) {
      ::shutdown(fd_, SHUT_RDWR);
      return;
    }
    TOLAN_TRACE(traceClose(), 5, "fd {} closed after {} requests", fd_, requests_);
    idle_->stopTimerTask();
    taskWatchFdDel();
    ::close(fd_);
    fd_ = -1;
    server_.closed(this);
  }

 private:
  size_t pendingOutput() const noexcept { return out_.size() - outOffset_; }

  void feed(const char* data, size_t n) {
    static const http_parser_settings settings = makeSettings();
    http_parser_execute(&parser_, &settings, data, n);
    const auto err = HTTP_PARSER_ERRNO(&parser_);
    if (err == HPE_OK || err == HPE_PAUSED) return;  // paused: the connection ends after its answer
    TOLAN_TRACE(traceRequest(), 3, "fd {}: {}", fd_, headersTooLarge_ ? "headers too large" : http_errno_name(err));
    respond(headersTooLarge_ ? kHeadersTooLarge : kBadRequest, Persistence::close);
  }

  static http_parser_settings makeSettings() {
    http_parser_settings s;
    http_parser_settings_init(&s);
    s.on_message_begin = [](http_parser* p) {
      auto* c = self(p);
      c->midRequest_ = true;
      c->url_.clear();
      c->headerBytes_ = 0;
      return 0;
    };
    s.on_url = [](http_parser* p, const char* at, size_t n) {
      auto* c = self(p);
      if (!c->countHeaderBytes(n)) return 1;
      c->url_.append(at, n);
      return 0;
    };
    s.on_header_field = [](http_parser* p, const char*, size_t n) { return self(p)->countHeaderBytes(n) ? 0 : 1; };
    s.on_header_value = [](http_parser* p, const char*, size_t n) { return self(p)->countHeaderBytes(n) ? 0 : 1; };
    s.on_headers_complete = [](http_parser* p) {
      self(p)->dispatch();
      return 0;
    };
    s.on_message_complete = [](http_parser* p) {
      self(p)->midRequest_ = false;
      return 0;
    };
    return s;
  }
  static Connection* self(http_parser* p) { return static_cast<Connection*>(p->data); }

  bool countHeaderBytes(size_t n) {
    headerBytes_ += n;
    if (headerBytes_ <= kMaxHeaderBytes) return true;
    headersTooLarge_ = true;
    return false;
  }

  // A request's headers are in: answer it (the body, if any, is skipped).
  void dispatch() {
    ++requests_;
    ++server_.counters_.requests;
    lastActivity_ = Tolan::time();
    std::string_view path(url_);
    path = path.substr(0, path.find('?'));
    TOLAN_TRACE(traceRequest(), 5, "fd {}: {} {}", fd_, http_method_str(http_method(parser_.method)), url_);
    const bool keepAlive = http_should_keep_alive(&parser_) && !server_.stopping_;
    const Persistence persistence = !keepAlive                ? Persistence::close
                                    : parser_.http_minor == 0 ? Persistence::keepAlive10
                                                              : Persistence::keepAlive11;
    if (parser_.method != HTTP_GET) return respond(kMethodNotAllowed, Persistence::close);
    if (path == "/") {
      if (persistence == Persistence::keepAlive11) {
        out_ += greetingResponse();
      } else {
        appendResponse(out_, kOk, "text/plain; charset=utf-8", kGreeting, persistence);
      }
    } else if (path == "/tasks") {
      // The document's length is not known in advance: the end of the
      // connection ends it.
      appendHead(out_, kOk, "application/json", std::nullopt, Persistence::close);
      jsonPending_ = true;
      endRequests();
      return;
    } else if (path == "/stats") {
      appendResponse(out_, kOk, "text/plain; charset=utf-8",
                     server_.root_->statsRenderTextForDebugToString(true, true, true, false), persistence);
    } else if (path == "/history") {
      appendResponse(out_, kOk, "text/plain; charset=utf-8", server_.root_->historyRenderTextForDebugToString(),
                     persistence);
    } else {
      return respond(kNotFound, Persistence::close);
    }
    if (persistence == Persistence::close) endRequests();
  }

  void respond(const Status& status, Persistence persistence) {
    appendResponse(out_, status, "text/plain; charset=utf-8", status.body, persistence);
    if (persistence == Persistence::close) endRequests();
  }

  // No request after this one is read or answered.
  void endRequests() {
    closeAfterOutput_ = true;
    if (HTTP_PARSER_ERRNO(&parser_) == HPE_OK) http_parser_pause(&parser_, 1);
    taskWatchReadableIs(false);
  }

  // Sends what the socket takes; then starts the JSON document or the close
  // that is due, and reads again once the backlog has shrunk.
  void flush() {
    bool progress = false;
    while (pendingOutput() > 0) {
      const ssize_t n = ::send(fd_, out_.data() + outOffset_, pendingOutput(), MSG_NOSIGNAL);
      if (n > 0) {
        outOffset_ += size_t(n);
        progress = true;
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && errno == EAGAIN) {
        break;
      } else {
        TOLAN_TRACE(traceClose(), 5, "fd {}: client gone while sending ({})", fd_, std::strerror(errno));
        return close();
      }
    }
    if (progress && !closeAfterOutput_) lastActivity_ = Tolan::time();
    if (pendingOutput() == 0) {
      out_.clear();
      outOffset_ = 0;
    } else if (outOffset_ > out_.size() / 2) {
      out_.erase(0, outOffset_);
      outOffset_ = 0;
    }
    taskWatchWritableIs(pendingOutput() > 0);
    if (pendingOutput() > 0) {
      // A client that does not read its answers is not read either.
      if (pendingOutput() > kMaxPendingOutput) taskWatchReadableIs(false);
      return;
    }
    if (jsonPending_) return startJson();
    if (closeAfterOutput_) return linger();
    if (!taskWatchReadable() && !peerClosed_) taskWatchReadableIs(true);
  }

  void startJson() {
    jsonPending_ = false;
    jsonActive_ = true;
    // The writer watches the descriptor while it writes; we watch it again after.
    taskWatchFdDel();
    std::weak_ptr<Connection> weak = std::static_pointer_cast<Connection>(shared_from_this());
    auto snapshot = server_.root_->snapshot(true, true, true);
    server_.root_->snapshotRenderJsonAsync(fd_, {std::move(snapshot)},
                                           [weak](Tolan::TaskScheduler::SnapshotRenderJsonTask& output) {
                                             if (auto c = weak.lock()) c->jsonDone(output.writeFailed());
                                           });
  }

  void jsonDone(bool failed) {
    jsonActive_ = false;
    if (failed) return close();
    taskWatchFdIs(fd_);
    linger();
  }

  // The answer is out: stop sending and wait (briefly) for the client to close.
  void linger() {
    if (peerClosed_) return close();
    lingering_ = true;
    ::shutdown(fd_, SHUT_WR);
    taskWatchWritableIs(false);
    taskWatchReadableIs(true);
    idle_->scheduleTaskDelay(std::min(kLingerSeconds, server_.options_.idleTimeout));
  }

  void peerClosed(bool reset) {
    peerClosed_ = true;
    taskWatchReadableIs(false);
    if (reset || lingering_) return close();
    // A client that half-closed after its requests still gets its answers.
    closeAfterOutput_ = true;
    if (!jsonActive_ && !jsonPending_ && pendingOutput() == 0) return close();
    flush();
  }

  HttpServer& server_;
  int fd_;
  http_parser parser_;
  std::string url_;
  size_t headerBytes_ = 0;
  bool headersTooLarge_ = false;
  bool midRequest_ = false;
  bool closeAfterOutput_ = false;
  bool peerClosed_ = false;
  bool lingering_ = false;
  bool jsonPending_ = false;
  bool jsonActive_ = false;
  uint64_t requests_ = 0;
  double lastActivity_ = 0;  // Tolan::time() of the last request or output progress
  std::string out_;
  size_t outOffset_ = 0;
  std::shared_ptr<ActionTimer> idle_;
};

// ---- the listener ----

class Listener : public Tolan::FileDescriptorTask {
 public:
  Listener(HttpServer& server, int fd)
      : FileDescriptorTask(server.root_, TaskPriority::normal, "HttpListener"),
        server_(server),
        fd_(fd),
        backoff_(std::make_shared<ActionTimer>(server.root_, "HttpAcceptBackoff",
                                               [this] { taskWatchReadableIs(true); })) {
    taskWatchFdIs(fd);
    taskWatchReadableIs(true);
  }
  ~Listener() override {
    backoff_->stopTimerTask();
    taskWatchFdDel();
    ::close(fd_);
  }

  void taskExecuteReadable() override {
    for (int i = 0; i < kAcceptsPerRun; ++i) {
      const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd >= 0) {
        delay_ = kFirstBackoffSeconds;
        server_.accepted(fd);
        continue;
      }
      if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // Out of descriptors or memory: the backlog keeps the clients while
        // the connections we serve finish and give theirs back.
        ++server_.counters_.acceptBackoffs;
        TOLAN_TRACE(traceAccept(), 1, "accept: {}; retrying in {} s", std::strerror(errno), delay_);
        taskWatchReadableIs(false);
        backoff_->scheduleTaskDelay(delay_);
        delay_ = std::min(delay_ * 2, kMaxBackoffSeconds);
      } else if (errno != EAGAIN) {
        TOLAN_TRACE(traceAccept(), 1, "accept: {}", std::strerror(errno));
      }
      return;
    }
  }
  void taskExecuteWritable() override {}

 private:
  HttpServer& server_;
  int fd_;
  double delay_ = kFirstBackoffSeconds;
  std::shared_ptr<ActionTimer> backoff_;
};

// ---- the signal watch ----

class SignalWatch : public Tolan::FileDescriptorTask {
 public:
  SignalWatch(HttpServer& server, int fd)
      : FileDescriptorTask(Tolan::schedulerRootTolan(), TaskPriority::high, "HttpSignals"), server_(server), fd_(fd) {
    taskWatchFdIs(fd);
    taskWatchReadableIs(true);
  }
  ~SignalWatch() override {
    taskWatchFdDel();
    ::close(fd_);
  }
  void taskExecuteReadable() override {
    signalfd_siginfo info;
    while (::read(fd_, &info, sizeof info) == ssize_t(sizeof info)) {
      TOLAN_TRACE(traceAccept(), 1, "signal {}: stopping", strsignal(int(info.ssi_signo)));
      server_.stop();
    }
  }
  void taskExecuteWritable() override {}

 private:
  HttpServer& server_;
  int fd_;
};

// ---- the server ----

HttpServer::HttpServer(Options options)
    : options_(std::move(options)),
      root_(Tolan::schedulerRootTolan()),
      group_(Tolan::TaskGroupIs("HttpConnections", TaskPriority::normal, false, root_)) {
  if (options_.throughput > 0) root_->tasksPerCallbackIs(options_.throughput);
}

HttpServer::~HttpServer() {
  signals_.reset();
  listener_.reset();
  // Connections close their descriptors as they go.
  connections_.clear();
}

void HttpServer::start() {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(options_.port);
  if (::inet_pton(AF_INET, options_.bindAddress.c_str(), &addr.sin_addr) != 1)
    throw std::system_error(EINVAL, std::generic_category(), "bind address " + options_.bindAddress);
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "socket");
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  socklen_t len = sizeof addr;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(fd, SOMAXCONN) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    const int err = errno;
    ::close(fd);
    throw std::system_error(err, std::generic_category(),
                            fmt::format("listen on {}:{}", options_.bindAddress, options_.port));
  }
  port_ = ntohs(addr.sin_port);
  listener_ = std::make_shared<Listener>(*this, fd);
}

void HttpServer::adoptConnection(int fd) { accepted(fd); }

void HttpServer::stopOnSignals(const sigset_t& signals) {
  const int fd = ::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
  signals_ = std::make_shared<SignalWatch>(*this, fd);
}

void HttpServer::stop() {
  if (stopping_) return;
  stopping_ = true;
  TOLAN_TRACE(traceAccept(), 3, "stopping: {} connections open", connections_.size());
  listener_.reset();
  std::vector<std::shared_ptr<Connection>> open;
  for (const auto& entry : connections_) open.push_back(entry.second);
  for (const auto& c : open) c->stopGracefully();
}

void HttpServer::accepted(int fd) {
  ++counters_.accepted;
  const bool reject = connections_.size() >= options_.maxConnections;
  if (stopping_ || (reject && connections_.size() >= options_.maxConnections + kRejectSlots)) {
    TOLAN_TRACE(traceAccept(), 3, "fd {}: closed at once ({} connections)", fd, connections_.size());
    ::close(fd);
    return;
  }
  if (reject) ++counters_.rejected;
  TOLAN_TRACE(traceAccept(), 5, "fd {} accepted{}", fd, reject ? ", over the limit: 503" : "");
  auto c = std::make_shared<Connection>(*this, fd);
  connections_.emplace(c.get(), c);
  c->start(reject);
}

void HttpServer::closed(Connection* connection) { connections_.erase(connection); }

}  // namespace TolanHttpd
