// What the ledger's SQL files share: preparing a statement for its next use, and the ledger's
// ways of binding and reading ids and dates. Private to the ledger's files.
#pragma once

#include <cstdint>
#include <optional>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Statement.h>

#include "platform/date.h"

namespace appstore::ledger_sql {

// A statement that failed is left unreset (its reset would throw the failure again), and a
// query read to its first row holds a read snapshot until reset: each use starts afresh, with
// no parameter left from the last, and every query is reset once read.
inline SQLite::Statement& fresh(SQLite::Statement& statement) {
  statement.tryReset();
  statement.clearBindings();
  return statement;
}

inline std::int64_t milliseconds(platform::Date date) { return platform::millisecondsSince1970(date); }

// Ids are App Store transaction numbers, far below 2^63; they are stored as SQLite integers.
inline void bindId(SQLite::Statement& statement, int index, std::uint64_t id) {
  statement.bind(index, static_cast<std::int64_t>(id));
}

// A date, or NULL for none.
inline void bindDate(SQLite::Statement& statement, int index, std::optional<platform::Date> date) {
  if (date) {
    statement.bind(index, milliseconds(*date));
  } else {
    statement.bind(index);
  }
}

inline std::optional<platform::Date> optionalDate(const SQLite::Column& column) {
  if (column.isNull()) return std::nullopt;
  return platform::dateFromMillisecondsSince1970(column.getInt64());
}

}  // namespace appstore::ledger_sql
