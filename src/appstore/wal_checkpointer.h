// WalCheckpointer: copies a state file's write-ahead log back into the file on a thread and a
// SQLite connection of its own. With synchronous = NORMAL a commit only appends to the WAL;
// what does sync to disk is the checkpoint (the WAL before it is copied back, the file after),
// and SQLite's own automatic checkpoint runs inside the commit that crosses its threshold.
//
// Here the log goes through rounds. The commit that takes it past kWakePages wakes this
// thread, once, and returns; the thread copies what is there. Commits that came meanwhile
// are left in the log, and the log only starts afresh (overwriting itself from the start,
// without growing) once all of it is copied: so the first commit after the thread's
// checkpoint copies that small rest itself, and the next write restarts the log. Waking the
// thread on every commit instead kept it checkpointing a few commits at a time, two syncs
// each, without the log ever restarting. Should the log still reach kMaxPages (a rest that
// cannot be copied), the thread pauses and every commit tries to copy the rest until the log
// restarts. Checkpoints are SQLite's own, safe against a kill at any instant.
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
  // WAL pages after which every commit tries to copy the log itself.
  static constexpr int kMaxPages = 16000;

  // Opens a second connection to `path` and takes over the WAL hook of `writer`, the ledger's
  // connection to the same file. Throws SQLite::Exception when the file cannot be opened.
  WalCheckpointer(const std::string& path, sqlite3* writer);
  ~WalCheckpointer();
  WalCheckpointer(const WalCheckpointer&) = delete;
  WalCheckpointer& operator=(const WalCheckpointer&) = delete;

 private:
  // Where the current log is in its round.
  enum class Round {
    filling,  // below kWakePages, or copied whole and waiting for the next write to restart it
    due,      // past kWakePages: the thread is woken
    copying,  // the thread's checkpoint is under way
    copied,   // the thread's checkpoint is done: the next commit copies the rest
  };

  static int committed(void* self, sqlite3* writer, const char* schema, int pages);
  void run(std::stop_token stop);

  sqlite3* writer_;
  SQLite::Database database_;
  std::mutex mutex_;
  std::condition_variable_any due_;
  Round round_ = Round::filling;  // guarded by mutex_
  bool roundStarted_ = false;     // guarded by mutex_: this log's round has woken the thread
  int lastPages_ = 0;             // guarded by mutex_: the log's pages at the last commit
  bool paused_ = false;  // guarded by mutex_: the writer is catching up (see committed)
  std::jthread thread_;  // last: stopped before the members it uses go
};

}  // namespace appstore
