#pragma once

// The one place where C++ failures become C status codes: every entry point
// of the C interface runs its body through guarded(), so no exception leaves
// the library and every failure leaves a message for qs_last_error_message.

#include <exception>
#include <new>
#include <stdexcept>
#include <string>

#include "quarrystone.h"
#include "quarrystone/Export.h"
#include "quarrystone/QSManager.h"
#include "quarrystone/Value.h"

namespace qs::c {

// A failure the entry points raise themselves, with its status.
class CallError : public std::runtime_error {
 public:
  CallError(qs_status_t code, const std::string& message)
      : std::runtime_error(message), status(code) {}
  qs_status_t status;
};

// Records "<function>: <message>" as the calling thread's last error.
// Exported: the component libraries (GTK, HTTP) linked with the shared
// library must record into the same per-thread message that
// qs_last_error_message reads.
QS_EXPORT qs_status_t fail(const char* function, qs_status_t status, const char* message) noexcept;

// Throws QS_ERROR_NULL_ARGUMENT naming `name` when `pointer` is null.
template <typename T>
void require(const T* pointer, const char* name) {
  if (pointer == nullptr) {
    throw CallError(QS_ERROR_NULL_ARGUMENT, std::string(name) + " is NULL");
  }
}

// Runs `body` (which returns a qs_status_t) and converts whatever it throws.
template <typename Body>
qs_status_t guarded(const char* function, Body&& body) noexcept {
  try {
    return body();
  } catch (const CallError& e) {
    return fail(function, e.status, e.what());
  } catch (const QSMissingDelegateException&) {
    return fail(function, QS_ERROR_MISSING_CALLBACK,
                "no ready callback is set (qs_manager_set_callbacks)");
  } catch (const Value::parse_error& e) {
    return fail(function, QS_ERROR_BAD_JSON, e.what());
  } catch (const std::bad_alloc&) {
    return fail(function, QS_ERROR_OUT_OF_MEMORY, "out of memory");
  } catch (const std::exception& e) {
    return fail(function, QS_ERROR_INTERNAL, e.what());
  } catch (...) {
    return fail(function, QS_ERROR_INTERNAL, "unknown failure");
  }
}

}  // namespace qs::c
