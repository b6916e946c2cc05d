#include "collector/CollectorRequest.h"

#include <span>

#include <fmt/format.h>

#include "crypto/SHA256_CBC.h"
#include "quarrystone/Constants.h"
#include "quarrystone/QSFieldsMapping.h"
#include "quarrystone/QSManagerDelegate.h"

namespace qs {

const char* const QS_JS_CLIENT_TAG = "v2.51";

CollectorRequest::CollectorRequest(std::weak_ptr<const ManagerView> manager,
                                   SharedServices services)
    : manager_(std::move(manager)), services_(std::move(services)) {}

void CollectorRequest::setDelegate(std::weak_ptr<CollectorRequestDelegate> delegate) {
  delegate_ = std::move(delegate);
}

void CollectorRequest::sendRequestToServer(const Value& activity) {
  auto manager = manager_.lock();
  if (!manager) return;
  std::string type;
  if (auto t = activity.find("t"); t != activity.end() && t->is_string())
    type = t->get<std::string>();

  const std::string appId = manager->appId();
  const std::string payload = payloadValueToBase64(activity, appId);
  const std::string form = toFormSubmitPostString(prepareBodyWith(payload, appId));

  auto utils = services_.utils;
  auto operation = std::make_shared<QSPostOperation>(
      *services_.platform.http, services_.network->userAgent(), manager->collectorUrl(), form, type,
      [utils] { utils->startTimerForCollectorRequest(); });
  operation->setDelegate(shared_from_this());
  if (!services_.network->addNetworkOperation(std::move(operation))) {
    const std::uint64_t dropped = droppedActivities_.fetch_add(1) + 1;
    // The first drop since the last report is a warning; the rest of a flood
    // only traces, so a host's log does not flood with it.
    log(fmt::format(
            "CollectorRequest - {} requests pending, activity {} dropped ({} dropped since the "
            "last error report)",
            QSNetworkManager::kMaxPendingOperations, type, dropped),
        dropped == 1 ? LogLevel::Warning : LogLevel::Debug);
  }
}

std::string CollectorRequest::payloadValueToBase64(const Value& activity,
                                                   const std::string& appId) {
  Value batch = Value::array();
  batch.push_back(activity);
  // Text that is not valid UTF-8 (from host parameters) is replaced rather
  // than refused, so the activity still goes out.
  const std::string json = batch.dump(-1, ' ', false, Value::error_handler_t::replace);
  return SHA256_CBC::encryptToBase64String(
      std::span(reinterpret_cast<const std::uint8_t*>(json.data()), json.size()), appId);
}

Value CollectorRequest::prepareBodyWith(const std::string& payload, const std::string& appId) {
  Value body = Value::object();
  body["uuid"] = services_.uuid->UUID();
  body["tag"] = QS_JS_CLIENT_TAG;
  body["en"] = "1";
  body["payload"] = payload;
  if (auto sid = services_.storage->getSid()) body["sid"] = *sid;
  if (auto vid = services_.storage->getVid()) body["vid"] = *vid;
  body["appId"] = appId;
  return body;
}

std::string CollectorRequest::toFormSubmitPostString(const Value& body) {
  std::string form;
  form.reserve(200);
  for (const auto& [key, value] : body.items()) {
    if (!form.empty()) form += '&';
    form += key;
    form += '=';
    form += value.is_string() ? value.get_ref<const std::string&>() : value.dump();
  }
  return form;
}

void CollectorRequest::taskCompletedWith(const std::optional<std::string>& data,
                                         const std::string& activityType,
                                         const std::optional<HttpResponse>& /*response*/,
                                         const std::optional<HttpError>& error) {
  services_.utils->stopTimerForCollectorRequest();
  if (error) {
    log(fmt::format("CollectorRequest received error: {}", error->localizedDescription),
        LogLevel::Warning);
    handleCollectorError(activityType);
    return;
  }
  std::string parseError;
  auto response = CollectorResponse::initWithCollectorResponse(
      QSUtils::dictionaryFromData(data), services_.platform.clock->now(), &parseError);
  if (!response) {
    // A malformed command stops the parse; nothing of it is used and the
    // exchange counts as failed.
    log(fmt::format("CollectorRequest received error: {}", parseError), LogLevel::Warning);
    handleCollectorError(activityType);
    return;
  }
  handleCollectorResponse(*response, activityType);
}

void CollectorRequest::handleCollectorResponse(const CollectorResponse& response,
                                               const std::string& /*activityType*/) {
  log("handleCollectorResponse <--");
  if (response.sid()) services_.storage->saveSid(response.sid());
  if (response.vid()) services_.storage->saveVid(response.vid());

  if (response.challenge()) {
    log("handleCollectorResponse --> handleChallenge");
    if (auto delegate = delegate_.lock()) delegate->handleChallenge(*response.challenge());
    return;
  }
  if (manager_.expired()) return;  // the manager is gone: arm nothing, tell no one
  auto delegate = delegate_.lock();
  if (response.cookie() && services_.utils->shouldSaveNewCookie(*response.cookie())) {
    log("handleCollectorResponse --> received new cookie");
    services_.storage->saveCookie(response.cookie());
    if (delegate) delegate->setTimerForTokenRenew(*response.cookie());
    notifyDelegateOnNewHeaders();
    return;
  }
  if (!didNotifyDelegateOnManagerReady_.load()) {
    if (delegate) delegate->setTimerForAppInitActivity();
    notifyDelegateOnNewHeaders();
  }
}

void CollectorRequest::handleCollectorError(const std::string& activityType) {
  log("handleCollectorError");
  setTimerForRetryOnError(activityType);
  if (!didNotifyDelegateOnManagerReady_.load()) notifyDelegateOnNewHeaders();
}

void CollectorRequest::setTimerForRetryOnError(const std::string& activityType) {
  if (manager_.expired()) return;
  auto delegate = delegate_.lock();
  if (!delegate) return;
  if (activityType == QSFM_APP_INIT || activityType == QSFM_APP_CHALLENGE) {
    delegate->setTimerForAppInitActivity();
  } else if (activityType == QSFM_APP_IDLE) {
    delegate->setTimerForAppIdleActivity(60.0);
  }
}

void CollectorRequest::notifyDelegateOnNewHeaders() {
  auto manager = manager_.lock();
  if (!manager) return;
  const HeaderMap headers = manager->httpHeaders();
  auto host = manager->delegate();
  // The flag flips before the host is called, so that completions racing on
  // other threads (or a restart from inside the callback) cannot announce
  // readiness a second time.
  const bool ready = didNotifyDelegateOnManagerReady_.exchange(true);
  if (!ready) services_.utils->stopTimerForManagerStart();
  // An exception from the host's own callback must not unwind the network thread.
  try {
    if (host && ready) {
      host->newHeaders(headers);
    } else if (host) {
      host->managerReady(headers);
    }
  } catch (const std::exception& e) {
    log(fmt::format("QSManagerDelegate callback threw: {}", e.what()), LogLevel::Error);
  } catch (...) {
    log("QSManagerDelegate callback threw", LogLevel::Error);
  }
  manager->headersAnnounced(headers);
}

}  // namespace qs
