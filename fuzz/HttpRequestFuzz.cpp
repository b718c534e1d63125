// tolan-httpd's request path: arbitrary bytes from a client, answers out.
//
// Byte 0 splits the rest into two writes at a point it chooses, so that
// requests also arrive cut anywhere. The client half-closes after writing;
// the server must answer and close the connection within a bounded number of
// loop passes, every answer must be a well-formed status line of ours, and
// nothing may be left open or leak (LeakSanitizer checks at exit).
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>

#include "FuzzSupport.h"
#include "Tolan/Platform.h"
#include "tools/httpd/HttpServer.h"

namespace {

TolanHttpd::HttpServer& server() {
  static auto* s = [] {
    TolanFuzz::throwAssertionsQuietly();
    return new TolanHttpd::HttpServer(TolanHttpd::Options{});
  }();
  return *s;
}

void drain(int fd, std::string& into) {
  char buf[65536];
  for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) into.append(buf, size_t(n));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  const size_t cut = input.empty() ? 0 : data[0] % (input.size() + 1);
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) std::abort();
  auto& s = server();
  s.adoptConnection(fds[0]);
  std::string answers;
  auto send = [&](const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
      const ssize_t n = ::send(fds[1], bytes.data() + at, bytes.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n < 0 && errno != EAGAIN) return;  // the server closed: the rest is moot
      at += n > 0 ? size_t(n) : 0;
      Tolan::Platform::doEventLoop(0.0);
      drain(fds[1], answers);
    }
  };
  send(input.substr(0, cut));
  Tolan::Platform::doEventLoop(0.0);
  send(input.substr(cut));
  ::shutdown(fds[1], SHUT_WR);
  for (int pass = 0; s.connectionCount() > 0; ++pass) {
    if (pass == 100000) std::abort();  // the connection never ended
    Tolan::Platform::doEventLoop(0.0);
    drain(fds[1], answers);
  }
  drain(fds[1], answers);
  ::close(fds[1]);
  // Each answer begins with one of our status lines.
  static const std::regex status("^HTTP/1\\.1 (200 OK|400 Bad Request|404 Not Found|405 Method Not Allowed|"
                                 "431 Request Header Fields Too Large)\r\n");
  if (!answers.empty() && !std::regex_search(answers, status)) std::abort();
  return 0;
}
