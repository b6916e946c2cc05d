// The libcurl HTTP client. One network loop (a GLib loop on a thread the
// library runs: the library's main loop, or one of the client's own whose
// thread ends when idle) drives every transfer through a single multi
// handle, so connections, DNS answers and TLS set-up are shared between
// requests, and calls each completion on that loop's thread.
#include <curl/curl.h>
#include <fmt/format.h>
#include <glib-unix.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pthread.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <deque>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "GlibContext.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs {

namespace {

constexpr long kMaxRedirects = 5;
constexpr long kMaxIdleConnectionSeconds = 2;
// A network loop of the client's own ends its thread after this long without
// a transfer; kept-alive connections are not reused after that anyway.
constexpr std::chrono::milliseconds kNetworkThreadIdle{2000};
// Transfers run at once; later requests wait as plain requests (no easy
// handle, no socket) until one finishes. An easy handle costs tens of KB
// and a connection a descriptor, so a backlog must not hold one each. Ample
// for any exchange pattern of the library: requests never wait for an
// earlier one unless a flood has this many in flight.
constexpr std::size_t kMaxTransfersInFlight = 32;

HttpError transportError(HttpError::Code code) {
  switch (code) {
    case HttpError::Code::TimedOut:
      return {code, "The request timed out."};
    case HttpError::Code::CannotConnect:
      return {code, "Could not connect to the server."};
    case HttpError::Code::CannotFindHost:
      return {code, "A server with the specified hostname could not be found."};
    case HttpError::Code::NotConnected:
      return {code, "The Internet connection appears to be offline."};
    case HttpError::Code::SecureConnectionFailed:
      return {code,
              "An SSL error has occurred and a secure connection to the server cannot be made."};
    case HttpError::Code::Cancelled:
      return {code, "cancelled"};
    case HttpError::Code::BadURL:
      return {code, "unsupported URL"};
    case HttpError::Code::Other:
      break;
  }
  return {HttpError::Code::Other, "An unknown error occurred."};
}

HttpError otherError(std::string description) {
  return {HttpError::Code::Other, std::move(description)};
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && equalsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

// An HTTP token: what a method or a header name may consist of.
bool isToken(std::string_view text) {
  static constexpr std::string_view kSeparators = "()<>@,;:\\\"/[]?={} \t";
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    auto u = static_cast<unsigned char>(c);
    return u > 32 && u < 127 && kSeparators.find(c) == std::string_view::npos;
  });
}

bool isHeaderValue(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  return text;
}

HttpError errorFor(CURLcode code, long osErrno, const char* curlText) {
  using C = HttpError::Code;
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return transportError(C::TimedOut);
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return transportError(C::CannotFindHost);
    case CURLE_COULDNT_CONNECT:
      if (osErrno == ENETUNREACH || osErrno == ENETDOWN) return transportError(C::NotConnected);
      return transportError(C::CannotConnect);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_USE_SSL_FAILED:
      return transportError(C::SecureConnectionFailed);
    case CURLE_URL_MALFORMAT:
      return {C::BadURL, "bad URL"};
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_LOGIN_DENIED:  // a user name in the URL
      return transportError(C::BadURL);
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return otherError("The network connection was lost.");
    case CURLE_TOO_MANY_REDIRECTS:
      return otherError("too many HTTP redirects");
    case CURLE_BAD_CONTENT_ENCODING:
      return otherError("cannot decode raw data");
    default:
      break;
  }
  std::string detail = curlText && *curlText ? curlText : curl_easy_strerror(code);
  return otherError(fmt::format("An unknown error occurred. ({})", detail));
}

// Certificates trusted in addition to the system store. Read-only once
// loaded, so the network loop may use them without a lock.
class ExtraTrust {
 public:
  ExtraTrust(const std::string& path, Log& log) {
    if (path.empty()) return;
    BIO* bio = BIO_new_file(path.c_str(), "r");
    if (!bio) {
      log.write(LogLevel::Error, fmt::format("HttpClientCurl: cannot read trust file {}", path));
      ERR_clear_error();
      return;
    }
    while (X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) certs_.push_back(cert);
    BIO_free(bio);
    ERR_clear_error();  // reading stops at the end of the file with an error
    if (certs_.empty()) {
      log.write(LogLevel::Error,
                fmt::format("HttpClientCurl: no certificate in trust file {}", path));
    }
  }
  ~ExtraTrust() {
    for (X509* cert : certs_) X509_free(cert);
  }
  ExtraTrust(const ExtraTrust&) = delete;
  ExtraTrust& operator=(const ExtraTrust&) = delete;

