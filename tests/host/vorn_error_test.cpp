#include "host/vorn_error.h"

#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <utility>

namespace vorn::tesk {
namespace {

TEST(VornErrorTest, CodesTravelInUpperSnakeCase) {
  const std::pair<VornErrorCode, const char*> codes[] = {
      {VornErrorCode::cancelled, "CANCELLED"},
      {VornErrorCode::unknown, "UNKNOWN"},
      {VornErrorCode::invalidArgument, "INVALID_ARGUMENT"},
      {VornErrorCode::deadlineExceeded, "DEADLINE_EXCEEDED"},
      {VornErrorCode::notFound, "NOT_FOUND"},
      {VornErrorCode::alreadyExists, "ALREADY_EXISTS"},
      {VornErrorCode::permissionDenied, "PERMISSION_DENIED"},
      {VornErrorCode::resourceExhausted, "RESOURCE_EXHAUSTED"},
      {VornErrorCode::failedPrecondition, "FAILED_PRECONDITION"},
      {VornErrorCode::aborted, "ABORTED"},
      {VornErrorCode::outOfRange, "OUT_OF_RANGE"},
      {VornErrorCode::unimplemented, "UNIMPLEMENTED"},
      {VornErrorCode::internalError, "INTERNAL"},
      {VornErrorCode::unavailable, "UNAVAILABLE"},
      {VornErrorCode::dataLoss, "DATA_LOSS"},
      {VornErrorCode::unauthenticated, "UNAUTHENTICATED"},
  };
  for (const auto& [code, wire] : codes) EXPECT_EQ(wireString(code), wire);
}

TEST(VornErrorTest, JSONObjectHasOptionalMembersOnlyWhenPresentAndInFieldOrder) {
  const VornError minimal{VornErrorCode::internalError, "Boom \"quoted\""};
  EXPECT_EQ(boost::json::serialize(minimal.toJSONObject()),
            R"({"code":"INTERNAL","message":"Boom \"quoted\""})");

  VornError full{VornErrorCode::notFound, "missing"};
  // Set in reverse so that the output order cannot come from the order of assignment.
  full.instance = "/purchases/7";
  full.type = "urn:store";
  full.details = {{{"z", "last"}, {"a", "first"}}};
  full.traceId = "trace-1";
  full.externalCode = "SKErrorDomain.2";
  EXPECT_EQ(boost::json::serialize(full.toJSONObject()),
            R"({"code":"NOT_FOUND","message":"missing","externalCode":"SKErrorDomain.2",)"
            R"("traceId":"trace-1","details":{"a":"first","z":"last"},"type":"urn:store",)"
            R"("instance":"/purchases/7"})");

  VornError some{VornErrorCode::cancelled, ""};
  some.details = std::map<std::string, std::string>{};
  some.instance = "";
  EXPECT_EQ(boost::json::serialize(some.toJSONObject()),
            R"({"code":"CANCELLED","message":"","details":{},"instance":""})");
}

}  // namespace
}  // namespace vorn::tesk
