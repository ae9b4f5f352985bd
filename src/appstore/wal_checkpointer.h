// WalCheckpointer: copies a state file's write-ahead log back into the file on a thread and a
// SQLite connection of its own. With synchronous = NORMAL a commit only appends to the WAL;
// what does sync to disk is the checkpoint (the WAL before it is copied back, the file after),
// and SQLite's own automatic checkpoint runs inside the commit that crosses its threshold.
// Here that commit only wakes this thread and returns. Should the log still grow to
// kMaxPages (writes that never pause leave every checkpoint a few commits behind, and the log
// restarts only once one has copied all of it), this thread pauses and the committing
// connection copies the rest itself (once this thread's checkpoint under way is done), so the
// WAL stays near that bound. Checkpoints are SQLite's own,
// safe against a kill at any instant.
//
// Made and destroyed by the ledger that owns the writing connection, on the thread that
// calls that ledger; the destructor stops and joins the thread and closes its connection, so
// it goes before the writing connection does.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

#include <SQLiteCpp/Database.h>

struct sqlite3;

namespace appstore {

class WalCheckpointer {
 public:
  // WAL pages after a commit that wake the checkpoint thread (SQLite's own default).
  static constexpr int kWakePages = 1000;
  // WAL pages after which the committing connection checkpoints itself.
  static constexpr int kMaxPages = 16000;

  // Opens a second connection to `path` and takes over the WAL hook of `writer`, the ledger's
  // connection to the same file. Throws SQLite::Exception when the file cannot be opened.
  WalCheckpointer(const std::string& path, sqlite3* writer);
  ~WalCheckpointer();
  WalCheckpointer(const WalCheckpointer&) = delete;
  WalCheckpointer& operator=(const WalCheckpointer&) = delete;

 private:
  static int committed(void* self, sqlite3* writer, const char* schema, int pages);
  void run(std::stop_token stop);

  sqlite3* writer_;
  SQLite::Database database_;
  std::mutex mutex_;
  std::condition_variable_any due_;
  bool wanted_ = false;  // guarded by mutex_
  bool paused_ = false;  // guarded by mutex_: the writer is catching up (see committed)
  std::jthread thread_;  // last: stopped before the members it uses go
};

}  // namespace appstore