  bool empty() const { return certs_.empty(); }

  // Called by libcurl with each new connection's TLS context. libcurl loads
  // the system store into the same certificate store (on this version after
  // the call), so both are trusted.
  static CURLcode addToContext(CURL*, void* sslContext, void* self) {
    X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
    for (X509* cert : static_cast<const ExtraTrust*>(self)->certs_) {
      X509_STORE_add_cert(store, cert);  // a certificate already there is refused harmlessly
    }
    ERR_clear_error();
    return CURLE_OK;
  }

 private:
  std::vector<X509*> certs_;
};

// The system's hashed trust directory ("<subject hash>.<n>" entries), when
// libcurl was built with one and it is populated; empty otherwise.
// OpenSSL 3 takes 40-60 ms to parse the whole system bundle, and libcurl
// parses it for every new connection: most of the time a start-up exchange
// takes. The hashed directory holds the same authorities and is read lazily,
// only the few files a chain needs, so where it exists it replaces the bundle.
std::string hashedTrustDirectory() {
  const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
  if (info == nullptr || info->age < CURLVERSION_SEVENTH || info->capath == nullptr) return {};
  const auto isHashName = [](const std::string& name) {
    if (name.size() < 10 || name[8] != '.') return false;
    for (std::size_t i = 0; i < name.size(); ++i) {
      const auto c = static_cast<unsigned char>(name[i]);
      if (i == 8) continue;
      if (i < 8 ? !std::isxdigit(c) : !std::isdigit(c)) return false;
    }
    return true;
  };
  std::error_code ec;
  for (std::filesystem::directory_iterator it(info->capath, ec), end; !ec && it != end;
       it.increment(ec)) {
    if (isHashName(it->path().filename().string())) return info->capath;
  }
  return {};
}

struct Job {
  HttpRequest request;
  HttpClient::Completion completion;
  // The request's time limit counts from here, waiting included.
  std::chrono::steady_clock::time_point submitted = std::chrono::steady_clock::now();
};

// One request in flight: the easy handle and everything it points into.
struct Transfer {
  Transfer() = default;
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    if (headers) curl_slist_free_all(headers);
  }

  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  std::string method;
  std::string requestBody;
  std::string body;
  std::size_t maxBodyBytes = 0;
  HttpResponse response;
  bool bodyRefused = false;
  // Requests libcurl has started for this transfer (one per redirect hop),
  // and whether an answer began since the last one.
  int requestsStarted = 0;
  bool answerStarted = false;
  bool resendRefused = false;
  HttpClient::Completion completion;
  char errorText[CURL_ERROR_SIZE] = {};
};

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const std::size_t bytes = size * count;
  try {
    if (bytes > transfer->maxBodyBytes - transfer->body.size()) throw std::length_error("body");
    transfer->body.append(data, bytes);
    return bytes;
  } catch (...) {
    transfer->bodyRefused = true;
    return 0;  // makes libcurl stop the transfer
  }
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const std::size_t bytes = size * count;
  std::string_view line(data, bytes);
  try {
    if (startsWithIgnoringCase(line, "HTTP/")) {
      transfer->answerStarted = true;
      transfer->response.headers.clear();  // a new response: interim or after a redirect
    } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
      transfer->response.headers.emplace_back(std::string(trim(line.substr(0, colon))),
                                              std::string(trim(line.substr(colon + 1))));
    }
  } catch (...) {
    return 0;
  }
  return bytes;
}

