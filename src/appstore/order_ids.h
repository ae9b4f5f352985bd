// Order ids: what the App Store prints on the receipt it emails for a purchase, and what a
// developer's server looks a purchase up by when a customer quotes it. Every purchase the
// account itself paid for is its own order, renewals included. The id is computed from the
// transaction id (and back), so nothing is stored for it. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace appstore {

// Ten capital letters and digits, "M" first, as the App Store's order ids look.
std::string orderIDForTransaction(std::uint64_t transactionID);
// The transaction an order id was made from; nothing for text no transaction id gives.
std::optional<std::uint64_t> transactionForOrderID(std::string_view orderID);

}  // namespace appstore
