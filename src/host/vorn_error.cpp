#include "host/vorn_error.h"

namespace vorn::tesk {

std::string_view wireString(VornErrorCode code) {
  switch (code) {
    case VornErrorCode::cancelled: return "CANCELLED";
    case VornErrorCode::unknown: return "UNKNOWN";
    case VornErrorCode::invalidArgument: return "INVALID_ARGUMENT";
    case VornErrorCode::deadlineExceeded: return "DEADLINE_EXCEEDED";
    case VornErrorCode::notFound: return "NOT_FOUND";
    case VornErrorCode::alreadyExists: return "ALREADY_EXISTS";
    case VornErrorCode::permissionDenied: return "PERMISSION_DENIED";
    case VornErrorCode::resourceExhausted: return "RESOURCE_EXHAUSTED";
    case VornErrorCode::failedPrecondition: return "FAILED_PRECONDITION";
    case VornErrorCode::aborted: return "ABORTED";
    case VornErrorCode::outOfRange: return "OUT_OF_RANGE";
    case VornErrorCode::unimplemented: return "UNIMPLEMENTED";
    case VornErrorCode::internalError: return "INTERNAL";
    case VornErrorCode::unavailable: return "UNAVAILABLE";
    case VornErrorCode::dataLoss: return "DATA_LOSS";
    case VornErrorCode::unauthenticated: return "UNAUTHENTICATED";
  }
  return "UNKNOWN";
}

boost::json::object VornError::toJSONObject() const {
  boost::json::object object;
  object["code"] = wireString(code);
  object["message"] = message;
  if (externalCode) object["externalCode"] = *externalCode;
  if (traceId) object["traceId"] = *traceId;
  if (details) {
    boost::json::object detailObject;
    for (const auto& [key, value] : *details) detailObject[key] = value;
    object["details"] = std::move(detailObject);
  }
  if (type) object["type"] = *type;
  if (instance) object["instance"] = *instance;
  return object;
}

}  // namespace vorn::tesk
