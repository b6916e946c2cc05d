#include "DelayRelay.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace qs::sandbox {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A plain loopback TCP socket, closed with the object.
struct Socket {
  int fd = -1;
  explicit Socket(int f = -1) : fd(f) {}
  Socket(Socket&& o) noexcept : fd(o.fd) { o.fd = -1; }
  ~Socket() {
    if (fd >= 0) close(fd);
  }
  void sendAll(const std::string& bytes) const {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      ASSERT_GT(n, 0);
      sent += static_cast<std::size_t>(n);
    }
  }
  // Up to `max` bytes, or "" at EOF.
  std::string receive(std::size_t max = 65536) const {
    std::string buffer(max, '\0');
    const ssize_t n = recv(fd, buffer.data(), max, 0);
    buffer.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return buffer;
  }
};

Socket listenLoopback(int& port) {
  Socket s(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof addr;
  EXPECT_EQ(bind(s.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  EXPECT_EQ(listen(s.fd, 4), 0);
  getsockname(s.fd, reinterpret_cast<sockaddr*>(&addr), &length);
  port = ntohs(addr.sin_port);
  return s;
}

Socket connectLoopback(int port) {
  Socket s(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(s.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  return s;
}

// Only lower bounds on time: a loaded machine can make the relay later, never
// earlier than the delay it stands for.
TEST(DelayRelayTest, HoldsEachDirectionForItsShareOfTheRoundTrip) {
  const milliseconds rtt(60);
  int targetPort = 0;
  Socket listener = listenLoopback(targetPort);
  DelayRelay relay(targetPort, rtt);
  ASSERT_FALSE(relay.start());

  Socket client = connectLoopback(relay.port());
  Socket server(accept(listener.fd, nullptr, nullptr));
  ASSERT_GE(server.fd, 0);

  // The first bytes wait for the handshake too: one and a half round trips.
  auto sent = Clock::now();
  client.sendAll("hello");
  EXPECT_EQ(server.receive(), "hello");
  EXPECT_GE(Clock::now() - sent, rtt + rtt / 2);

  sent = Clock::now();
  server.sendAll("answer");
  EXPECT_EQ(client.receive(), "answer");
  EXPECT_GE(Clock::now() - sent, rtt / 2);

  sent = Clock::now();
  client.sendAll("again");
  EXPECT_EQ(server.receive(), "again");
  EXPECT_GE(Clock::now() - sent, rtt / 2);

  // The handshake and one per client flight that follows what it received;
  // more chunks of either side before the next answer add none.
  EXPECT_EQ(relay.roundTrips(), 3u);
  server.sendAll("one");
  EXPECT_EQ(client.receive(), "one");
  server.sendAll("two");
  EXPECT_EQ(client.receive(), "two");
  client.sendAll("more");
  client.sendAll("extra");
  std::string atServer;
  while (atServer.size() < 9) atServer += server.receive();
  EXPECT_EQ(atServer, "moreextra");
  EXPECT_EQ(relay.roundTrips(), 4u);
  EXPECT_EQ(relay.connections(), 1u);
}

}  // namespace
}  // namespace qs::sandbox
