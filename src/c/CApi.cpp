// The C interface's entry points (include/quarrystone.h): each checks its
// arguments and calls the public C++ API inside guarded().

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "CHandles.h"
#include "CallGuard.h"
#include "quarrystone.h"
#include "quarrystone/platform/Log.h"

namespace qs::c {
namespace {

thread_local std::string lastError;

// A string the caller frees with qs_free.
char* copyOut(std::string_view text) {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

std::string text(const char* value, const char* name) {
  require(value, name);
  return value;
}

// Log lines for the host's sink. Called from any thread, as the sink is.
class CallbackLog final : public Log {
 public:
  CallbackLog(qs_log_fn sink, void* userData) : sink_(sink), userData_(userData) {}
  void write(LogLevel level, std::string_view line) override {
    const std::string terminated(line);
    sink_(userData_, static_cast<qs_log_level_t>(level), terminated.c_str());
  }

 private:
  const qs_log_fn sink_;
  void* const userData_;
};

Platform makePlatform(const DeploymentSettings& settings, const qs_platform_options_t* options) {
  Platform platform =
      makeLinuxPlatform(settings, options ? options->options : LinuxPlatformOptions{});
  if (options && options->ui) platform.ui = options->ui(platform.store);
  return platform;
}

const char* field(const qs_block_response_t* response,
                  const std::string& (QSBlockResponse::*get)() const) {
  const char* result = "";
  guarded("qs_block_response accessor", [&] {
    require(response, "response");
    result = ((*response->response).*get)().c_str();
    return QS_OK;
  });
  return result;
}

}  // namespace

qs_status_t fail(const char* function, qs_status_t status, const char* message) noexcept {
  try {
    lastError = std::string(function) + ": " + message;
  } catch (...) {
    lastError.clear();  // no memory for the message; the status still tells
  }
  return status;
}

void CallbackDelegate::set(qs_headers_fn ready, qs_headers_fn changed, void* userData) {
  std::lock_guard lock(mutex_);
  ready_ = ready;
  newHeaders_ = changed;
  userData_ = userData;
}

void CallbackDelegate::managerReady(const HeaderMap& headers) { call(true, headers); }
void CallbackDelegate::newHeaders(const HeaderMap& headers) { call(false, headers); }

void CallbackDelegate::call(bool ready, const HeaderMap& headers) {
  std::lock_guard lock(mutex_);
  const qs_headers_fn function = ready ? ready_ : newHeaders_;
  if (function == nullptr) return;
  std::vector<qs_header_t> list;
  list.reserve(headers.size() + 1);
  for (const auto& [name, value] : headers) list.push_back({name.c_str(), value.c_str()});
  list.push_back({nullptr, nullptr});
  // A callback written in C++ must not throw into the library's thread.
  try {
    function(userData_, list.data(), headers.size());
  } catch (...) {
  }
}

}  // namespace qs::c

using qs::c::guarded;
using qs::c::require;

extern "C" {

uint32_t qs_api_version(void) {
  return (static_cast<uint32_t>(QS_API_VERSION_MAJOR) << 16) | QS_API_VERSION_MINOR;
}

const char* qs_last_error_message(void) { return qs::c::lastError.c_str(); }

void qs_free(char* text) { std::free(text); }

qs_status_t qs_settings_new(qs_settings_t** out) {
  return guarded(__func__, [&] {
    require(out, "out");
    *out = nullptr;
    *out = new qs_settings_t{qs::DeploymentSettings::fromEnvironment()};
    return QS_OK;
  });
}

void qs_settings_free(qs_settings_t* settings) { delete settings; }

qs_status_t qs_settings_set_collector_host_pattern(qs_settings_t* settings, const char* pattern) {
  return guarded(__func__, [&] {
    require(settings, "settings");
    settings->settings.collectorHostPattern = qs::c::text(pattern, "pattern");
    return QS_OK;
  });
}

qs_status_t qs_settings_set_web_domain(qs_settings_t* settings, const char* domain) {
  return guarded(__func__, [&] {
    require(settings, "settings");
    settings->settings.webDomain = qs::c::text(domain, "domain");
    return QS_OK;
  });
}

qs_status_t qs_settings_set_store_path(qs_settings_t* settings, const char* path) {
  return guarded(__func__, [&] {
    require(settings, "settings");
    settings->settings.storePath = qs::c::text(path, "path");
    return QS_OK;
  });
}

qs_status_t qs_settings_set_ca_file(qs_settings_t* settings, const char* path) {
  return guarded(__func__, [&] {
    require(settings, "settings");
    settings->settings.caFile = qs::c::text(path, "path");
    return QS_OK;
  });
}

qs_status_t qs_settings_collector_url(const qs_settings_t* settings, const char* app_id,
                                      char** out) {
  return guarded(__func__, [&] {
    require(out, "out");
    *out = nullptr;
    require(settings, "settings");
    *out = qs::c::copyOut(settings->settings.collectorUrl(qs::c::text(app_id, "app_id")));
    return QS_OK;
  });
}

qs_status_t qs_platform_options_new(qs_platform_options_t** out) {
  return guarded(__func__, [&] {
    require(out, "out");
    *out = nullptr;
    *out = new qs_platform_options_t{};
    return QS_OK;
  });
}

void qs_platform_options_free(qs_platform_options_t* options) { delete options; }

qs_status_t qs_platform_options_set_bundle(qs_platform_options_t* options, const char* identifier,
                                           const char* name, const char* version) {
  return guarded(__func__, [&] {
    require(options, "options");
    auto& bundle = options->options.bundle;
    if (identifier) bundle.identifier = identifier;
    if (name) bundle.name = name;
    if (version) bundle.shortVersion = version;
    return QS_OK;
  });
}

qs_status_t qs_platform_options_set_screen(qs_platform_options_t* options, double width,
                                           double height, double scale) {
  return guarded(__func__, [&] {
    require(options, "options");
    if (!(width > 0 && height > 0 && scale > 0)) {
      throw qs::c::CallError(QS_ERROR_INVALID_ARGUMENT, "width, height and scale must be > 0");
    }
    options->options.screen = qs::ScreenInfo{width, height, scale};
    return QS_OK;
  });
}

qs_status_t qs_platform_options_set_main_context(qs_platform_options_t* options,
                                                 void* gmain_context) {
  return guarded(__func__, [&] {
    require(options, "options");
    options->options.hostContext = static_cast<GMainContext*>(gmain_context);
    return QS_OK;
  });
}

qs_status_t qs_platform_options_set_log(qs_platform_options_t* options, qs_log_fn sink,
                                        void* user_data, qs_log_level_t level) {
  return guarded(__func__, [&] {
    require(options, "options");
    // A C caller may pass any int: read it as one before trusting the enum.
    int raw = 0;
    static_assert(sizeof raw == sizeof level);
    std::memcpy(&raw, &level, sizeof raw);
    if (raw < QS_LOG_DEBUG || raw > QS_LOG_ERROR) {
      throw qs::c::CallError(QS_ERROR_INVALID_ARGUMENT, "unknown log level");
    }
    options->options.log =
        sink ? std::make_shared<qs::c::CallbackLog>(sink, user_data) : std::shared_ptr<qs::Log>();
    options->options.logLevel = static_cast<qs::LogLevel>(raw);
    return QS_OK;
  });
}

qs_status_t qs_manager_create(const qs_settings_t* settings, const qs_platform_options_t* options,
                              qs_manager_t** out) {
  return guarded(__func__, [&] {
    require(out, "out");
    *out = nullptr;
    const auto deployment =
        settings ? settings->settings : qs::DeploymentSettings::fromEnvironment();
    auto handle = std::make_unique<qs_manager_t>();
    handle->owned = qs::QSManager::create(qs::c::makePlatform(deployment, options), deployment);
    handle->manager = handle->owned.get();
    *out = handle.release();
    return QS_OK;
  });
}

qs_status_t qs_manager_shared(const qs_settings_t* settings, const qs_platform_options_t* options,
                              qs_manager_t** out) {
  return guarded(__func__, [&] {
    require(out, "out");
    *out = nullptr;
    auto handle = std::make_unique<qs_manager_t>();
    if (settings || options) {
      const auto deployment =
          settings ? settings->settings : qs::DeploymentSettings::fromEnvironment();
      if (!qs::QSManager::installPlatform(qs::c::makePlatform(deployment, options), deployment)) {
        throw qs::c::CallError(QS_ERROR_ALREADY_EXISTS,
                               "the shared manager exists already; pass NULL settings and "
                               "options to reach it");
      }
    }
    handle->manager = &qs::QSManager::sharedInstance();
    *out = handle.release();
    return QS_OK;
  });
}

void qs_manager_destroy(qs_manager_t* manager) {
  if (manager == nullptr) return;
  manager->delegate->clear();
  delete manager;
}

qs_status_t qs_manager_set_callbacks(qs_manager_t* manager, qs_headers_fn ready,
                                     qs_headers_fn new_headers, void* user_data) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    if (ready == nullptr) {
      manager->delegate->clear();
      manager->manager->setDelegate({});
      return QS_OK;
    }
    manager->delegate->set(ready, new_headers, user_data);
    manager->manager->setDelegate(manager->delegate);
    return QS_OK;
  });
}

