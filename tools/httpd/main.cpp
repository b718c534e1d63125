// tolan-httpd - an HTTP/1.1 server on libTolan's task scheduler, with the
// scheduler's own introspection at /tasks, /stats and /history.
#include <getopt.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "Tolan/Platform.h"
#include "tools/httpd/HttpServer.h"

namespace {

// Seconds a stopping server waits for the answers in flight.
constexpr double kStopGraceSeconds = 10.0;

void usage(std::FILE* out) {
  std::fprintf(out,
               "usage: tolan-httpd [options]\n"
               "  --port N             port to listen on (default 0: pick a free one; printed at start)\n"
               "  --bind ADDR          IPv4 address to listen on (default 127.0.0.1)\n"
               "  --idle-timeout SECS  close connections idle this long (default 30)\n"
               "  --max-connections N  answer 503 beyond N open connections (default 10000)\n"
               "  --throughput N       run up to N tasks per event-loop callback (default 0: one)\n"
               "  --help               this text\n"
               "GET / (a greeting), /tasks (the scheduler's JSON document), /stats (its text\n"
               "report), /history (its history). SIGINT or SIGTERM: finish answers, exit 0.\n"
               "Trace channels: TolanHttpd.Accept, TolanHttpd.Request, TolanHttpd.Close\n"
               "(for example TRACE='TolanHttpd*/5').\n");
}

bool parseNumber(const char* text, double low, double high, double& value) {
  char* end = nullptr;
  errno = 0;
  value = std::strtod(text, &end);
  return errno == 0 && end != text && *end == '\0' && value >= low && value <= high;
}

}  // namespace

int main(int argc, char** argv) {
  TolanHttpd::Options options;
  static const option longOptions[] = {{"port", required_argument, nullptr, 'p'},
                                       {"bind", required_argument, nullptr, 'b'},
                                       {"idle-timeout", required_argument, nullptr, 'i'},
                                       {"max-connections", required_argument, nullptr, 'm'},
                                       {"throughput", required_argument, nullptr, 't'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {nullptr, 0, nullptr, 0}};
  for (int c; (c = getopt_long(argc, argv, "", longOptions, nullptr)) != -1;) {
    double value = 0;
    bool ok = true;
    switch (c) {
      case 'p':
        ok = parseNumber(optarg, 0, 65535, value) && value == int(value);
        options.port = uint16_t(value);
        break;
      case 'b':
        options.bindAddress = optarg;
        break;
      case 'i':
        ok = parseNumber(optarg, 0.001, 1e6, value);
        options.idleTimeout = value;
        break;
      case 'm':
        ok = parseNumber(optarg, 1, 1e7, value) && value == int(value);
        options.maxConnections = size_t(value);
        break;
      case 't':
        ok = parseNumber(optarg, 0, 1e6, value) && value == int(value);
        options.throughput = unsigned(value);
        break;
      case 'h':
        usage(stdout);
        return 0;
      default:
        usage(stderr);
        return 2;
    }
    if (!ok) {
      const option* o = longOptions;
      while (o->val != c) ++o;
      std::fprintf(stderr, "tolan-httpd: bad value '%s' for --%s\n", optarg, o->name);
      return 2;
    }
  }
  if (optind < argc) {
    usage(stderr);
    return 2;
  }

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
