#include "appstore/ledger_file.h"

#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string_view>

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>

namespace appstore::ledger_file {
namespace {

// Written into the header of every ledger at creation ("VNTK"), so that a file of another
// program is told apart from ours before anything is written to it.
constexpr int kApplicationId = 0x564E544B;
constexpr std::string_view kSQLiteHeader{"SQLite format 3\0", 16};

// Each step brings the schema from version `from` to `from + 1`; a file is carried through
// every step it has not seen, in one transaction. A new version adds a case and never edits
// an earlier one, because files made by earlier builds have run those exact statements.
void upgradeSchema(SQLite::Database& database, int from) {
  switch (from) {
    case 0:
      // The typed columns are all the list queries read. The texts (a signed form is a few
      // kilobytes) live in a table of their own, so that the typed rows of 100,000
      // transactions take a few megabytes, which a list scans in milliseconds. Hence no index
      // for the lists' filters either: each would add pages to every purchase's commit.
      database.exec(R"sql(
        CREATE TABLE transactions (
          id INTEGER PRIMARY KEY,
          original_id INTEGER NOT NULL,
          product_id TEXT NOT NULL,
          product_type TEXT NOT NULL,
          group_id TEXT NOT NULL,
          state INTEGER NOT NULL,
          purchase_date INTEGER NOT NULL,
          expires_date INTEGER,
          revocation_date INTEGER,
          upgraded INTEGER NOT NULL,
          finished INTEGER NOT NULL);
        CREATE TABLE transaction_texts (
          id INTEGER PRIMARY KEY,
          payload TEXT NOT NULL,
          request TEXT NOT NULL,
          signed_form TEXT NOT NULL);
        CREATE TABLE subscription_groups (
          group_id TEXT PRIMARY KEY NOT NULL,
          original_id INTEGER NOT NULL,
          original_purchase_date INTEGER NOT NULL,
          latest_id INTEGER NOT NULL,
          auto_renew INTEGER NOT NULL,
          pending_product_id TEXT,
          offer_periods_left INTEGER NOT NULL,
          continuing_offer TEXT NOT NULL) WITHOUT ROWID;
        CREATE TABLE named_values (
          key TEXT PRIMARY KEY NOT NULL,
          value TEXT NOT NULL) WITHOUT ROWID;
      )sql");
      database.exec("PRAGMA application_id = " + std::to_string(kApplicationId));
      break;
    case 1:
      // Renewal states. A subscription of an older file starts as subscribed; the store's
      // lifecycle settles it (expired, revoked) as it opens.
      database.exec(R"sql(
        ALTER TABLE subscription_groups ADD COLUMN status INTEGER NOT NULL DEFAULT 1;
        ALTER TABLE subscription_groups ADD COLUMN expiration_intent INTEGER;
        ALTER TABLE subscription_groups ADD COLUMN billing_issue_since INTEGER;
        ALTER TABLE subscription_groups ADD COLUMN grace_period_expires INTEGER;
        ALTER TABLE subscription_groups ADD COLUMN price_increase_status INTEGER;
        ALTER TABLE subscription_groups ADD COLUMN renewal_price TEXT NOT NULL DEFAULT '';
        ALTER TABLE subscription_groups ADD COLUMN signed_renewal_info TEXT NOT NULL DEFAULT '';
        ALTER TABLE subscription_groups ADD COLUMN extensions TEXT NOT NULL DEFAULT '';
        ALTER TABLE subscription_groups ADD COLUMN recent_start INTEGER;
      )sql");
      break;
    case 2:
      // What the App Store's server side answers from. `revision` orders transactions by
      // their latest change (history pages follow it); an older file's rows take their id.
      // Ownership was only in the signed payload before. The outbox holds each notification
      // once, signed, with its send attempts; the two request tables keep what a developer's
      // server asked for (renewal extensions for all subscribers, consumption information).
      database.exec(R"sql(
        ALTER TABLE transactions ADD COLUMN revision INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE transactions ADD COLUMN family_shared INTEGER NOT NULL DEFAULT 0;
        UPDATE transactions SET revision = id;
        UPDATE transactions SET family_shared = 1 WHERE id IN (
          SELECT id FROM transaction_texts
          WHERE json_valid(payload)
            AND json_extract(payload, '$.inAppOwnershipType') = 'FAMILY_SHARED');
        CREATE TABLE notifications (
          sequence INTEGER PRIMARY KEY,
          uuid TEXT NOT NULL UNIQUE,
          notification_type TEXT NOT NULL,
          subtype TEXT NOT NULL,
          original_transaction_id INTEGER,
          created INTEGER NOT NULL,
          next_attempt INTEGER,
          test_token TEXT,
          signed_payload TEXT NOT NULL);
        CREATE TABLE send_attempts (
          notification INTEGER NOT NULL,
          attempt_date INTEGER NOT NULL,
          result TEXT NOT NULL);
        CREATE INDEX send_attempts_by_notification ON send_attempts (notification);
        CREATE INDEX notifications_due ON notifications (next_attempt)
          WHERE next_attempt IS NOT NULL;
        CREATE TABLE mass_extensions (
          request_identifier TEXT NOT NULL,
          product_id TEXT NOT NULL,
          request TEXT NOT NULL,
          created INTEGER NOT NULL,
          complete_date INTEGER,
          succeeded INTEGER NOT NULL,
          failed INTEGER NOT NULL,
          PRIMARY KEY (request_identifier, product_id)) WITHOUT ROWID;
        CREATE TABLE consumption_requests (
          transaction_id INTEGER PRIMARY KEY,
          reason TEXT NOT NULL,
          requested INTEGER NOT NULL,
          information TEXT NOT NULL);
      )sql");
      break;
    case 3:
      // Signed forms share their header (see ledger_signed_forms.h): a row with a header id
      // keeps in signed_form only what follows its payload's segment. Rows written before keep
      // their forms whole, and are read as they are.
      database.exec(R"sql(
        CREATE TABLE signing_headers (
          id INTEGER PRIMARY KEY,
          header TEXT NOT NULL);
        ALTER TABLE transaction_texts ADD COLUMN header_id INTEGER;
      )sql");
      break;
  }
}

// Every date the store computes with, and the clock offset, lie within the years 1970 to
// 9999; a damaged file holding others would overflow the store's date arithmetic.
constexpr const char* kDatesOutOfRange = R"sql(
    SELECT (SELECT count(*) FROM transactions
            WHERE purchase_date NOT BETWEEN 0 AND 253402300799999
               OR ifnull(expires_date, 0) NOT BETWEEN 0 AND 253402300799999
               OR ifnull(revocation_date, 0) NOT BETWEEN 0 AND 253402300799999)
         + (SELECT count(*) FROM subscription_groups
            WHERE original_purchase_date NOT BETWEEN 0 AND 253402300799999)
         + (SELECT count(*) FROM named_values WHERE key = 'clock.offsetMs'
            AND CAST(value AS INTEGER) NOT BETWEEN -253402300799999 AND 253402300799999))sql";
// The same for the dates a file of schema version 2 or later adds.
constexpr const char* kRenewalDatesOutOfRange = R"sql(
    SELECT count(*) FROM subscription_groups
    WHERE ifnull(billing_issue_since, 0) NOT BETWEEN 0 AND 253402300799999
       OR ifnull(grace_period_expires, 0) NOT BETWEEN 0 AND 253402300799999
       OR ifnull(recent_start, 0) NOT BETWEEN 0 AND 253402300799999)sql";

