// What makes a file a ledger: its schema and the migrations from earlier versions, the
// connection settings, and the checks a file passes, reading only, before SQLite may write to
// it. Also the files this process's ledgers hold. Private to the ledger's files; the caller
// serialises access (heldFiles() has its own mutex).
#pragma once

#include <sys/types.h>

#include <compare>
#include <mutex>
#include <set>
#include <string>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>

#include "appstore/ledger.h"

namespace appstore::ledger_file {

// Whether `database` is at an older schema version than this build's (or has none yet).
bool needsUpgrade(SQLite::Database& database);
// Brings the schema of `database` to Ledger::kSchemaVersion; the caller holds the
// transaction it belongs to.
void upgrade(SQLite::Database& database);
// The settings of every connection of a ledger.
void configure(SQLite::Database& database);
// Whether SQLite's error says the file is damaged.
bool isDamage(const SQLite::Exception& error);
// The LedgerError for a file SQLite could not open or read: "damaged (...)" or "cannot open".
LedgerError openFailure(const std::string& label, const SQLite::Exception& error);
// SQLite's report of damage, on one line.
std::string oneLine(std::string text);

// Checks the texts table, which the checks at open leave for the file's first change.
extern const char* const kTextsCheck;

// Decides, reading only, whether the non-empty file at `path` (open as `fd`) is a ledger this
// build can open; throws LedgerError otherwise. True when its texts table is left to check
// before the first change is written.
bool checkExistingFile(const std::string& path, const std::string& label, int fd);

// The files held by the ledgers of this process. A second ledger on one of them is refused
// before it opens a descriptor of its own: closing any descriptor of a file drops every POSIX
// lock the process holds on it, the ones SQLite keeps for the first ledger included.
struct FileKey {
  dev_t device;
  ino_t inode;
  auto operator<=>(const FileKey&) const = default;
};
std::mutex& heldFilesMutex();
std::set<FileKey>& heldFiles();  // guarded by heldFilesMutex()

}  // namespace appstore::ledger_file
