#include "DelayRelay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <list>
#include <vector>

namespace qs::sandbox {
namespace {

using Clock = std::chrono::steady_clock;

// Bytes read from one side, to be written to the other at `due`; an empty
// chunk with `eof` set stands for the sender's half-close.
struct Chunk {
  Clock::time_point due;
  std::string bytes;
  bool eof = false;
};

// One direction of a connection: what was read from `from` and waits for `to`.
struct Direction {
  int from = -1;
  int to = -1;
  std::deque<Chunk> queue;
  std::size_t written = 0;  // of the front chunk
  bool readClosed = false;
  bool sawData = false;
};

struct Link {
  Direction up;    // client -> target
  Direction down;  // target -> client
  bool broken = false;
  bool answered = false;  // target data reached the client since its last flight
};

void setNonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

void setNoDelay(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

int connectLoopback(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Reads what `d.from` has into the queue, due after `hold`. Returns the bytes
// read (0 at EOF or when there was nothing), nullopt when the connection is
// broken (a read error other than "try again").
std::optional<std::size_t> readInto(Direction& d, Clock::duration hold) {
  char buffer[64 * 1024];
  const ssize_t n = recv(d.from, buffer, sizeof buffer, 0);
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
    return std::nullopt;
  }
  // Keep the order: a chunk is never due before the one ahead of it.
  Clock::time_point due = Clock::now() + hold;
  if (!d.queue.empty()) due = std::max(due, d.queue.back().due);
  if (n == 0) {
    d.readClosed = true;
    d.queue.push_back({due, {}, true});
  } else {
    d.sawData = true;
    d.queue.push_back({due, std::string(buffer, static_cast<std::size_t>(n)), false});
  }
  return static_cast<std::size_t>(n);
}

// Writes the due chunks of `d`; adds the bytes written to `counter` and sets
// `delivered` when a chunk of data went out whole. Returns false when the
// receiving side is gone.
bool writeDue(Direction& d, std::atomic<std::size_t>& counter, bool& delivered) {
  const auto now = Clock::now();
  while (!d.queue.empty() && d.queue.front().due <= now) {
    Chunk& chunk = d.queue.front();
    if (chunk.eof) {
      shutdown(d.to, SHUT_WR);
      d.queue.pop_front();
      continue;
    }
    const ssize_t n =
        send(d.to, chunk.bytes.data() + d.written, chunk.bytes.size() - d.written, MSG_NOSIGNAL);
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    counter += static_cast<std::size_t>(n);
    d.written += static_cast<std::size_t>(n);
    if (d.written < chunk.bytes.size()) return true;  // the socket is full
    d.written = 0;
    d.queue.pop_front();
    delivered = true;
  }
  return true;
}

bool finished(const Direction& d) { return d.readClosed && d.queue.empty(); }

}  // namespace

DelayRelay::DelayRelay(int targetPort, std::chrono::milliseconds roundTrip)
    : targetPort_(targetPort), roundTrip_(roundTrip) {}

DelayRelay::~DelayRelay() { stop(); }

std::optional<std::string> DelayRelay::start() {
  listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) return std::string("socket: ") + std::strerror(errno);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof addr;
  if (bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listenFd_, 64) != 0 ||
      getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &length) != 0 ||
      pipe2(wakeFds_, O_CLOEXEC) != 0) {
    return std::string("listen: ") + std::strerror(errno);
  }
  port_ = ntohs(addr.sin_port);
  setNonBlocking(listenFd_);
  thread_ = std::thread([this] { run(); });
  return std::nullopt;
}

void DelayRelay::stop() {
  if (thread_.joinable()) {
    const char byte = 0;
    (void)!write(wakeFds_[1], &byte, 1);
    thread_.join();
  }
  for (int* fd : {&listenFd_, &wakeFds_[0], &wakeFds_[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

void DelayRelay::run() {
  const Clock::duration half = roundTrip_ / 2;
  std::list<Link> links;
  std::vector<pollfd> fds;
  for (;;) {
    // Wait for input, for room to write a due chunk, or for the next due time.
    fds.clear();
    fds.push_back({wakeFds_[0], POLLIN, 0});
    fds.push_back({listenFd_, POLLIN, 0});
    std::optional<Clock::time_point> next;
    for (Link& link : links) {
      for (Direction* d : {&link.up, &link.down}) {
        short events = d->readClosed ? 0 : POLLIN;
        if (!d->queue.empty()) {
          if (d->queue.front().due <= Clock::now()) {
            events |= POLLOUT;
          } else {
            next = std::min(next.value_or(Clock::time_point::max()), d->queue.front().due);
          }
        }
        // Read and write interest of one direction go on separate entries:
        // `from` of one direction is `to` of the other.
        fds.push_back({d->from, static_cast<short>(events & POLLIN), 0});
        fds.push_back({d->to, static_cast<short>(events & POLLOUT), 0});
      }
    }
    int timeout = -1;
    if (next) {
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
      timeout = static_cast<int>(std::max<long long>(0, wait.count()));
    }
    if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) break;
    if (fds[0].revents != 0) break;

    // Entries 2.. follow the links in order, four per link.
    std::size_t i = 2;
    for (Link& link : links) {
      for (Direction* d : {&link.up, &link.down}) {
        const bool readable = (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
        // An error on either socket ends the link (and keeps poll from spinning).
        if ((fds[i].revents | fds[i + 1].revents) & POLLERR) link.broken = true;
        i += 2;
        if (readable && !d->readClosed) {
          // The client's first bytes also wait out the TCP handshake: one
          // round trip before they could have been sent at all.
          const bool first = d == &link.up && !d->sawData;
          const auto bytes = readInto(*d, first ? roundTrip_ + half : half);
          if (!bytes) {
            link.broken = true;
          } else if (*bytes > 0 && d == &link.up) {
            // A round trip is the TCP handshake, then each flight of the
            // client that answers data the target sent it: a client flight
            // spread over several chunks, or the target's data that crosses
            // it, counts once.
            if (first) {
              roundTrips_ += 2;
            } else if (link.answered) {
              ++roundTrips_;
            }
            link.answered = false;
          }
        }
      }
      bool ignored = false;
      if (!link.broken && !writeDue(link.up, bytesUp_, ignored)) link.broken = true;
      if (!link.broken && !writeDue(link.down, bytesDown_, link.answered)) link.broken = true;
    }
    // New links go last, after the entries polled for the ones before them.
    if (fds[1].revents & POLLIN) {
      for (int client; (client = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        const int target = connectLoopback(targetPort_);
        if (target < 0) {
          close(client);
          continue;
        }
        ++connections_;
        for (int fd : {client, target}) {
          setNonBlocking(fd);
          setNoDelay(fd);
        }
        Link& link = links.emplace_back();
        link.up.from = link.down.to = client;
        link.up.to = link.down.from = target;
      }
    }

    for (auto it = links.begin(); it != links.end();) {
      if (it->broken || (finished(it->up) && finished(it->down))) {
        close(it->up.from);
        close(it->up.to);
        it = links.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (Link& link : links) {
    close(link.up.from);
    close(link.up.to);
  }
}

}  // namespace qs::sandbox
