#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace qs::sandbox {

// A TCP relay on loopback that stands in for a network with a round-trip time:
// every chunk read from one side is written to the other half a round trip
// later, in each direction, and a client's first bytes wait one more round trip
// for the TCP handshake they would have needed. Bytes, their order and a
// half-close (EOF) pass through unchanged. Plain user-space code, so it needs
// no privileges and no traffic shaping from the kernel.
//
// Thread: one relay thread of its own between start() and stop(); the
// counters may be read from any thread.
class DelayRelay {
 public:
  // Relays 127.0.0.1:<port()> to 127.0.0.1:`targetPort`.
  DelayRelay(int targetPort, std::chrono::milliseconds roundTrip);
  ~DelayRelay();
  DelayRelay(const DelayRelay&) = delete;
  DelayRelay& operator=(const DelayRelay&) = delete;

  // Binds an ephemeral loopback port and starts the relay thread; returns
  // the error text on failure.
  std::optional<std::string> start();
  // Stops the thread and closes every connection. Idempotent.
  void stop();

  int port() const { return port_; }
  std::chrono::milliseconds roundTrip() const { return roundTrip_; }
  // Client connections accepted so far.
  std::size_t connections() const { return connections_.load(); }
  // Round trips the traffic needed, counted from the order of the chunks,
  // whatever the time each side took: one per TCP handshake, one per flight
  // of the client (its first, and each that follows data it received). A TLS
  // 1.3 handshake with one request and its answer is 3.
  std::size_t roundTrips() const { return roundTrips_.load(); }
  // Bytes delivered towards the target (up) and towards the clients (down).
  std::size_t bytesUp() const { return bytesUp_.load(); }
  std::size_t bytesDown() const { return bytesDown_.load(); }

 private:
  void run();

  const int targetPort_;
  const std::chrono::milliseconds roundTrip_;
  int port_ = 0;
  int listenFd_ = -1;
  int wakeFds_[2] = {-1, -1};  // stop() writes, the relay thread polls
  std::thread thread_;
  std::atomic<std::size_t> connections_{0};
  std::atomic<std::size_t> roundTrips_{0};
  std::atomic<std::size_t> bytesUp_{0};
  std::atomic<std::size_t> bytesDown_{0};
};

}  // namespace qs::sandbox
