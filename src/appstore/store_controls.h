// The store's controls by name, with JSON arguments and results: what the host driver's control
// lines and the Transaction Manager page run. Each goes through the LocalStore's own
// operations. Any thread (the store serialises itself).
#pragma once

#include <boost/json/object.hpp>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace appstore {

class LocalStore;

// A control's arguments were missing or of the wrong kind, or the control is unknown.
class ControlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Runs `name` on `store` with the members of `arguments` (other members, such as a line's "id"
// and "store", are ignored). Returns the result members. Throws ControlError for a bad control
// or argument, and passes on what the store throws.
boost::json::object runStoreControl(LocalStore& store, std::string_view name,
                                    const boost::json::object& arguments);

struct ControlHelp {
  std::string name;
  std::string arguments;
  std::string summary;
  std::string example;
};
const std::vector<ControlHelp>& storeControlHelp();

}  // namespace appstore
