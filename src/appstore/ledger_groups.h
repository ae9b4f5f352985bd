// The subscription groups' table as the ledger reads and writes it. Private to the ledger's
// files.
#pragma once

#include <SQLiteCpp/Statement.h>

#include "appstore/ledger.h"

namespace appstore::ledger_groups {

// The columns of subscription_groups, in the order readGroup() and bindGroup() take them.
extern const char* const kGroupColumns;

LedgerGroup readGroup(const SQLite::Statement& row);
// Binds every column of `group` to `row`'s parameters ?1 to ?17.
void bindGroup(SQLite::Statement& row, const LedgerGroup& group);

}  // namespace appstore::ledger_groups
