#include "host/vorn_error.h"

#include <gtest/gtest.h>
#include <boost/json/serialize.hpp>

#include <string>

namespace vorn::tesk {
namespace {

using Code = VornErrorCode;

TEST(VornErrorTest, CodesTravelInUpperSnakeCase) {
  std::string wire;
  for (int code = 0; code <= static_cast<int>(Code::unauthenticated); ++code) {
    wire.append(wireString(static_cast<Code>(code))).push_back(' ');
  }
  EXPECT_EQ(wire,
            "CANCELLED UNKNOWN INVALID_ARGUMENT DEADLINE_EXCEEDED NOT_FOUND ALREADY_EXISTS "
            "PERMISSION_DENIED RESOURCE_EXHAUSTED FAILED_PRECONDITION ABORTED OUT_OF_RANGE "
            "UNIMPLEMENTED INTERNAL UNAVAILABLE DATA_LOSS UNAUTHENTICATED ");
}

TEST(VornErrorTest, JSONObjectHasOptionalMembersOnlyWhenPresentAndInFieldOrder) {
  VornError error{Code::internalError, "Boom \"quoted\""};
  EXPECT_EQ(boost::json::serialize(error.toJSONObject()),
            R"({"code":"INTERNAL","message":"Boom \"quoted\""})");
  // Set in reverse, so the order written cannot come from the order of assignment.
  error.instance = "";
  error.type = "urn:store";
  error.details = {{{"z", "last"}, {"a", "first"}}};
  EXPECT_EQ(boost::json::serialize(error.toJSONObject()),
            R"({"code":"INTERNAL","message":"Boom \"quoted\"","details":{"a":"first","z":"last"},)"
            R"("type":"urn:store","instance":""})");
  error = {Code::notFound, "", "SKErrorDomain.2", "trace-1", std::map<std::string, std::string>{}};
  EXPECT_EQ(boost::json::serialize(error.toJSONObject()),
            R"({"code":"NOT_FOUND","message":"","externalCode":"SKErrorDomain.2",)"
            R"("traceId":"trace-1","details":{}})");
}

}  // namespace
}  // namespace vorn::tesk