// The tables the store reads as it opens, and the few signing headers every signed form is
// rebuilt with. The signed texts, nearly all of a file's bytes, are read only when asked for;
// checking their pages at open would read the whole file.
constexpr const char* kTablesCheckedAtOpen[] = {
    "sqlite_schema",  "transactions",    "subscription_groups", "named_values",  "notifications",
    "send_attempts",  "mass_extensions", "consumption_requests", "signing_headers"};
// The columns of each table of `database`.
std::map<std::string, std::set<std::string>> columnsOf(SQLite::Database& database) {
  std::map<std::string, std::set<std::string>> tables;
  SQLite::Statement names(database, "SELECT name FROM sqlite_schema WHERE type = 'table'");
  while (names.executeStep()) {
    const auto table = names.getColumn(0).getString();
    SQLite::Statement columns(database, "SELECT name FROM pragma_table_info(?1)");
    columns.bind(1, table);
    auto& found = tables[table];
    while (columns.executeStep()) found.insert(columns.getColumn(0).getString());
  }
  return tables;
}

// What a ledger of `version` lacks of the tables and columns this build's schema steps give
// one (extra ones do no harm); nothing when it lacks nothing. Read before a migration, so that
// a file that would fail after being migrated is refused with its bytes as they were.
std::optional<std::string> missingFromSchema(SQLite::Database& database, int version) {
  if (version < 1) return std::nullopt;
  SQLite::Database reference(":memory:", SQLite::OPEN_READWRITE);
  for (int from = 0; from < version; ++from) upgradeSchema(reference, from);
  const auto present = columnsOf(database);
  for (const auto& [table, columns] : columnsOf(reference)) {
    const auto found = present.find(table);
    if (found == present.end()) return "no table " + table;
    for (const auto& column : columns) {
      if (!found->second.contains(column)) return "table " + table + " has no column " + column;
    }
  }
  return std::nullopt;
}

}  // namespace

bool needsUpgrade(SQLite::Database& database) {
  return database.execAndGet("PRAGMA user_version").getInt() < Ledger::kSchemaVersion;
}

