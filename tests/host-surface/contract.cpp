// What a host may name: every operation and property of QSManager's host
// contract. Compiled against the public headers alone; it must compile.
#include <quarrystone/QSManager.h>

#include <memory>

void hostContract(qs::Platform platform, qs::DeploymentSettings settings,
                  std::shared_ptr<qs::QSManagerDelegate> delegate, qs::ViewController& view,
                  qs::URLRequest& request, qs::URLSessionConfiguration& configuration) {
  qs::QSManager::installPlatform(platform, settings);
  qs::QSManager::installSettings(settings);
  qs::QSManager& shared = qs::QSManager::sharedInstance();
  std::shared_ptr<qs::QSManager> own = qs::QSManager::create(platform, settings);
  qs::QSWebViewDelegate& webViewDelegate = *own;
  webViewDelegate.captchaSuccess();

  shared.setDelegate(delegate);
  (void)shared.delegate();
  shared.startWith("app-id");
  shared.wakeup();
  shared.managerWithCustomBlockCode(429);
  shared.setBlockCode(shared.blockCode());
  shared.setForceBlock(!shared.forceBlock());
  shared.setForceCaptcha(!shared.forceCaptcha());
  (void)shared.appId();
  (void)shared.collectorUrl();

  std::shared_ptr<qs::QSBlockResponse> response = shared.checkError(qs::Value::object());
  shared.handleBlockResponse(response, view);
  shared.showBlockResponse(response, view);
  struct PageObserver final : qs::QSBlockPageObserver {
    void blockPageEnded(qs::QSBlockPageEnd) override {}
  };
  if (std::shared_ptr<qs::QSBlockPage> page =
          shared.handleBlockResponse(response, view, std::make_shared<PageObserver>())) {
    page->close();
  }
  shared.removeHeadersListener(shared.addHeadersListener([](const qs::HeaderMap&) {}));
  shared.reportError("incident");
  shared.setCustomParameters(qs::Value{{"plan", "gold"}});
  (void)shared.httpHeaders();
  shared.setHeadersForRequest(request);
  shared.setHeadersForConfiguration(configuration);
  shared.forceBlockToken();
  shared.forceCaptchaToken();
  shared.resetDebugSettings();
}
