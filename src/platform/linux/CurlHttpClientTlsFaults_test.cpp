// The libcurl client against loopback TLS servers that misbehave: each fault
// must end as an error, with no body and no response delivered, and no byte
// of the request may reach the server. (A refused certificate may still see
// the TLS handshake finish: the peer is checked right after it.)
#include <openssl/ssl.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "FakePlatform.h"
#include "SandboxProcess.h"
#include "TlsFaultServer.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs::testing {
namespace {

using Fault = TlsFaultServer::Fault;

struct Result {
  std::optional<std::string> body;
  std::optional<HttpResponse> response;
  std::optional<HttpError> error;
};

// One request through a new client that trusts the server's test authority;
// waits, bounded, for its completion.
std::optional<Result> fetch(const TlsFaultServer& server, const std::string& url,
                            const std::shared_ptr<Log>& log) {
  std::mutex mutex;
  std::condition_variable done;
  std::optional<Result> result;
  auto client = makeCurlHttpClient(server.caFile(), log);
  client->send(HttpRequest{"GET", url, {}, {}, 5.0}, [&](auto body, auto response, auto error) {
    std::lock_guard lock(mutex);
    result = Result{std::move(body), std::move(response), std::move(error)};
    done.notify_all();
  });
  {
    std::unique_lock lock(mutex);
    done.wait_for(lock, std::chrono::seconds(20), [&] { return result.has_value(); });
  }
  client.reset();  // joins the client's loop: no completion can run after this
  std::lock_guard lock(mutex);
  return result;
}

// Whether a client that admits TLS 1.0 completes a handshake on `port`, and
// at which version: shows the TLS 1.0 server really serves that version.
std::string tls10Handshake(int port) {
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_security_level(ctx, 0);
  SSL_CTX_set_cipher_list(ctx, "DEFAULT:@SECLEVEL=0");
  SSL_CTX_set_min_proto_version(ctx, TLS1_VERSION);
  std::string version;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    SSL* ssl = SSL_new(ctx);
    SSL_set_fd(ssl, fd);
    if (SSL_connect(ssl) == 1) version = SSL_get_version(ssl);
    SSL_free(ssl);
  }
  close(fd);
  SSL_CTX_free(ctx);
  return version;
}

TEST(CurlHttpClientTlsFaults, EveryFaultEndsAsAnErrorWithNothingDelivered) {
  TempDir dir;
  auto log = std::make_shared<fake::FakeLog>();

  // The control: the same set-up with nothing wrong gets its answer.
  {
    TlsFaultServer good(Fault::Good, dir.path());
    auto result = fetch(good, good.url(), log);
    ASSERT_TRUE(result.has_value());
    ASSERT_FALSE(result->error.has_value()) << result->error->localizedDescription;
    EXPECT_EQ(result->body, "ok");
    EXPECT_EQ(good.answered(), 1);
  }

  for (Fault fault : {Fault::Expired, Fault::WrongHost, Fault::UnknownAuthority, Fault::Tls10Only,
                      Fault::CloseInHandshake}) {
    SCOPED_TRACE(static_cast<int>(fault));
    TlsFaultServer server(fault, dir.path());
    auto result = fetch(server, server.url(), log);
    ASSERT_TRUE(result.has_value()) << "no completion within 20 s";
    ASSERT_TRUE(result->error.has_value());
    EXPECT_EQ(result->error->code, HttpError::Code::SecureConnectionFailed)
        << result->error->localizedDescription;
    EXPECT_FALSE(result->body.has_value());
    EXPECT_FALSE(result->response.has_value());
    EXPECT_GE(server.connections(), 1);
    EXPECT_EQ(server.requests(), 0) << "a request went to a peer that was not verified";
    if (fault == Fault::Tls10Only) {
      EXPECT_EQ(tls10Handshake(server.port()), "TLSv1");
    }
  }
}

}  // namespace
}  // namespace qs::testing
