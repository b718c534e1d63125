// Options.h - tolan-httpd's command line, limits and pacing.
//
// Header-only and free of the library, so that the bare-libevent server the
// load test measures against (bench/RawHttpServer.cpp) takes the same command
// line and holds to the same limits: one source for both.
#pragma once

#include <getopt.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace TolanHttpd {

// Limits a careful server holds to; the header limit is the one RFC 6585's
// 431 answers (request line and header fields, names and values).
constexpr size_t kMaxHeaderBytes = 8 * 1024;
constexpr size_t kMaxPendingOutput = 256 * 1024;
// How long a closing connection waits for its client to close too.
constexpr double kLingerSeconds = 2.0;
// Accept back-off when out of descriptors: doubling from the first to the most.
constexpr double kFirstBackoffSeconds = 0.01;
constexpr double kMaxBackoffSeconds = 1.0;
// Accepts per listener run, so that a flood of connections cannot keep the
// listener running while accepted connections wait for their first turn.
constexpr int kAcceptsPerRun = 64;
// Reads per connection run: a client with a deep pipeline yields to the
// others after this many.
constexpr int kReadsPerRun = 4;
// Connections over the limit that still get their 503; beyond these a new
// connection is closed at once.
constexpr size_t kRejectSlots = 64;

// The body of `/`.
constexpr std::string_view kGreeting = "Hello from tolan-httpd\n";

struct Options {
  std::string bindAddress = "127.0.0.1";
  uint16_t port = 0;           // 0: the kernel picks one (see HttpServer::port())
  double idleTimeout = 30.0;   // seconds without a complete request or output progress
  size_t maxConnections = 10000;
  unsigned throughput = 0;     // >0: the root's throughput mode, this many tasks per callback
};

// Reads the command line into `options`. Returns -1 to go on, else the exit
// status: 0 after --help, 2 for a bad command line (said on stderr). `about`
// ends the usage text.
inline int parseCommandLine(int argc, char** argv, const char* program, const char* about, Options& options) {
  const auto usage = [&](std::FILE* out) {
    std::fprintf(out,
                 "usage: %s [options]\n"
                 "  --port N             port to listen on (default 0: pick a free one; printed at start)\n"
                 "  --bind ADDR          IPv4 address to listen on (default 127.0.0.1)\n"
                 "  --idle-timeout SECS  close connections idle this long (default 30)\n"
                 "  --max-connections N  answer 503 beyond N open connections (default 10000)\n"
                 "  --throughput N       run up to N tasks per event-loop callback (default 0: one)\n"
                 "  --help               this text\n"
                 "%s",
                 program, about);
  };
  // A number in [low, high]; whole when `whole`.
  const auto number = [](const char* text, double low, double high, bool whole, double& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtod(text, &end);
    return errno == 0 && end != text && *end == '\0' && value >= low && value <= high &&
           (!whole || value == double(int64_t(value)));
  };
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
        ok = number(optarg, 0, 65535, true, value);
        options.port = uint16_t(value);
        break;
      case 'b':
        options.bindAddress = optarg;
        break;
      case 'i':
        ok = number(optarg, 0.001, 1e6, false, value);
        options.idleTimeout = value;
        break;
      case 'm':
        ok = number(optarg, 1, 1e7, true, value);
        options.maxConnections = size_t(value);
        break;
      case 't':
        ok = number(optarg, 0, 1e6, true, value);
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
      std::fprintf(stderr, "%s: bad value '%s' for --%s\n", program, optarg, o->name);
      return 2;
    }
  }
  if (optind < argc) {
    usage(stderr);
    return 2;
  }
  return -1;
}

}  // namespace TolanHttpd
