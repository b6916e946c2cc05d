#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "quarrystone/DeploymentSettings.h"
#include "quarrystone/Export.h"
#include "quarrystone/QSBlockPage.h"
#include "quarrystone/QSBlockResponse.h"
#include "quarrystone/QSManagerDelegate.h"
#include "quarrystone/QSWebViewDelegate.h"
#include "quarrystone/URLRequest.h"
#include "quarrystone/Value.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

// Thrown by startWith() when no delegate is set. The only exception the
// library ever lets reach the host.
class QS_EXPORT QSMissingDelegateException : public std::logic_error {
 public:
  QSMissingDelegateException();
  const char* name() const noexcept { return "QSManagerDelegate is missing"; }
  const char* reason() const noexcept { return what(); }
};

// The one object a host talks to. Use sharedInstance(); create() builds an
// independent manager on a given platform (tests, or hosts that want their
// own). Thread contract: callable from any thread; handleBlockResponse and
// showBlockResponse belong on the UI thread.
class QS_EXPORT QSManager : public QSWebViewDelegate,
                            public std::enable_shared_from_this<QSManager> {
 public:
  // The process-wide manager, created on first call (thread-safe) from the
  // installed platform, or the Linux platform when none was installed.
  static QSManager& sharedInstance();
  // Sets the platform and deployment settings that sharedInstance() will
  // use. Returns false (and changes nothing) once the instance exists.
  static bool installPlatform(Platform platform, DeploymentSettings settings);
  static bool installSettings(DeploymentSettings settings);

  // A manager with its own orchestrator, store access and queue. Caller-owned.
  static std::shared_ptr<QSManager> create(Platform platform, DeploymentSettings settings);

  ~QSManager() override;
  QSManager(const QSManager&) = delete;
  QSManager& operator=(const QSManager&) = delete;

  // Held weakly: the manager never keeps the delegate alive.
  void setDelegate(std::weak_ptr<QSManagerDelegate> delegate);
  std::shared_ptr<QSManagerDelegate> delegate() const;

  std::string appId() const;
  std::string collectorUrl() const;
  bool forceCaptcha() const;
  void setForceCaptcha(bool value);
  bool forceBlock() const;
  void setForceBlock(bool value);
  std::int64_t blockCode() const;
  void setBlockCode(std::int64_t code);

  // Starts (or restarts) the library for `appId`.
  // Throws QSMissingDelegateException when no delegate is set.
  void startWith(const std::string& appId);
  void wakeup();
  void managerWithCustomBlockCode(std::int64_t code);

  // Recognises the host backend's block or captcha body. Never null.
  std::shared_ptr<QSBlockResponse> checkError(const Value& response);
  // Shows the block or captcha page over `host`. A null or foreign response
  // is logged and reported to the service, never raised.
  void handleBlockResponse(const std::shared_ptr<QSBlockResponse>& response, ViewController& host);
  void showBlockResponse(const std::shared_ptr<QSBlockResponse>& response, ViewController& host);
  // handleBlockResponse for callers that wait for the page: `observer` hears
  // failed captcha answers and how the page ended, and the returned handle
  // closes it. Null (and the observer hears nothing) when no page was shown.
  std::shared_ptr<QSBlockPage> handleBlockResponse(const std::shared_ptr<QSBlockResponse>& response,
                                                   ViewController& host,
                                                   std::shared_ptr<QSBlockPageObserver> observer);
  void captchaSuccess() override;

  // Persists parameters merged into every app activity; an empty map clears.
  void setCustomParameters(const Value& parameters);

  // The headers the host attaches to its own requests. Cheap: reads the
  // cached cookie, never the disk. Safe to call from any thread.
  HeaderMap httpHeaders() const;
  // Further listeners for the headers, beside the delegate: each is called
  // after the delegate's managerReady or newHeaders, on the same thread and
  // with the same headers, also when no delegate is set. A listener should
  // capture what it uses weakly: a call already under way when it is removed
  // may still reach it. Any thread.
  using HeadersListener = std::function<void(const HeaderMap& headers)>;
  std::uint64_t addHeadersListener(HeadersListener listener);
  void removeHeadersListener(std::uint64_t id);
  // Sends `message` to the service's client error report (an incident the
  // host or an integration saw, e.g. a backend that blocks a solved request).
  void reportError(const std::string& message);
  void setHeadersForRequest(URLRequest& request) const;
  void setHeadersForConfiguration(URLSessionConfiguration& configuration) const;

  // Debug: ask the service to simulate a block or captcha.
  void forceBlockToken();
  void forceCaptchaToken();
  void resetDebugSettings();

 private:
  // The object graph and the state behind the accessors above live in Impl;
  // the library's own classes reach them through QSManagerInternals, which is
  // not installed.
  class Impl;
  friend class QSManagerInternals;
  std::shared_ptr<QSBlockPage> presentBlockResponse(
      const std::shared_ptr<QSBlockResponse>& response, ViewController& host,
      std::shared_ptr<QSBlockPageObserver> observer);

  QSManager(Platform platform, DeploymentSettings settings);

  const std::unique_ptr<Impl> impl_;
};

}  // namespace qs
