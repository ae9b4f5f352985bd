// The host framework's error record and status codes. Every failure the service reports
// is a VornError; its JSON object form is what error envelopes carry. Plain values.
#pragma once

#include <boost/json/object.hpp>

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vorn::tesk {

enum class VornErrorCode {
  cancelled,
  unknown,
  invalidArgument,
  deadlineExceeded,
  notFound,
  alreadyExists,
  permissionDenied,
  resourceExhausted,
  failedPrecondition,
  aborted,
  outOfRange,
  unimplemented,
  internalError,
  unavailable,
  dataLoss,
  unauthenticated,
};

// Upper snake case, as codes travel on the wire: "INVALID_ARGUMENT", "INTERNAL".
std::string_view wireString(VornErrorCode code);

struct VornError {
  VornErrorCode code = VornErrorCode::unknown;
  std::string message;
  std::optional<std::string> externalCode;
  std::optional<std::string> traceId;
  std::optional<std::map<std::string, std::string>> details;
  std::optional<std::string> type;
  std::optional<std::string> instance;

  // {"code":…,"message":…} followed by each optional member that is present, in the order
  // of the fields.
  boost::json::object toJSONObject() const;
};

}  // namespace vorn::tesk