qs_status_t qs_manager_start(qs_manager_t* manager, const char* app_id) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    manager->manager->startWith(qs::c::text(app_id, "app_id"));
    return QS_OK;
  });
}

qs_status_t qs_manager_wakeup(qs_manager_t* manager) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    manager->manager->wakeup();
    return QS_OK;
  });
}

qs_status_t qs_manager_headers(const qs_manager_t* manager, qs_header_t** out, size_t* count) {
  return guarded(__func__, [&] {
    require(out, "out");
    *out = nullptr;
    require(manager, "manager");
    const qs::HeaderMap headers = manager->manager->httpHeaders();
    // One block: the array, then the strings it points into.
    std::size_t size = (headers.size() + 1) * sizeof(qs_header_t);
    for (const auto& [name, value] : headers) size += name.size() + value.size() + 2;
    auto* block = static_cast<char*>(std::malloc(size));
    if (block == nullptr) throw std::bad_alloc();
    auto* list = reinterpret_cast<qs_header_t*>(block);
    char* strings = block + (headers.size() + 1) * sizeof(qs_header_t);
    auto put = [&](const std::string& s) {
      std::memcpy(strings, s.c_str(), s.size() + 1);
      const char* at = strings;
      strings += s.size() + 1;
      return at;
    };
    std::size_t i = 0;
    for (const auto& [name, value] : headers) {
      list[i].name = put(name);
      list[i].value = put(value);
      ++i;
    }
    list[i] = {nullptr, nullptr};
    if (count) *count = headers.size();
    *out = list;
    return QS_OK;
  });
}

