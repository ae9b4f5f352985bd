// The simulated store's controls as the driver offers them: one named control per line,
// its arguments as the line's other members, its result as members of the answer.
// Controls run on the driver's reading thread.
#pragma once

#include <boost/json/object.hpp>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vorntesk_storekit {

// A control's arguments were missing or of the wrong kind, or the control is unknown.
class ControlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Runs `name` on the process's LocalStore with the members of `arguments` (the line
// itself; "id" and "store" are ignored). Returns the result members. Throws ControlError
// for a bad control or argument, and passes on what the store throws.
boost::json::object runStoreControl(std::string_view name, const boost::json::object& arguments);

// The URL of the App Store Server API the driver serves, for the "server" control.
void announceServer(std::string url);

struct ControlHelp {
  std::string name;
  std::string arguments;
  std::string summary;
  std::string example;
};
const std::vector<ControlHelp>& storeControlHelp();

}  // namespace vorntesk_storekit
