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

const std::string kBasic = "com.vorntesk.sample.basic.monthly";  // pay as you go for 3 months
const std::string kPro = "com.vorntesk.sample.pro.monthly";      // a week's free trial
const std::string kGroup = "21500001";

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

// Where the sessions' notifications go: nothing listens there, so they stay in the outbox.
inline const std::string kNowhere = "http://127.0.0.1:9/notifications";

// A driver session with numbered lines: each line's answer, and the update events so far.
class Session {
 public:
  // The driver started with `arguments` (and a notifications URL), then given the `settings`
  // control lines (each the members after the id) and its transaction observer started.
  explicit Session(const std::vector<std::string>& settings,
                   std::vector<std::string> arguments = {})
      : driver_(withNotifications(std::move(arguments))) {
    for (const auto& line : settings) control(line);
    call("StartTransactionObserver");
  }

  json::value control(const std::string& membersAfterId) {
    return ask(R"({"id":")" + nextID() + R"(",)" + membersAfterId + "}");
  }
  json::value call(const std::string& method, const std::string& payload = "{}") {
    return ask(R"({"id":")" + nextID() + R"(","call":")" + method + R"(","payload":)" + payload + "}");
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
  std::vector<std::int64_t> entitlements() {
    std::vector<std::int64_t> ids;
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
      Notice notice{std::string(payload.at("notificationType").as_string()), "", 0};
      if (const auto* subtype = payload.if_contains("subtype")) notice.subtype = subtype->as_string();
      const auto* data = payload.if_contains("data");
      const auto* status = data ? data->as_object().if_contains("status") : nullptr;
      if (status) notice.status = status->as_int64();
      notices.push_back(std::move(notice));
    }
    return notices;
  }

  // The transactions of the update events printed since the last call of this.
  std::vector<json::object> newEvents() {
    std::vector<json::object> events;
    const auto lines = driver_.lines();
    const std::string prefix = R"({"event":"AppleStoreKitService.OnTransactionUpdate","payload":)";
    for (; seenLines_ < lines.size(); ++seenLines_) {
      if (lines[seenLines_].rfind(prefix, 0) == 0) {
        events.push_back(json::parse(lines[seenLines_]).at("payload").as_object());
      }
    }
    return events;
  }

 private:
  static std::vector<std::string> withNotifications(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--notifications-url", kNowhere});
    return arguments;
  }
  std::string nextID() { return std::to_string(++lastID_); }
  json::value ask(const std::string& line) {
    driver_.send(line);
    const auto answer = driver_.waitForAnswer(std::to_string(lastID_));
    EXPECT_TRUE(answer) << "no answer to " << line;
    if (!answer) return json::object{};
    auto parsed = json::parse(*answer);
    EXPECT_EQ(parsed.as_object().if_contains("error"), nullptr) << line << "\n  " << *answer;
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
  const auto answer =
      session.call("Purchase", R"({"productId":")" + productID + R"("})").at("envelope").at("success");
  const auto& t = answer.at("transaction");
  const auto date = [&](const char* key) {
    return platform::millisecondsSince1970(*platform::parseRFC3339(t.at(key).as_string()));
  };
  return {t.at("id").as_int64(), milliseconds(date("expirationDate") - date("purchaseDate"))};
}

}  // namespace testsupport
