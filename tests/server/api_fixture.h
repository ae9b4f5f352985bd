// A running App Store Server API on loopback over a store of the sample catalogue, and a
// client that calls it with a valid bearer token (or the Authorization given), for the
// endpoint tests.
#pragma once

#include <gtest/gtest.h>

#include <httplib.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "appstore/local_store.h"
#include "appstore/server/app_store_server.h"
#include "appstore/server/bearer_token.h"
#include "platform/base64.h"

namespace appstore::server::testing {

namespace json = boost::json;

struct Reply {
  int status = 0;
  std::string body;
  std::string contentType;
  std::string allow;
};

// The payload of a compact JWS, parsed (null when it cannot be read).
inline json::value payloadOf(std::string_view jws) {
  const auto first = jws.find('.'), last = jws.rfind('.');
  if (first == std::string_view::npos || first == last) return nullptr;
  const auto text = platform::base64URLDecode(jws.substr(first + 1, last - first - 1));
  json::error_code ec;
  auto parsed = text ? json::parse(*text, ec) : json::value();
  return ec ? json::value() : parsed;
}

class ApiFixture : public ::testing::Test {
 protected:
  void SetUp() override { server_ = AppStoreServer::start(store_, {"127.0.0.1", 0, key_}); }

  Reply call(const std::string& method, const std::string& path, const std::string& body = "",
             const std::string& contentType = "application/json",
             const std::optional<std::string>& authorization = std::nullopt) {
    httplib::Client client(server_->url());
    client.set_connection_timeout(5);
    client.set_read_timeout(10);
    httplib::Headers headers;
    if (authorization != "") headers.emplace("Authorization", authorization.value_or(bearer()));
    const auto* type = contentType.c_str();
    auto result = method == "GET"      ? client.Get(path, headers)
                  : method == "HEAD"   ? client.Head(path, headers)
                  : method == "PUT"    ? client.Put(path, headers, body, type)
                  : method == "PATCH"  ? client.Patch(path, headers, body, type)
                  : method == "DELETE" ? client.Delete(path, headers, body, type)
                  : method == "OPTIONS" ? client.Options(path, headers)
                                        : client.Post(path, headers, body, type);
    if (!result) {
      ADD_FAILURE() << method << " " << path << ": no answer";
      return {};
    }
    return {result->status, result->body, result->get_header_value("Content-Type"),
            result->get_header_value("Allow")};
  }
  Reply get(const std::string& path) { return call("GET", path); }

  // Node's client: exp five minutes on, iat now.
  std::string bearer() const {
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    return makeBearerToken(key_, store_->bundleID(), now);
  }

  InAppPurchaseKey key_ = InAppPurchaseKey::generate("KEY1", "ISSUER");
  std::shared_ptr<LocalStore> store_ =
      LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
  std::unique_ptr<AppStoreServer> server_;
};

}  // namespace appstore::server::testing
