#include "bindings/c/kltce_status.h"

#include <cstring>
#include <type_traits>

namespace kltce::capi {

namespace {

thread_local std::string lastError;

}  // namespace

kltce_status fail(kltce_status status, std::string message) {
  try {
    lastError = std::move(message);
  } catch (...) {
    // No room for the message: the status still tells what happened.
    lastError.clear();
  }
  return status;
}

}  // namespace kltce::capi

extern "C" const char* kltce_last_error(void) { return kltce::capi::lastError.c_str(); }

extern "C" const char* kltce_status_name(kltce_status status) {
  // Any number may come from C: read it as one (an enumeration's value outside its range is
  // undefined in C++).
  std::underlying_type_t<kltce_status> number;
  std::memcpy(&number, &status, sizeof number);
  switch (number) {
    case KLTCE_OK: return "KLTCE_OK";
    case KLTCE_ERROR_NULL_HANDLE: return "KLTCE_ERROR_NULL_HANDLE";
    case KLTCE_ERROR_INVALID_ARGUMENT: return "KLTCE_ERROR_INVALID_ARGUMENT";
    case KLTCE_ERROR_INVALID_JSON: return "KLTCE_ERROR_INVALID_JSON";
    case KLTCE_ERROR_INVALID_UTF8: return "KLTCE_ERROR_INVALID_UTF8";
    case KLTCE_ERROR_WRONG_SHAPE: return "KLTCE_ERROR_WRONG_SHAPE";
    case KLTCE_ERROR_CLOSED: return "KLTCE_ERROR_CLOSED";
    case KLTCE_ERROR_OUT_OF_MEMORY: return "KLTCE_ERROR_OUT_OF_MEMORY";
    case KLTCE_ERROR_BLOCKED: return "KLTCE_ERROR_BLOCKED";
    case KLTCE_ERROR_STORE: return "KLTCE_ERROR_STORE";
    case KLTCE_ERROR_INTERNAL: return "KLTCE_ERROR_INTERNAL";
  }
  return "KLTCE_UNKNOWN";
}
