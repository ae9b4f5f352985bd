// State files of any content. Opening one either gives a store that renews what came due and
// answers its listings, or is refused with a LedgerError, and a refused file keeps every byte
// it had.
#include "fuzz_check.h"
#include "appstore/ledger.h"
#include "appstore/local_store.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace {

std::string readAll(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = (std::filesystem::temp_directory_path() /
                                   ("vorntesk-state-fuzz-" + std::to_string(getpid()) + ".db"))
                                      .string();
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) std::filesystem::remove(path + suffix);
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::ofstream(path, std::ios::binary) << bytes;
  std::shared_ptr<appstore::LocalStore> store;
  try {
    store = appstore::LocalStore::open(path);
  } catch (const appstore::LedgerError& error) {
    FUZZ_REQUIRE(std::string(error.what()).find(path) != std::string::npos,
                 std::string("the refusal does not name the file: ") + error.what());
    FUZZ_REQUIRE(readAll(path) == bytes, std::string("a refused file was changed: ") + error.what());
    return 0;
  }
  // The checks at open read the typed tables' pages but not every row's meaning, nor the
  // signed texts (checked before the first change): damage they cannot see may still fail a
  // later read or change, which must then be a LedgerError that names the file.
  try {
    (void)store->allTransactions();
    // Renewals that came due are carried out now, on the file's own rows.
    store->advanceTime(std::chrono::milliseconds(0));
    for (const auto listing : {appstore::LocalStore::Listing::all,
                               appstore::LocalStore::Listing::currentEntitlements,
                               appstore::LocalStore::Listing::unfinished}) {
      for (const auto id : store->transactionIDs(listing)) (void)store->signedForm(id);
    }
  } catch (const appstore::LedgerError& error) {
    FUZZ_REQUIRE(std::string(error.what()).find(path) != std::string::npos,
                 std::string("the failure does not name the file: ") + error.what());
  }
  return 0;
}
