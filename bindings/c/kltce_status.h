// The C interface's error reporting: a failed call records its message for kltce_last_error() on
// the calling thread, and every entry point runs its body through kltce::guarded(), which turns
// whatever the body throws (std::bad_alloc included) into a status, so that no exception crosses
// into the host's language.
#pragma once

#include <new>
#include <string>

#include <kltce/kltce.h>

namespace kltce::capi {

// Records the message as the calling thread's last error and returns the status.
kltce_status fail(kltce_status status, std::string message);

// The status of running body(), which returns a kltce_status: what it returns, or the status of
// what it throws (KLTCE_ERROR_OUT_OF_MEMORY for std::bad_alloc, KLTCE_ERROR_INTERNAL otherwise).
template <class Body>
kltce_status guarded(const char* call, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return fail(KLTCE_ERROR_OUT_OF_MEMORY, std::string(call) + ": out of memory");
  } catch (const std::exception& e) {
    try {
      return fail(KLTCE_ERROR_INTERNAL, std::string(call) + ": " + e.what());
    } catch (...) {
      return KLTCE_ERROR_INTERNAL;
    }
  } catch (...) {
    try {
      return fail(KLTCE_ERROR_INTERNAL, std::string(call) + ": unknown failure");
    } catch (...) {
      return KLTCE_ERROR_INTERNAL;
    }
  }
}

}  // namespace kltce::capi
