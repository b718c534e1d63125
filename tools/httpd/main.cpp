// tolan-httpd - an HTTP/1.1 server on libTolan's task scheduler, with the
// scheduler's own introspection at /tasks, /stats and /history.
#include <signal.h>

#include <cstdio>
#include <exception>

#include "Tolan/Platform.h"
#include "tools/httpd/HttpServer.h"

namespace {

// Seconds a stopping server waits for the answers in flight.
constexpr double kStopGraceSeconds = 10.0;

}  // namespace

int main(int argc, char** argv) {
  TolanHttpd::Options options;
  const int status = TolanHttpd::parseCommandLine(
      argc, argv, "tolan-httpd",
      "GET / (a greeting), /tasks (the scheduler's JSON document), /stats (its text\n"
      "report), /history (its history). SIGINT or SIGTERM: finish answers, exit 0.\n"
      "Trace channels: TolanHttpd.Accept, TolanHttpd.Request, TolanHttpd.Close\n"
      "(for example TRACE='TolanHttpd*/5').\n",
      options);
  if (status >= 0) return status;

  // Before any thread exists, so that every thread inherits the mask and the
  // signals reach the signalfd only.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  try {
    TolanHttpd::HttpServer server(options);
    server.start();
    server.stopOnSignals(signals);
    std::printf("tolan-httpd listening on %s:%u\n", options.bindAddress.c_str(), unsigned(server.port()));
    std::fflush(stdout);
    while (!server.stopping()) Tolan::Platform::doEventLoop(1.0);
    const double deadline = Tolan::time() + kStopGraceSeconds;
    while (!server.stopped() && Tolan::time() < deadline) Tolan::Platform::doEventLoop(0.1);
    const auto& n = server.counters();
    std::fprintf(stderr, "tolan-httpd: %llu connections, %llu requests, %llu rejected, %llu closed idle%s\n",
                 (unsigned long long)n.accepted, (unsigned long long)n.requests, (unsigned long long)n.rejected,
                 (unsigned long long)n.closedIdle, server.stopped() ? "" : "; gave up on the rest");
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tolan-httpd: %s\n", e.what());
    return 1;
  }
}
