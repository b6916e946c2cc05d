#pragma once

// What the C interface's opaque handles hold, shared by the core entry points
// (CApi.cpp), the GTK ones (gtk/CApiGtk.cpp) and the HTTP ones
// (http/CApiHttp.cpp).

#include <functional>
#include <memory>
#include <mutex>

#include "quarrystone.h"
#include "quarrystone/DeploymentSettings.h"
#include "quarrystone/LinuxPlatform.h"
#include "quarrystone/QSBlockResponse.h"
#include "quarrystone/QSManager.h"
#include "quarrystone/QSManagerDelegate.h"

namespace qs::c {

// Makes the UI for a platform from its store (GTK, when the host asked).
using UIFactory = std::function<std::shared_ptr<UI>(std::shared_ptr<KeyValueStore>)>;

// Hands the manager's delegate calls to the host's function pointers. The
// recursive mutex lets clear() wait for a callback in flight, while a
// callback that replaces the callbacks on its own thread does not deadlock.
class CallbackDelegate final : public QSManagerDelegate {
 public:
  void set(qs_headers_fn ready, qs_headers_fn changed, void* userData);
  void clear() { set(nullptr, nullptr, nullptr); }
  void managerReady(const HeaderMap& headers) override;
  void newHeaders(const HeaderMap& headers) override;

 private:
  void call(bool ready, const HeaderMap& headers);

  std::recursive_mutex mutex_;
  qs_headers_fn ready_ = nullptr;       // guarded by mutex_
  qs_headers_fn newHeaders_ = nullptr;  // guarded by mutex_
  void* userData_ = nullptr;            // guarded by mutex_
};

}  // namespace qs::c

struct qs_settings_t {
  qs::DeploymentSettings settings;
};

struct qs_platform_options_t {
  qs::LinuxPlatformOptions options;
  qs::c::UIFactory ui;  // empty: no UI, pages cannot be shown
};

struct qs_manager_t {
  std::shared_ptr<qs::QSManager> owned;  // null for the process-wide manager
  qs::QSManager* manager = nullptr;      // weak when owned is null; never null
  std::shared_ptr<qs::c::CallbackDelegate> delegate = std::make_shared<qs::c::CallbackDelegate>();
};

struct qs_block_response_t {
  std::shared_ptr<qs::QSBlockResponse> response;
};
