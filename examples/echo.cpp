// echo.cpp - a line-echo service on a loopback TCP port, run by descriptor tasks.
//
// One descriptor task listens, one serves each connection, and three clients
// on the same thread connect, send their lines, check what comes back and
// hang up; the service closes each connection on end of file. A connection
// writes what it can at once and watches writability only for the rest.
// The program ends by itself once every client has heard all its lines, and
// prints how many runs the read and write halves of each client took.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Tolan/FileDescriptorTask.h"
#include "Tolan/Platform.h"

namespace {

using Tolan::FileDescriptorTask;
using Tolan::TaskPriority;

// Reads what is ready into `in`; false at end of file or on an error.
bool readInto(int fd, std::string& in) {
  char buf[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) in.append(buf, size_t(n));
    if (n == 0) return false;
    if (n < 0) return errno == EAGAIN || errno == EINTR;
  }
}

// Writes what the socket takes from the front of `out`; false on an error.
bool writeFrom(int fd, std::string& out) {
  while (!out.empty()) {
    const ssize_t n = ::send(fd, out.data(), out.size(), MSG_NOSIGNAL);
    if (n < 0) return errno == EAGAIN || errno == EINTR;
    out.erase(0, size_t(n));
  }
  return true;
}

// A descriptor task that owns its socket: closes it on the way out.
class SocketTask : public FileDescriptorTask {
 public:
  SocketTask(std::string name, int fd) : FileDescriptorTask(Tolan::schedulerRootTolan(), TaskPriority::normal, name) {
    taskWatchFdIs(fd);
    taskWatchReadableIs(true);
  }
  ~SocketTask() override { close(); }

 protected:
  void close() {
    const int fd = taskWatchFd();
    if (fd < 0) return;
    taskWatchFdDel();  // before close(): the number is free for reuse after it
    ::close(fd);
  }
  // Sends `out` now if the socket takes it, else when it is writable.
  void flush() {
    if (!writeFrom(taskWatchFd(), out_)) return close();
    taskWatchWritableIs(!out_.empty());
  }
  void taskExecuteWritable() override { flush(); }

  std::string in_, out_;
};

// One served connection: every complete line goes back as it came.
class Connection : public SocketTask {
 public:
  Connection(int fd, std::map<Connection*, std::shared_ptr<Connection>>& open)
      : SocketTask("conn" + std::to_string(fd), fd), open_(open) {}

  void taskExecuteReadable() override {
    const bool more = readInto(taskWatchFd(), in_);
    const size_t end = in_.rfind('\n');
    if (end != std::string::npos) {
      taskWorkCountInc(end + 1);
      out_ += in_.substr(0, end + 1);
      in_.erase(0, end + 1);
      flush();
    }
    if (!more) open_.erase(this);  // end of file: the last owner lets go
  }

 private:
  std::map<Connection*, std::shared_ptr<Connection>>& open_;
};

// The listening socket: accepts every pending connection.
class Listener : public SocketTask {
 public:
  explicit Listener(int fd) : SocketTask("listener", fd) {}
  void taskExecuteReadable() override {
    for (int fd; (fd = ::accept(taskWatchFd(), nullptr, nullptr)) >= 0;) {
      auto conn = std::make_shared<Connection>(fd, open);
      open[conn.get()] = conn;
    }
  }
  std::map<Connection*, std::shared_ptr<Connection>> open;
};

// A client: sends its lines, reads the echo, hangs up when all came back.
class Client : public SocketTask {
 public:
  Client(int id, int fd, int lines) : SocketTask("client" + std::to_string(id), fd) {
    for (int i = 0; i < lines; ++i) expected_ += "client " + std::to_string(id) + " line " + std::to_string(i) + "\n";
    out_ = expected_;
    flush();
  }
  void taskExecuteReadable() override {
    if (!readInto(taskWatchFd(), in_) || in_.size() >= expected_.size()) {
      ok = in_ == expected_;
      done = true;
      close();
    }
  }
  bool done = false, ok = false;

 private:
  std::string expected_;
};

int listenOnLoopback(sockaddr_in& addr) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(fd, 16) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    std::perror("listen");
    return -1;
  }
  return fd;
}

}  // namespace

int main() {
  sockaddr_in addr;
  const int listenFd = listenOnLoopback(addr);
  if (listenFd < 0) return 1;
  auto listener = std::make_shared<Listener>(listenFd);
  std::printf("echo service on 127.0.0.1:%d\n", ntohs(addr.sin_port));

  std::vector<std::shared_ptr<Client>> clients;
  for (int id = 0; id < 3; ++id) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int small = 16384;  // small buffers, so that clients and service wait for writability
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      std::perror("connect");
      return 1;
    }
    clients.push_back(std::make_shared<Client>(id, fd, 20000 * (id + 1)));
  }

  // The loop runs in slices until every client is done and every served
  // connection has closed, or ten seconds have passed.
  auto finished = [&] {
    for (const auto& c : clients)
      if (!c->done) return false;
    return listener->open.empty();
  };
  const double end = Tolan::time() + 10;
  while (!finished() && Tolan::time() < end) Tolan::Platform::doEventLoop(0.01);

  bool ok = finished();
  for (const auto& c : clients) {
    std::printf("%-8s %s, %u read runs, %u write runs\n", c->taskName().c_str(),
                c->ok ? "echo complete" : "FAILED", c->taskRunCountReadable(), c->taskRunCountWritable());
    ok = ok && c->ok;
  }
  std::printf("listener %u reads; %s\n", listener->taskRunCountReadable(), ok ? "all lines echoed" : "FAILED");
  return ok ? 0 : 1;
}