void upgrade(SQLite::Database& database) {
  const int version = database.execAndGet("PRAGMA user_version").getInt();
  for (int from = version; from < Ledger::kSchemaVersion; ++from) upgradeSchema(database, from);
  database.exec("PRAGMA user_version = " + std::to_string(Ledger::kSchemaVersion));
}

// Committed changes survive a killed process once they are in the WAL; giving up the fsync
// on every commit only risks the last ones on a power cut, which a test store can afford.
// WAL itself is switched on by the first write (see SQLiteLedger::write): a file in another
// journal mode that its reader then refuses must keep every byte it had. The checkpoints,
// which do sync, run beside the commits (WalCheckpointer), whose connection briefly holds
// SQLite's locks as it reads the log's index: a commit that meets one waits for it.
void configure(SQLite::Database& database) {
  database.exec("PRAGMA synchronous = NORMAL");
  database.setBusyTimeout(5000);
}

bool isDamage(const SQLite::Exception& error) {
  const int code = error.getErrorCode() & 0xff;
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

LedgerError openFailure(const std::string& label, const SQLite::Exception& error) {
  if (isDamage(error)) return LedgerError(label + ": damaged (" + error.what() + ")");
  return LedgerError(label + ": cannot open: " + error.what());
}

// quick_check reports on several lines, under a heading that names the schema; the error
// is one line.
std::string oneLine(std::string text) {
  constexpr std::string_view kHeading = "*** in database main ***";
  if (text.starts_with(kHeading)) text.erase(0, kHeading.size());
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  const auto start = text.find_first_not_of(' ');
  return start == std::string::npos ? text : text.substr(start);
}

const char* const kTextsCheck = "PRAGMA quick_check(transaction_texts)";

// Decides, reading only, whether a non-empty file is a ledger this build can open: SQLite is
// not allowed to write to a file before it is known to be ours. A ledger of this version that
// is already in WAL has its texts table left to check before the first change is written
// (SQLiteLedger::Changes); true when that is so. Any other file is checked whole.
bool checkExistingFile(const std::string& path, const std::string& label, int fd) {
  // The header's first 16 bytes, then its file format read and write versions (2: WAL).
  std::array<char, kSQLiteHeader.size() + 4> header{};
  const auto got = ::pread(fd, header.data(), header.size(), 0);
  if (got != static_cast<ssize_t>(header.size()) ||
      std::string_view(header.data(), kSQLiteHeader.size()) != kSQLiteHeader) {
    throw LedgerError(label + ": not a SQLite database");
  }
  const bool inWAL = header[18] == 2 && header[19] == 2;
  try {
    SQLite::Database database(path, SQLite::OPEN_READONLY);
    const int applicationId = database.execAndGet("PRAGMA application_id").getInt();
    const int version = database.execAndGet("PRAGMA user_version").getInt();
    // A ledger killed between switching to WAL and committing its schema is left empty;
    // it is taken as a new one rather than refused for ever.
    const bool empty = applicationId == 0 && version == 0 &&
                       database.execAndGet("SELECT count(*) FROM sqlite_schema").getInt() == 0;
    if (applicationId != kApplicationId && !empty) {
      throw LedgerError(label + ": a SQLite database of something else (application_id " +
                        std::to_string(applicationId) + ")");
    }
    if (version > Ledger::kSchemaVersion) {
      throw LedgerError(label + ": schema version " + std::to_string(version) +
                        " is newer than this build's (" + std::to_string(Ledger::kSchemaVersion) +
                        ")");
    }
    const bool textsLater = inWAL && version == Ledger::kSchemaVersion;
    std::vector<std::string> checks{"PRAGMA quick_check(1)"};
    if (textsLater) {
      checks.clear();
      for (const char* table : kTablesCheckedAtOpen) {
        checks.push_back(std::string("PRAGMA quick_check(") + table + ")");
      }
    }
    // Tables first: a check of a table that is missing would fail as no such table.
    if (const auto missing = missingFromSchema(database, version)) {
      throw LedgerError(label + ": damaged (" + *missing + ")");
    }
    for (const auto& check : checks) {
      const std::string verdict = database.execAndGet(check).getString();
      if (verdict != "ok") throw LedgerError(label + ": damaged (" + oneLine(verdict) + ")");
    }
    if ((version >= 1 && database.execAndGet(kDatesOutOfRange).getInt() != 0) ||
        (version >= 2 && database.execAndGet(kRenewalDatesOutOfRange).getInt() != 0)) {
      throw LedgerError(label + ": damaged (a date outside the years 1970 to 9999)");
    }
    return textsLater;
  } catch (const SQLite::Exception& error) {
    throw openFailure(label, error);
  }
}

// Never destroyed: a ledger in a host's global (or the process's shared store) is closed
// during exit, after statics made later than it would be gone.
std::mutex& heldFilesMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
std::set<FileKey>& heldFiles() {
  static auto* files = new std::set<FileKey>;
  return *files;
}

}  // namespace appstore::ledger_file