// libcurl: a request is about to go out. After a redirect answer it is the
// next hop. Without an answer since the last one, libcurl is resending the
// same request because a reused connection closed unanswered; the server may
// have acted on it already, so the transfer fails instead.
int onRequestStart(void* user, char*, char*, int, int) {
  auto* transfer = static_cast<Transfer*>(user);
  if (transfer->requestsStarted > 0 && !transfer->answerStarted) {
    transfer->resendRefused = true;
    return CURL_PREREQFUNC_ABORT;
  }
  ++transfer->requestsStarted;
  transfer->answerStarted = false;
  return CURL_PREREQFUNC_OK;
}

void deliver(const HttpClient::Completion& completion, Log& log, std::optional<std::string> body,
             std::optional<HttpResponse> response, std::optional<HttpError> error) {
  try {
    completion(std::move(body), std::move(response), std::move(error));
  } catch (const std::exception& e) {
    log.write(LogLevel::Error, fmt::format("HttpClientCurl: completion threw: {}", e.what()));
  } catch (...) {
    log.write(LogLevel::Error, "HttpClientCurl: completion threw");
  }
}

// The state the network loop shares with the client. Kept apart from the
// client so that a completion may drop the last reference to the client.
//
// libcurl runs in its event-driven form: it tells which sockets to watch and
// when to wake it (onSocket, onTimer), and those become GLib sources on the
// network loop's context. With nothing in flight only the sockets of idle
// kept-alive connections remain attached; nothing wakes the loop.
class CurlEngine : public std::enable_shared_from_this<CurlEngine> {
 public:
  CurlEngine(const std::string& caFile, std::shared_ptr<Log> log, std::shared_ptr<MainLoop> network)
      : log_(std::move(log)),
        trust_(caFile, *log_),
        trustDirectory_(hashedTrustDirectory()),
        network_(std::move(network)),
        context_(glibContextOf(*network_)) {}

  CurlEngine(const CurlEngine&) = delete;
  CurlEngine& operator=(const CurlEngine&) = delete;

  ~CurlEngine() { joinWarmUp(); }

  // Kept because it is measured: the first TLS context a process makes costs
  // OpenSSL about 1.3 ms of one-time set-up (later ones 0.15 ms), which the
  // first exchange would otherwise wait for between connecting and greeting.
  // Paid on this short-lived thread as soon as the client exists, start-up
  // (startWith to managerReady over loopback) had a median of 3.3 ms; paid on
  // the network loop, which is busy at start-up, 4.6 ms. The network loop
  // joins it after the first completion (it has long finished by then), and
  // shutdown joins it otherwise, so it never outlives the client.
  void warmUp() {
    std::lock_guard lock(mutex_);
    try {
      warmUp_ = std::thread([] {
        pthread_setname_np(pthread_self(), "qs-tls-warmup");
        SSL_CTX_free(SSL_CTX_new(TLS_client_method()));
      });
    } catch (const std::system_error&) {
    }
  }

  // Any thread. A request refused outright (client shutting down) is
  // completed at once on the caller's thread.
  void submit(Job job) {
    bool wake = false;
    {
      std::lock_guard lock(mutex_);
      if (!closed_) {
        incoming_.push_back(std::move(job));
        wake = !drainQueued_;
        drainQueued_ = true;
        if (!wake) return;
      }
    }
    if (wake) {
      network_->dispatchAsync([self = shared_from_this()] { self->drain(); });
      return;
    }
    deliver(job.completion, *log_, std::nullopt, std::nullopt,
            transportError(HttpError::Code::Cancelled));
  }

