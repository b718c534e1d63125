// HttpServer.h - tolan-httpd's server: HTTP/1.1 on the thread's task scheduler.
//
// A small service that shows the scheduler at work and lets anyone look inside
// it while it runs:
//   /         a greeting ("Hello from tolan-httpd")
//   /tasks    the scheduler's JSON introspection document, written by the
//             asynchronous JSON writer straight to the socket
//   /stats    the text statistics report
//   /history  the scheduler's history dump
// Anything but GET is 405, an unknown path 404, a request the parser refuses
// 400, a request line plus headers over kMaxHeaderBytes 431, a connection over
// the limit 503; each of these, and /tasks, closes the connection after its
// answer. Otherwise connections are kept alive and pipelined requests are
// answered in order.
//
// How it runs: the listening socket and every connection are descriptor
// tasks; the connections share one task group of normal priority, so that the
// root sees one task however many clients there are. Each connection has an
// idle timer task: a connection that completes no request (and takes no
// output) within the idle timeout is closed, which also ends clients that
// send their headers a byte at a time. A client that does not read its
// answers stops being read once kMaxPendingOutput bytes wait for it. Requests
// are parsed with http_parser; nothing of a request is kept but its method,
// path and keep-alive flag.
//
// Threading: everything on the thread that created the server (its root
// scheduler's thread), from inside that thread's event loop.
#pragma once

#include <signal.h>

#include <cstdint>
#include <map>
#include <memory>

#include "tools/httpd/Options.h"

namespace Tolan {
class TaskGroup;
class TaskSchedulerRoot;
}  // namespace Tolan

namespace TolanHttpd {

// What the server has done, for tests and the closing log line.
struct Counters {
  uint64_t accepted = 0;
  uint64_t requests = 0;
  uint64_t rejected = 0;      // answered 503 at the connection limit
  uint64_t closedIdle = 0;    // closed by the idle timer
  uint64_t acceptBackoffs = 0;
};

class Connection;
class Listener;
class SignalWatch;

class HttpServer {
 public:
  // A server on the calling thread's root scheduler; nothing is opened yet.
  explicit HttpServer(Options options);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds, listens and starts accepting. Throws std::system_error when the
  // address does not parse or the socket cannot be bound.
  void start();
  // The port listened on (after start()).
  uint16_t port() const noexcept { return port_; }

  // Serves an already connected stream socket (a socketpair, an inherited
  // descriptor) as if it had been accepted; the server closes it.
  void adoptConnection(int fd);

  // SIGINT/SIGTERM (or whatever `signals` holds) read from a signalfd call
  // stop(). The caller blocks those signals in every thread first (before
  // creating any), else the process dies of them instead.
  void stopOnSignals(const sigset_t& signals);

  // Stops accepting, closes idle connections and lets every other one finish
  // the answers it owes, then close. Idempotent.
  void stop();
  bool stopping() const noexcept { return stopping_; }
  // stop() was called and every connection has closed.
  bool stopped() const noexcept { return stopping_ && connections_.empty(); }

  size_t connectionCount() const noexcept { return connections_.size(); }
  const Counters& counters() const noexcept { return counters_; }
  const Options& options() const noexcept { return options_; }

 private:
  friend class Connection;
  friend class Listener;
  void accepted(int fd);
  void closed(Connection* connection);

  Options options_;
  uint16_t port_ = 0;
  bool stopping_ = false;
  Counters counters_;
  std::shared_ptr<Tolan::TaskSchedulerRoot> root_;
  std::shared_ptr<Tolan::TaskGroup> group_;
  std::shared_ptr<Listener> listener_;
  std::shared_ptr<SignalWatch> signals_;
  std::map<Connection*, std::shared_ptr<Connection>> connections_;
};

}  // namespace TolanHttpd