void qs_headers_free(qs_header_t* headers) { std::free(headers); }

qs_status_t qs_manager_set_custom_parameters(qs_manager_t* manager, const char* json) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    const qs::Value parameters = qs::Value::parse(qs::c::text(json, "json"));
    if (!parameters.is_object()) {
      throw qs::c::CallError(QS_ERROR_INVALID_ARGUMENT, "the parameters must be a JSON object");
    }
    manager->manager->setCustomParameters(parameters);
    return QS_OK;
  });
}

qs_status_t qs_manager_block_code(const qs_manager_t* manager, int64_t* out) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    require(out, "out");
    *out = manager->manager->blockCode();
    return QS_OK;
  });
}

qs_status_t qs_manager_set_block_code(qs_manager_t* manager, int64_t code) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    manager->manager->managerWithCustomBlockCode(code);
    return QS_OK;
  });
}

qs_status_t qs_manager_collector_url(const qs_manager_t* manager, char** out) {
  return guarded(__func__, [&] {
    require(out, "out");
    *out = nullptr;
    require(manager, "manager");
    *out = qs::c::copyOut(manager->manager->collectorUrl());
    return QS_OK;
  });
}

qs_status_t qs_manager_force_block_token(qs_manager_t* manager) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    manager->manager->forceBlockToken();
    return QS_OK;
  });
}

qs_status_t qs_manager_force_captcha_token(qs_manager_t* manager) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    manager->manager->forceCaptchaToken();
    return QS_OK;
  });
}

qs_status_t qs_manager_reset_debug_settings(qs_manager_t* manager) {
  return guarded(__func__, [&] {
    require(manager, "manager");
    manager->manager->resetDebugSettings();
    return QS_OK;
  });
}

qs_status_t qs_manager_check_error(qs_manager_t* manager, const char* json,
                                   qs_block_response_t** out) {
  return guarded(__func__, [&] {
    require(out, "out");
    *out = nullptr;
    require(manager, "manager");
    const qs::Value body = qs::Value::parse(qs::c::text(json, "json"));
    *out = new qs_block_response_t{manager->manager->checkError(body)};
    return QS_OK;
  });
}

void qs_block_response_free(qs_block_response_t* response) { delete response; }

qs_block_response_type_t qs_block_response_type(const qs_block_response_t* response) {
  auto type = QS_BLOCK_RESPONSE_FOREIGN;
  guarded(__func__, [&] {
    require(response, "response");
    type = static_cast<qs_block_response_type_t>(response->response->type());
    return QS_OK;
  });
  return type;
}

const char* qs_block_response_uuid(const qs_block_response_t* response) {
  return qs::c::field(response, &qs::QSBlockResponse::uuid);
}
const char* qs_block_response_vid(const qs_block_response_t* response) {
  return qs::c::field(response, &qs::QSBlockResponse::vid);
}
const char* qs_block_response_app_id(const qs_block_response_t* response) {
  return qs::c::field(response, &qs::QSBlockResponse::appId);
}
const char* qs_block_response_page(const qs_block_response_t* response) {
  return qs::c::field(response, &qs::QSBlockResponse::pageHtml);
}

}  // extern "C"