  // Fails whatever is in flight with a cancelled error and releases libcurl.
  // Waits for that unless called on the network loop itself (a completion
  // releasing the client), where it happens right after the current call.
  void shutdown() {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      stopping_ = true;
    }
    joinWarmUp();
    if (network_->isMainThread()) {
      network_->dispatchAsync([self = shared_from_this()] { self->teardown(); });
    } else {
      runOnLoopAndWait(*network_, [this] { teardown(); });
    }
  }

 private:
  using ActiveMap = std::unordered_map<CURL*, std::unique_ptr<Transfer>>;

  void joinWarmUp() {
    std::thread warmUp;
    {
      std::lock_guard lock(mutex_);
      warmUp = std::move(warmUp_);
    }
    if (warmUp.joinable()) warmUp.join();
  }

  // Network loop: starts the requests that arrived, as far as there is room.
  void drain() {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;  // teardown() answers them
      drainQueued_ = false;
    }
    if (!multi_ && !startMulti()) {
      std::deque<Job> jobs;
      {
        std::lock_guard lock(mutex_);
        jobs.swap(incoming_);
      }
      for (auto& job : jobs) {
        deliver(job.completion, *log_, std::nullopt, std::nullopt,
                otherError("The request could not be started."));
      }
      return;
    }
    const std::size_t before = active_.size();
    startWaiting();
    if (active_.size() > before) {
      // A new transfer asks for an immediate time-out to get going; taking it
      // here saves a turn of the loop before its connection is opened.
      int running = 0;
      curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
    }
    collectFinished();
  }

  // Network loop: starts waiting requests while fewer than
  // kMaxTransfersInFlight run. One that has already waited out its time
  // limit fails as timed out without being sent; the others get what is left.
  void startWaiting() {
    while (active_.size() < kMaxTransfersInFlight) {
      std::optional<Job> job;
      {
        std::lock_guard lock(mutex_);
        if (stopping_ || incoming_.empty()) return;
        job.emplace(std::move(incoming_.front()));
        incoming_.pop_front();
      }
      double& limit = job->request.timeoutSeconds;
      if (std::isfinite(limit) && limit > 0) {
        const std::chrono::duration<double> waited =
            std::chrono::steady_clock::now() - job->submitted;
        if (waited.count() >= limit) {
          deliver(job->completion, *log_, std::nullopt, std::nullopt,
                  transportError(HttpError::Code::TimedOut));
          continue;
        }
        limit -= waited.count();
      }
      begin(std::move(*job));
    }
  }

  bool startMulti() {
    multi_ = curl_multi_init();
    if (!multi_) return false;
    curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlEngine::onSocket);
    curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlEngine::onTimer);
    curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
    return true;
  }

  // libcurl: watch `fd` for `what`, or stop watching it. Only attaches and
  // destroys sources; libcurl is driven from the sources' callbacks.
  static int onSocket(CURL*, curl_socket_t fd, int what, void* self, void*) {
    auto* engine = static_cast<CurlEngine*>(self);
    engine->unwatch(fd);
    if (what == CURL_POLL_REMOVE) return 0;
    int condition = 0;
    if (what == CURL_POLL_IN || what == CURL_POLL_INOUT) condition |= G_IO_IN;
    if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT) condition |= G_IO_OUT;
    GSource* source = g_unix_fd_source_new(fd, static_cast<GIOCondition>(condition));
    // A file-descriptor source calls a GUnixFDSourceFunc through the generic
    // callback slot; the detour through void(*)() is GLib's own idiom.
    auto* ready = reinterpret_cast<void (*)()>(&CurlEngine::onReady);
    g_source_set_callback(source, reinterpret_cast<GSourceFunc>(ready), engine, nullptr);
    g_source_attach(source, engine->context_);
    engine->sockets_[fd] = source;
    return 0;
  }

  void unwatch(curl_socket_t fd) {
    auto it = sockets_.find(fd);
    if (it == sockets_.end()) return;
    g_source_destroy(it->second);
    g_source_unref(it->second);
    sockets_.erase(it);
  }

  static gboolean onReady(gint fd, GIOCondition condition, gpointer self) {
    auto* engine = static_cast<CurlEngine*>(self);
    int mask = 0;
    if (condition & G_IO_IN) mask |= CURL_CSELECT_IN;
    if (condition & G_IO_OUT) mask |= CURL_CSELECT_OUT;
    if (condition & (G_IO_ERR | G_IO_HUP | G_IO_NVAL)) mask |= CURL_CSELECT_ERR;
    int running = 0;
    curl_multi_socket_action(engine->multi_, fd, mask, &running);
    engine->collectFinished();
    return G_SOURCE_CONTINUE;  // libcurl removes the watch through onSocket when done
  }

  // libcurl: call back in `millis` (0: at once; -1: no call wanted).
  static int onTimer(CURLM*, long millis, void* self) {
    auto* engine = static_cast<CurlEngine*>(self);
    engine->cancelTimer();
    if (millis < 0) return 0;
    engine->timer_ = g_timeout_source_new(static_cast<guint>(std::min(millis, long{INT_MAX})));
    g_source_set_callback(engine->timer_, &CurlEngine::onTimeout, engine, nullptr);
    g_source_attach(engine->timer_, engine->context_);
    return 0;
  }

  void cancelTimer() {
    if (timer_ == nullptr) return;
    g_source_destroy(timer_);
    g_source_unref(timer_);
    timer_ = nullptr;
  }

  static gboolean onTimeout(gpointer self) {
    auto* engine = static_cast<CurlEngine*>(self);
    // This source ends here; libcurl may ask for the next one right away.
    g_source_unref(engine->timer_);
    engine->timer_ = nullptr;
    int running = 0;
    curl_multi_socket_action(engine->multi_, CURL_SOCKET_TIMEOUT, 0, &running);
    engine->collectFinished();
    return G_SOURCE_REMOVE;
  }

  void begin(Job job) {
    auto transfer = std::make_unique<Transfer>();
    transfer->completion = std::move(job.completion);
    if (auto error = configure(*transfer, std::move(job.request))) {
      deliver(transfer->completion, *log_, std::nullopt, std::nullopt, std::move(error));
      return;
    }
    if (curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK) {
      deliver(transfer->completion, *log_, std::nullopt, std::nullopt,
              otherError("The request could not be started."));
      return;
    }
    CURL* easy = transfer->easy;
    active_.emplace(easy, std::move(transfer));
  }

  // Sets the easy handle up; an error when the request cannot be sent at all.
  std::optional<HttpError> configure(Transfer& t, HttpRequest request) {
    if (!startsWithIgnoringCase(request.url, "http://") &&
        !startsWithIgnoringCase(request.url, "https://")) {
      return transportError(HttpError::Code::BadURL);
    }
    if (!isToken(request.method)) return otherError("The request method is not valid.");
    t.easy = curl_easy_init();
    if (!t.easy) return otherError("The request could not be started.");
    CURL* e = t.easy;

    curl_easy_setopt(e, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    // A redirect never leads to plain HTTP, where the request and the answer
    // could be read and changed on the way; HTTPS hops are verified below.
    curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_MAXREDIRS, kMaxRedirects);
    // Nothing of the host's identity goes out: no cookie engine (never
    // enabled), no credentials from a netrc file or the URL, none carried to
    // another host.
    curl_easy_setopt(e, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
    curl_easy_setopt(e, CURLOPT_DISALLOW_USERNAME_IN_URL, 1L);
    curl_easy_setopt(e, CURLOPT_UNRESTRICTED_AUTH, 0L);
    curl_easy_setopt(e, CURLOPT_PREREQFUNCTION, onRequestStart);
    // An idle kept-alive connection is reused only briefly (long enough for
    // an exchange's challenge round). A server may close an idle connection
    // at any moment after its own keep-alive time (5 s is common); a request
    // written into one that is closing would fail, and it is never resent.
    curl_easy_setopt(e, CURLOPT_MAXAGE_CONN, kMaxIdleConnectionSeconds);
    curl_easy_setopt(e, CURLOPT_PREREQDATA, &t);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorText);
    curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
    // An announced length over the limit is refused before the body is read;
    // onBody holds any other body to it.
    t.maxBodyBytes = request.maxResponseBytes;
    curl_easy_setopt(e, CURLOPT_MAXFILESIZE_LARGE,
                     static_cast<curl_off_t>(std::min<std::size_t>(t.maxBodyBytes, LLONG_MAX)));

    // A whole-request limit; a nonsensical one falls back to the usual 5 s.
    double seconds = request.timeoutSeconds;
    if (!std::isfinite(seconds) || seconds <= 0) seconds = 5.0;
    const long millis = static_cast<long>(std::min(seconds * 1000.0, double{INT_MAX}));
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, std::max(millis, 1L));
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, std::max(millis, 1L));

    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!trustDirectory_.empty()) {
      curl_easy_setopt(e, CURLOPT_CAINFO, nullptr);
      curl_easy_setopt(e, CURLOPT_CAPATH, trustDirectory_.c_str());
    }
    if (!trust_.empty()) {
      // A fresh store per connection: a cached one would be shared between
      // connections and could replace the one the extra certificates went into.
      curl_easy_setopt(e, CURLOPT_CA_CACHE_TIMEOUT, 0L);
      curl_easy_setopt(e, CURLOPT_SSL_CTX_FUNCTION, &ExtraTrust::addToContext);
      curl_easy_setopt(e, CURLOPT_SSL_CTX_DATA, &trust_);
    }

    t.method = std::move(request.method);
    const bool hasBody = request.body.has_value();
    if (hasBody) t.requestBody = std::move(*request.body);
    if (t.method == "GET" && !hasBody) {
      curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    } else if (t.method == "HEAD" && !hasBody) {
      curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    } else {
      if (hasBody || t.method == "POST") {
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(t.requestBody.size()));
        curl_easy_setopt(e, CURLOPT_POSTFIELDS, t.requestBody.c_str());
      }
      if (t.method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, t.method.c_str());
    }

    bool hasCacheControl = false, hasPragma = false, hasExpect = false;
    for (const auto& [name, value] : request.headers) {
      if (!isToken(name) || !isHeaderValue(value)) {
        log_->write(LogLevel::Warning,
                    fmt::format("HttpClientCurl: header not sent, invalid: {}", name));
        continue;
      }
      hasCacheControl |= equalsIgnoringCase(name, "Cache-Control");
      hasPragma |= equalsIgnoringCase(name, "Pragma");
      hasExpect |= equalsIgnoringCase(name, "Expect");
      // "Name;" is libcurl's way of sending a header with an empty value.
      appendHeader(t, value.empty() ? name + ";" : name + ": " + value);
    }
    // Never answered from a cache, neither here nor by anything on the way.
    if (!hasCacheControl) appendHeader(t, "Cache-Control: no-cache");
    if (!hasPragma) appendHeader(t, "Pragma: no-cache");
    // Larger bodies would otherwise wait for a "100 Continue" first.
    if (!hasExpect) appendHeader(t, "Expect:");
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, t.headers);
    return std::nullopt;
  }

  static void appendHeader(Transfer& t, const std::string& line) {
    if (curl_slist* grown = curl_slist_append(t.headers, line.c_str())) t.headers = grown;
  }

  // Network loop: completes every finished transfer. A completion may send
  // again or release the client; both only queue work for later.
  void collectFinished() {
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      auto it = active_.find(message->easy_handle);
      if (it == active_.end()) continue;
      const CURLcode result = message->data.result;  // read before the handle is removed
      std::unique_ptr<Transfer> transfer = std::move(it->second);
      active_.erase(it);
      curl_multi_remove_handle(multi_, transfer->easy);
      finish(*transfer, result);
      if (!warmUpJoined_) {
        joinWarmUp();
        warmUpJoined_ = true;
      }
    }
    startWaiting();
    markBusy(!active_.empty());
  }

  // Network loop: a loop of the client's own keeps its thread while
  // transfers run (they may wait seconds for a socket) and lets it go after
  // the last. Requests still queued are dispatches, which the loop counts.
  void markBusy(bool busy) {
    if (busy == busy_) return;
    busy_ = busy;
    setGlibLoopBusy(*network_, busy);
  }

  void finish(Transfer& t, CURLcode result) {
    if (result != CURLE_OK) {
      long osErrno = 0;
      curl_easy_getinfo(t.easy, CURLINFO_OS_ERRNO, &osErrno);
      HttpError error = errorFor(result, osErrno, t.errorText);
      if (t.bodyRefused || result == CURLE_FILESIZE_EXCEEDED) {
        error = otherError("The response is too large.");
      } else if (t.resendRefused) {
        error = otherError("The network connection was lost.");
      } else if (result == CURLE_UNSUPPORTED_PROTOCOL && t.answerStarted) {
        // A redirect to anything but HTTPS.
        error = {HttpError::Code::SecureConnectionFailed,
                 "The server redirected to an address that is not secure."};
      }
      deliver(t.completion, *log_, std::nullopt, std::nullopt, std::move(error));
      return;
    }
    long status = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
    char* effectiveUrl = nullptr;
    curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &effectiveUrl);
    t.response.statusCode = status;
    t.response.url = effectiveUrl ? effectiveUrl : "";
    deliver(t.completion, *log_, std::move(t.body), std::move(t.response), std::nullopt);
  }

  // Network loop, once: cancels everything in flight or queued, then
  // releases libcurl and every source it asked for.
  void teardown() {
    for (auto& [easy, transfer] : active_) {
      curl_multi_remove_handle(multi_, easy);
      deliver(transfer->completion, *log_, std::nullopt, std::nullopt,
              transportError(HttpError::Code::Cancelled));
    }
    active_.clear();
    // Completions may send again; those requests are cancelled too, until
    // nothing more arrives and later sends are refused at once.
    for (;;) {
      std::deque<Job> jobs;
      {
        std::lock_guard lock(mutex_);
        if (incoming_.empty()) {
          closed_ = true;
          break;
        }
        jobs.swap(incoming_);
      }
      for (auto& job : jobs) {
        deliver(job.completion, *log_, std::nullopt, std::nullopt,
                transportError(HttpError::Code::Cancelled));
      }
    }
    if (multi_) curl_multi_cleanup(multi_);
    multi_ = nullptr;
    cancelTimer();
    while (!sockets_.empty()) unwatch(sockets_.begin()->first);
    markBusy(false);
  }

  std::shared_ptr<Log> log_;
  const ExtraTrust trust_;
  const std::string trustDirectory_;  // empty: libcurl's default bundle and directory
  const std::shared_ptr<MainLoop> network_;
  GMainContext* const context_;  // network_'s

  std::mutex mutex_;
  std::deque<Job> incoming_;  // guarded by mutex_
  bool drainQueued_ = false;  // guarded by mutex_
  bool stopping_ = false;     // guarded by mutex_
  bool closed_ = false;       // guarded by mutex_
  std::thread warmUp_;        // guarded by mutex_

  // Network loop only.
  CURLM* multi_ = nullptr;
  ActiveMap active_;
  std::unordered_map<curl_socket_t, GSource*> sockets_;
  GSource* timer_ = nullptr;
  bool warmUpJoined_ = false;
  bool busy_ = false;
};

