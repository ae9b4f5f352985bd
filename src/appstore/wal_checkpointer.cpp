#include "appstore/wal_checkpointer.h"

#include <sqlite3.h>

namespace appstore {

WalCheckpointer::WalCheckpointer(const std::string& path, sqlite3* writer)
    : writer_(writer), database_(path, SQLite::OPEN_READWRITE) {
  // The same durability as the writer: each checkpoint syncs the WAL, then the file.
  database_.exec("PRAGMA synchronous = NORMAL");
  // Replaces SQLite's automatic checkpoint on the writer.
  sqlite3_wal_hook(writer_, &WalCheckpointer::committed, this);
  thread_ = std::jthread([this](std::stop_token stop) { run(stop); });
}

WalCheckpointer::~WalCheckpointer() {
  sqlite3_wal_hook(writer_, nullptr, nullptr);
  thread_.request_stop();
  if (thread_.joinable()) thread_.join();
}

// Runs on the committing thread, after its commit, with the WAL's size in pages.
int WalCheckpointer::committed(void* self, sqlite3* writer, const char* schema, int pages) {
  auto& checkpointer = *static_cast<WalCheckpointer*>(self);
  bool wake = false;
  bool copyHere = false;
  {
    std::lock_guard lock(checkpointer.mutex_);
    if (pages < checkpointer.lastPages_) {
      // The log restarted: a new round. A checkpoint still under way finishes its round as
      // `copied`, and the next commit copies whatever it left.
      checkpointer.roundStarted_ = false;
      if (checkpointer.round_ != Round::copying) checkpointer.round_ = Round::filling;
    }
    checkpointer.lastPages_ = pages;
    checkpointer.paused_ = pages >= kMaxPages;
    copyHere = checkpointer.paused_ || checkpointer.round_ == Round::copied;
    if (!copyHere && pages >= kWakePages && !checkpointer.roundStarted_) {
      checkpointer.roundStarted_ = true;
      checkpointer.round_ = Round::due;
      wake = true;
    }
  }
  if (wake) checkpointer.due_.notify_one();
  if (copyHere) {
    // Nothing else writes between the commits, so this copies the whole log unless the
    // thread's checkpoint is under way (then it is busy and the next commit tries again).
    int logged = 0;
    int copied = 0;
    const int result = sqlite3_wal_checkpoint_v2(writer, schema, SQLITE_CHECKPOINT_PASSIVE,
                                                 &logged, &copied);
    if (result == SQLITE_OK && copied == logged) {
      std::lock_guard lock(checkpointer.mutex_);
      if (checkpointer.round_ == Round::copied) checkpointer.round_ = Round::filling;
    }
  }
  return SQLITE_OK;
}

void WalCheckpointer::run(std::stop_token stop) {
  std::unique_lock lock(mutex_);
  while (due_.wait(lock, stop, [&] { return round_ == Round::due && !paused_; })) {
    round_ = Round::copying;
    lock.unlock();
    // Copies every frame no reader still needs, without waiting for the writer. Busy or
    // failed, it loses nothing: the writer then copies the rest.
    sqlite3_wal_checkpoint_v2(database_.getHandle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr,
                              nullptr);
    lock.lock();
    round_ = Round::copied;
  }
}

}  // namespace appstore
