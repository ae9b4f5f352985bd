// The Transaction Manager page, compiled into the library: the document served at "/".
#pragma once

namespace appstore::server {

// The whole page (HTML with its style and script inline); static text.
const char* managerPage();

}  // namespace appstore::server
