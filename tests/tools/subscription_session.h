// A driver session for subscription scenarios: numbered control lines and calls with their
// parsed answers, the subscription status, the entitlements and the update events. One
// session per test; not thread-safe.
#pragma once

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "platform/date.h"
#include "support/driver_process.h"

namespace testsupport {

namespace json = boost::json;
using std::chrono::milliseconds;
using Ids = std::vector<std::int64_t>;

const std::string kBasic = "com.vorntesk.sample.basic.monthly";  // pay as you go for 3 months
const std::string kPro = "com.vorntesk.sample.pro.monthly";      // a week's free trial
const std::string kGroup = "21500001";
const std::vector<std::string> kPlans = {"--config",
                                         VORNTESK_SOURCE_DIR "/tests/tools/data/plans.storekit"};

// A Server Notification as a developer's server reads it: type, subtype ("" for none) and the
// subscription's status (0 for none).
struct Notice {
  std::string type, subtype;
  std::int64_t status = 0;
  bool operator==(const Notice&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Notice& notice) {
    return out << notice.type << "/" << notice.subtype << "/" << notice.status;
  }
};
using Notices = std::vector<Notice>;

// An RFC 3339 date of an answer in milliseconds since 1970.
inline std::int64_t msOf(const json::value& date) {
  return platform::millisecondsSince1970(*platform::parseRFC3339(date.as_string()));
}

// The driver started with `arguments` and a notifications URL where nothing listens (so they
// stay in the outbox), given the `settings` control lines (each the members after the id) and
// its transaction observer started.
class Session {
 public:
  explicit Session(const std::vector<std::string>& settings,
                   std::vector<std::string> arguments = {})
      : driver_([&] {
          arguments.insert(arguments.end(),
                           {"--notifications-url", "http://127.0.0.1:9/notifications"});
          return arguments;
        }()) {
    for (const auto& line : settings) control(line);
    call("StartTransactionObserver");
  }

  json::value control(const std::string& membersAfterId) {
    return ask(R"({"id":")" + std::to_string(++lastID_) + R"(",)" + membersAfterId + "}");
  }
  // The error a control line is refused with ("" when it is not refused).
  std::string refusal(const std::string& membersAfterId) {
    const auto answer =
        ask(R"({"id":")" + std::to_string(++lastID_) + R"(",)" + membersAfterId + "}", true);
    const auto* error = answer.is_object() ? answer.as_object().if_contains("error") : nullptr;
    return error && error->is_string() ? std::string(error->get_string()) : std::string();
  }
  // The control `name` on transaction `identifier`.
  json::value control(const std::string& name, std::int64_t identifier) {
    return control(R"("store":")" + name + R"(","identifier":)" + std::to_string(identifier));
  }
  json::value call(const std::string& method, const std::string& payload = "{}") {
    return control(R"("call":")" + method + R"(","payload":)" + payload);
  }
  // The success answer of a Purchase of `productID`.
  json::value purchase(const std::string& productID) {
    return call("Purchase", R"({"productId":")" + productID + R"("})").at("envelope").at("success");
  }
  void advance(milliseconds amount) {
    control(R"("store":"advanceTime","seconds":)" + std::to_string(amount.count() / 1000.0));
  }
  json::object status(const std::string& groupID = kGroup) {
    const auto answer = control(R"("store":"subscriptionStatus","groupID":")" + groupID + R"(")");
    const auto& statuses = answer.at("statuses").as_array();
    EXPECT_EQ(statuses.size(), 1u);
    return statuses.empty() ? json::object{} : statuses[0].as_object();
  }
  Ids entitlements() {
    Ids ids;
    const auto answer = call("GetCurrentEntitlements");
    for (const auto& t : answer.at("envelope").at("success").at("transactions").as_array()) {
      ids.push_back(t.at("id").as_int64());
    }
    return ids;
  }
  // The notifications the store made since the last call of this, oldest first.
  Notices newNotices() {
    Notices notices;
    const auto answer = control(R"("store":"notifications")");
    const auto& made = answer.at("notifications").as_array();
    for (; seenNotices_ < made.size(); ++seenNotices_) {
      const auto& payload = made[seenNotices_].at("payload").as_object();
      Notice& notice = notices.emplace_back();
      notice.type = payload.at("notificationType").as_string();
      if (const auto* subtype = payload.if_contains("subtype"))
        notice.subtype = subtype->as_string();
      const auto* data = payload.if_contains("data");
      const auto* status = data ? data->as_object().if_contains("status") : nullptr;
      if (status) notice.status = status->as_int64();
    }
    return notices;
  }
  // The transactions of the update events printed since the last call of this.
  std::vector<json::object> newEvents() {
    std::vector<json::object> events;
    const auto lines = driver_.lines();
    const std::string prefix = R"({"event":"AppleStoreKitService.OnTransactionUpdate","payload":)";
    for (; seenLines_ < lines.size(); ++seenLines_) {
      if (lines[seenLines_].starts_with(prefix)) {
        events.push_back(json::parse(lines[seenLines_]).at("payload").as_object());
      }
    }
    return events;
  }

 private:
  json::value ask(const std::string& line, bool mayBeRefused = false) {
    driver_.send(line);
    const auto answer = driver_.waitForAnswer(std::to_string(lastID_));
    EXPECT_TRUE(answer) << "no answer to " << line;
    if (!answer) return json::object{};
    auto parsed = json::parse(*answer);
    if (!mayBeRefused) {
      EXPECT_EQ(parsed.as_object().if_contains("error"), nullptr) << line << "\n  " << *answer;
    }
    return parsed;
  }

  RunningDriver driver_;
  int lastID_ = 0;
  std::size_t seenLines_ = 0;
  std::size_t seenNotices_ = 0;
};

inline std::int64_t info(const json::object& status, const char* key) {
  const auto* value = status.at("renewalInfo").as_object().if_contains(key);
  return value ? value->to_number<std::int64_t>() : -1;
}
inline bool inBillingRetry(const json::object& status) {
  return status.at("renewalInfo").at("isInBillingRetryPeriod").as_bool();
}

struct Bought {
  std::int64_t id;
  milliseconds period;
};
inline Bought buy(Session& session, const std::string& productID = kBasic) {
  const auto answer = session.purchase(productID);
  const auto& t = answer.at("transaction");
  return {t.at("id").as_int64(),
          milliseconds(msOf(t.at("expirationDate")) - msOf(t.at("purchaseDate")))};
}

}  // namespace testsupport