// Owned by the platform; the engine outlives it while the network loop winds
// it down.
class CurlHttpClient final : public HttpClient {
 public:
  explicit CurlHttpClient(std::shared_ptr<CurlEngine> engine) : engine_(std::move(engine)) {}
  ~CurlHttpClient() override { engine_->shutdown(); }
  CurlHttpClient(const CurlHttpClient&) = delete;
  CurlHttpClient& operator=(const CurlHttpClient&) = delete;

  void send(HttpRequest request, Completion completion) override {
    engine_->submit(Job{std::move(request), std::move(completion)});
  }

 private:
  std::shared_ptr<CurlEngine> engine_;
};

}  // namespace

std::shared_ptr<HttpClient> makeCurlHttpClient(const std::string& caFile, std::shared_ptr<Log> log,
                                               std::shared_ptr<MainLoop> network) {
  static std::once_flag once;
  std::call_once(once, [] {
    // The process-wide manager lives until the process ends, so its network
    // loop may still be inside a TLS handshake while exit handlers run.
    // OpenSSL must therefore not free its global state at exit.
    OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    curl_global_init(CURL_GLOBAL_DEFAULT);
  });
  if (!log) log = makeStderrLog();
  if (!network || glibContextOf(*network) == nullptr) {
    network = makeOnDemandGlibLoop(kNetworkThreadIdle);
  }
  auto engine = std::make_shared<CurlEngine>(caFile, std::move(log), std::move(network));
  engine->warmUp();
  return std::make_shared<CurlHttpClient>(std::move(engine));
}

}  // namespace qs
