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
  const bool overGrown = pages >= kMaxPages;
  {
    std::lock_guard lock(checkpointer.mutex_);
    // The log starts afresh only once a checkpoint has copied all of it, and one that runs
    // beside commits that never pause is always a few behind: past the bound, the thread
    // stops starting checkpoints and the writer, between its commits, copies the rest.
    checkpointer.paused_ = overGrown;
    if (pages >= kWakePages) checkpointer.wanted_ = true;
  }
  if (overGrown) {
    // Busy while the thread's checkpoint is under way: the next commit tries again.
    sqlite3_wal_checkpoint_v2(writer, schema, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  } else if (pages >= kWakePages) {
    checkpointer.due_.notify_one();
  }
  return SQLITE_OK;
}

void WalCheckpointer::run(std::stop_token stop) {
  std::unique_lock lock(mutex_);
  while (due_.wait(lock, stop, [&] { return wanted_ && !paused_; })) {
    wanted_ = false;
    lock.unlock();
    // Copies every frame no reader still needs, without waiting for the writer; a busy or
    // failed checkpoint loses nothing, and the next wake-up tries again.
    sqlite3_wal_checkpoint_v2(database_.getHandle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr,
                              nullptr);
    lock.lock();
  }
}

}  // namespace appstore
