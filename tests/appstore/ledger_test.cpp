// The SQLite ledger: what it keeps across a reopen and what each list answers, the files it
// refuses (leaving their bytes as they were), one owner per file across processes, and writes
// that fail leaving nothing of themselves.
#include "appstore/ledger.h"
#include "appstore/local_store.h"
#include "appstore/wal_checkpointer.h"
#include "platform/base64.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <SQLiteCpp/Database.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>

namespace appstore {
namespace {

namespace fs = std::filesystem;
using Ids = std::vector<std::uint64_t>;

platform::Date day(int n) {
  return platform::dateFromMillisecondsSince1970(1'795'774'530'000 + n * 86'400'000LL);
}

LedgerTransaction entry(std::uint64_t id, const char* type, EntryState state, bool finished) {
  LedgerTransaction t;
  t.id = t.originalID = id;
  t.productID = "p" + std::to_string(id);
  t.productType = type;
  t.state = state;
  t.purchaseDate = day(0);
  t.finished = finished;
  if (state == EntryState::purchased) {
    t.payload = "{\"id\":" + std::to_string(id) + "}";
    t.signedForm = "signed " + t.productID;
  } else {
    t.request = "{\"quantity\":2}";
  }
  return t;
}

// Out of id order; the ids say which lists each belongs to.
std::vector<LedgerTransaction> sampleTransactions() {
  auto subscription = entry(4, "Auto-Renewable Subscription", EntryState::purchased, false);
  subscription.groupID = "g1";
  subscription.expiresDate = day(30);
  subscription.upgraded = true;
  auto revoked = entry(5, "Non-Consumable", EntryState::purchased, true);
  revoked.revocationDate = day(2);
  return {entry(3'000'000'000'003, "Non-Consumable", EntryState::purchased, true),
          subscription,
          entry(1, "Consumable", EntryState::purchased, true),
          entry(2, "Consumable", EntryState::purchased, false),
          revoked,
          entry(6, "Non-Renewing Subscription", EntryState::pendingAskToBuy, false),
          entry(7, "Consumable", EntryState::interrupted, false)};
}

const std::vector<LedgerGroup> kGroups = {
    {"g1", 4, day(0), 4, false, "p9", 2, "{\"offer\":\"intro\"}"},
    {"g2", 8, day(-3), 9, true, std::nullopt, 0, ""}};

std::string describe(const LedgerTransaction& t) {
  std::ostringstream out;
  for (const auto date : {std::optional(t.purchaseDate), t.expiresDate, t.revocationDate}) {
    out << (date ? platform::millisecondsSince1970(*date) : -1) << ' ';
  }
  out << t.id << ' ' << t.originalID << ' ' << t.productID << ' ' << t.productType << ' '
      << t.groupID << ' ' << static_cast<int>(t.state) << t.upgraded << t.finished << " ["
      << t.payload << "] [" << t.request << "] [" << t.signedForm << "]";
  return out.str();
}

std::string describe(const LedgerGroup& g) {
  std::ostringstream out;
  out << g.groupID << ' ' << g.originalID << ' '
      << platform::millisecondsSince1970(g.originalPurchaseDate) << ' ' << g.latestID << ' '
      << g.autoRenew << ' ' << g.pendingProductID.value_or("-") << ' ' << g.offerPeriodsLeft << " ["
      << g.continuingOffer << "]";
  return out.str();
}

Ids ids(const std::vector<LedgerTransaction>& list) {
  Ids found;
  for (const auto& t : list) {
    EXPECT_EQ(t.payload + t.request + t.signedForm, "") << "a list loads the texts of " << t.id;
    found.push_back(t.id);
  }
  return found;
}

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Why a file is refused: at open, or (damage among the signed texts, which opening does not
// read) when its first change is about to be written; "opened and written" if it is not.
std::string refusal(const fs::path& path) {
  try {
    Ledger::open(path.string())->write([](LedgerWrite& changes) { changes.putValue("k", "v"); });
  } catch (const LedgerError& error) {
    return error.what();
  }
  return "opened and written";
}

class LedgerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "ledger_test.XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }

  // A closed ledger file with the samples, and `padding` more entries of a few kB each.
  fs::path sampleLedger(const char* name, int padding = 0) {
    Ledger::open((dir_ / name).string())->write([&](LedgerWrite& changes) {
      for (const auto& t : sampleTransactions()) changes.putTransaction(t);
      for (int i = 0; i < padding; ++i) {
        auto filler = entry(100 + i, "Consumable", EntryState::purchased, true);
        filler.signedForm.assign(3000, 'x');
        changes.putTransaction(filler);
      }
      for (const auto& g : kGroups) changes.putGroup(g);
      changes.putValue("device.id", "D-1");
    });
    return dir_ / name;
  }

  fs::path dir_;
};

// A file an earlier build wrote (schema version 1: a refunded purchase and a subscription)
// is carried to this version as it opens, keeping every row.
TEST_F(LedgerTest, MigratesAFileOfTheFirstVersion) {
  const auto path = dir_ / "version1.db";
  fs::copy_file(VORNTESK_SOURCE_DIR "/tests/appstore/data/ledger_version_1.db", path);
  const auto signedBefore = [&] {
    SQLite::Database old(path.string(), SQLite::OPEN_READONLY);
    EXPECT_EQ(old.execAndGet("PRAGMA user_version").getInt(), 1);
    return old.execAndGet("SELECT signed_form FROM transaction_texts WHERE id = 2").getString();
  }();
  // Ownership was only in the payload then: the migration reads it from there once.
  SQLite::Database(path.string(), SQLite::OPEN_READWRITE)
      .exec("UPDATE transaction_texts SET payload = json_set(payload, '$.inAppOwnershipType', "
            "'FAMILY_SHARED') WHERE id = 1");
  {
    const auto ledger = Ledger::open(path.string());
    EXPECT_EQ(ids(ledger->transactions(Selection::everything)), (Ids{1, 2}));
    EXPECT_TRUE(ledger->transaction(1)->familyShared);
    EXPECT_FALSE(ledger->transaction(2)->familyShared);
    // Older rows are ordered by id; a change made now comes after all of them.
    EXPECT_EQ(ledger->transaction(2)->revision, 2u);
    auto refunded = *ledger->transaction(1);
    ledger->write([&](LedgerWrite& write) { write.putTransaction(refunded); });
    EXPECT_EQ(ledger->transaction(1)->revision, 3u);
    EXPECT_TRUE(ledger->transaction(1)->revocationDate);
    EXPECT_EQ(ledger->signedForm(2), signedBefore);
    const auto groups = ledger->groups();
    ASSERT_EQ(groups.size(), 1u);
    EXPECT_EQ(groups[0].latestID, 2u);
    EXPECT_EQ(groups[0].status, RenewalStatus::subscribed);
    EXPECT_FALSE(groups[0].expirationIntent || groups[0].billingIssueSince ||
                 groups[0].gracePeriodExpires || groups[0].priceIncreaseStatus);
    EXPECT_TRUE(groups[0].signedRenewalInfo.empty());
    // The new columns take what is written to them.
    auto changed = groups[0];
    changed.status = RenewalStatus::gracePeriod;
    changed.gracePeriodExpires = day(3);
    changed.signedRenewalInfo = "info";
    ledger->write([&](LedgerWrite& write) { write.putGroup(changed); });
  }
  SQLite::Database migrated(path.string(), SQLite::OPEN_READONLY);
  EXPECT_EQ(migrated.execAndGet("PRAGMA user_version").getInt(), Ledger::kSchemaVersion);
  const auto ledger = Ledger::open(path.string());
  EXPECT_EQ(ledger->groups().at(0).status, RenewalStatus::gracePeriod);
  EXPECT_EQ(ledger->groups().at(0).gracePeriodExpires, day(3));
  EXPECT_EQ(ledger->groups().at(0).signedRenewalInfo, "info");
}

// A migration is committed only once the store accepts what the file holds: a file of the
// first version whose signing identity cannot be read is refused as it was.
TEST_F(LedgerTest, AFileTheStoreRefusesAfterItsMigrationKeepsEveryByte) {
  const auto path = dir_ / "version1-bad-identity.db";
  fs::copy_file(VORNTESK_SOURCE_DIR "/tests/appstore/data/ledger_version_1.db", path);
  SQLite::Database(path.string(), SQLite::OPEN_READWRITE)
      .exec("UPDATE named_values SET value = 'not a key' WHERE key = 'signing.leafKey'");
  const auto before = contents(path);
  try {
    (void)LocalStore::open(path.string());
    ADD_FAILURE() << "opened";
  } catch (const LedgerError& error) {
    EXPECT_EQ(std::string(error.what()).rfind("state file " + path.string() + ": damaged (", 0), 0u)
        << error.what();
  }
  EXPECT_TRUE(contents(path) == before);  // still version 1
}

// Made before the ledger's own statics, so destroyed after them when the process exits, as a
// host's global store would be.
std::unique_ptr<Ledger> gHeldAtExit;

TEST_F(LedgerTest, ALedgerInAGlobalIsClosedCleanlyAtExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto path = (dir_ / "global.db").string();
  EXPECT_EXIT(
      {
        gHeldAtExit = Ledger::open(path);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(LedgerTest, KeepsEveryFieldAcrossAReopenAndListsWithoutTheTexts) {
  // A new file is in WAL from the start, before any write: a kill during a commit in rollback
  // mode leaves a hot journal, which the next open's read-only checks cannot roll back.
  Ledger::open((dir_ / "new.db").string()).reset();
  EXPECT_EQ(contents(dir_ / "new.db").at(18), 2);

  const auto ledger = Ledger::open(sampleLedger("state.db").string());
  for (const auto& t : sampleTransactions()) {
    EXPECT_EQ(describe(ledger->transaction(t.id).value_or(LedgerTransaction{})), describe(t));
  }
  EXPECT_FALSE(ledger->transaction(99).has_value());
  EXPECT_EQ(ledger->transactionCount(), 7u);
  EXPECT_EQ(ledger->signedForm(4), "signed p4");
  EXPECT_EQ(ledger->signedForm(6), std::nullopt);  // stored empty
  const auto groups = ledger->groups();
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(describe(groups[0]) + describe(groups[1]), describe(kGroups[0]) + describe(kGroups[1]));
  EXPECT_EQ(ledger->value("device.id"), "D-1");
  EXPECT_EQ(ledger->value("device"), std::nullopt);

  const std::pair<Selection, Ids> lists[] = {
      {Selection::everything, {1, 2, 4, 5, 6, 7, 3'000'000'000'003}},
      {Selection::history, {2, 4, 5, 3'000'000'000'003}},
      {Selection::unfinished, {2, 4}},
      {Selection::entitlementCandidates, {4, 3'000'000'000'003}}};
  for (const auto& [selection, expected] : lists) {
    EXPECT_EQ(ids(ledger->transactions(selection)), expected) << static_cast<int>(selection);
  }
}

TEST_F(LedgerTest, ChangesReplaceFinishAndRemove) {
  const auto ledger = Ledger::open("");
  auto revoked = sampleTransactions()[1];
  revoked.revocationDate = day(5);
  revoked.signedForm = "revoked";
  ledger->write([&](LedgerWrite& changes) {
    for (const auto& t : sampleTransactions()) changes.putTransaction(t);
    for (const auto& g : kGroups) changes.putGroup(g);
    changes.setFinished(2);
    changes.putTransaction(revoked);
    changes.removeTransaction(3'000'000'000'003);
    changes.removeGroup("g2");
    changes.putValue("k", "one");
    changes.putValue("k", "two");
  });
  EXPECT_EQ(describe(*ledger->transaction(4)), describe(revoked));
  EXPECT_EQ(ids(ledger->transactions(Selection::unfinished)), Ids{4});
  EXPECT_EQ(ids(ledger->transactions(Selection::history)), (Ids{4, 5}));
  EXPECT_EQ(ids(ledger->transactions(Selection::entitlementCandidates)), Ids{});
  EXPECT_EQ(ledger->signedForm(3'000'000'000'003), std::nullopt);
  EXPECT_EQ(ledger->groups().size(), 1u);

  ledger->write([](LedgerWrite& changes) { changes.removeHistory(); });
  EXPECT_EQ(ledger->transactionCount(), 0u);
  EXPECT_EQ(ledger->signedForm(4), std::nullopt);
  EXPECT_TRUE(ledger->groups().empty());
  EXPECT_EQ(ledger->value("k"), "two");
}

TEST_F(LedgerTest, RefusesFilesItCannotOwnAndLeavesThemAsTheyWere) {
  const auto foreign = [](const fs::path& path, const char* sql) {
    SQLite::Database(path.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(sql);
    return path;
  };
  const auto bytes = [&](const char* name, const std::string& text) {
    std::ofstream(dir_ / name, std::ios::binary) << text;
    return dir_ / name;
  };
  std::mt19937 random(7);
  std::string noise(8192, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  // Damage comes in SQLite's words, which vary: only "damaged (...)" on one line is checked.
  // (The refusals as the driver's users meet them, another process's file and another
  // application's database among them: tests/tools/state_file_test.cpp.)
  const std::pair<std::function<fs::path()>, std::string> cases[] = {
      {[&] { return bytes("header", std::string("SQLite format 3\0", 16) + noise); },
       "damaged (file is not a database)"},
      // A file of the first version that its migration would carry only half way.
      {[&] {
         const auto path = dir_ / "renamed.db";
         fs::copy_file(VORNTESK_SOURCE_DIR "/tests/appstore/data/ledger_version_1.db", path);
         return foreign(path, "ALTER TABLE subscription_groups RENAME COLUMN original_id TO oid");
       },
       "damaged (table subscription_groups has no column original_id)"},
      // Dates the store's arithmetic would overflow on, in a file SQLite finds sound.
      {[&] {
         return foreign(sampleLedger("late.db"),
                        "UPDATE transactions SET purchase_date = 253402300800000 WHERE id = 4");
       },
       "damaged (a date outside the years 1970 to 9999)"},
      {[&] {
         return foreign(sampleLedger("clock.db"),
                        "INSERT INTO named_values VALUES ('clock.offsetMs', '-9000000000000000000')");
       },
       "damaged (a date outside the years 1970 to 9999)"},
      {[&] {
         const auto path = sampleLedger("scribbled.db", 200);
         std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
         file.seekp(static_cast<std::streamoff>(fs::file_size(path) / 2 / 4096 * 4096));
         file << std::string(4096, 'U');
         return path;
       },
       "damaged ("},
      // A page of the outbox, which opening does not read: its checks find it.
      {[&] {
         const auto path = sampleLedger("outbox.db");
         Ledger::open(path.string())->write([](LedgerWrite& changes) {
           for (int i = 0; i < 50; ++i) {
             LedgerNotification made;
             made.uuid = "n" + std::to_string(i);
             made.type = "TEST";
             made.signedPayload.assign(2000, 'x');
             changes.putNotification(made);
           }
         });
         const auto root = SQLite::Database(path.string(), SQLite::OPEN_READONLY)
                               .execAndGet("SELECT rootpage FROM sqlite_schema WHERE name = 'notifications'")
                               .getInt64();
         std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
         file.seekp(static_cast<std::streamoff>((root - 1) * 4096));
         file << std::string(16, 'U');  // its page header
         return path;
       },
       "damaged ("},
  };
  for (const auto& [make, cause] : cases) {
    const auto path = make();
    const auto before = contents(path);
    const auto failure = refusal(path);
    const auto expected = "state file " + path.string() + ": " + cause;
    if (cause.ends_with("(")) {
      EXPECT_TRUE(failure.starts_with(expected) && failure.ends_with(")")) << failure;
      EXPECT_EQ(failure.find('\n'), std::string::npos) << failure;
    } else {
      EXPECT_EQ(failure, expected);
    }
    EXPECT_TRUE(contents(path) == before) << path;
  }

  // A file another ledger of this process holds, under either name. The refused attempts must
  // not drop the POSIX locks SQLite holds for the owner (closing any descriptor of a file drops
  // them all, which is also why its bytes are not read here); only another process sees them.
  const auto held = dir_ / "held.db";
  const auto holder = Ledger::open(held.string());
  for (const auto& path : {held, dir_ / "." / "held.db"}) {
    EXPECT_EQ(refusal(path), "state file " + path.string() + ": in use by another process");
  }
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const int fd = ::open(held.c_str(), O_RDONLY);
    struct flock probe {};
    probe.l_type = F_WRLCK;  // from byte 0 to the end
    ::_exit(fd >= 0 && ::fcntl(fd, F_GETLK, &probe) == 0 && probe.l_type != F_UNLCK ? 0 : 1);
  }
  int probed = -1;
  EXPECT_EQ(::waitpid(child, &probed, 0), child);
  EXPECT_EQ(probed, 0) << "the owner's locks are gone";

  // What a kill during creation can leave, an empty database, is taken as a new ledger.
  EXPECT_EQ(Ledger::open(foreign(dir_ / "empty.db", "PRAGMA journal_mode = WAL").string())
                ->transactionCount(),
            0u);
  const auto missing = dir_ / "missing" / "state.db";
  EXPECT_EQ(refusal(missing),
            "state file " + missing.string() + ": cannot create: No such file or directory");
}

TEST_F(LedgerTest, AFailedWriteLeavesNothingAndTheLedgerGoesOn) {
  struct Oops {};
  const auto path = sampleLedger("state.db");
  auto ledger = Ledger::open(path.string());
  const auto untouched = [&] {
    EXPECT_EQ(ledger->transactionCount(), 7u);
    EXPECT_EQ(ids(ledger->transactions(Selection::unfinished)), (Ids{2, 4}));
    EXPECT_EQ(ledger->value("k"), std::nullopt);
    EXPECT_EQ(ledger->groups().size(), 2u);
  };
  auto big = entry(50, "Consumable", EntryState::purchased, false);
  const auto throwing = [&](LedgerWrite& changes) {
    changes.setFinished(2);
    changes.putTransaction(big);
    changes.removeGroup("g1");
    changes.putValue("k", "v");
    throw Oops{};
  };
  EXPECT_THROW(ledger->write(throwing), Oops);
  untouched();

  // A file size limit makes SQLite fail: in the statement when the row is more than the page
  // cache holds, at COMMIT when it is less. Nothing changes even if the caller swallows it.
  const auto previous = ::signal(SIGXFSZ, SIG_IGN);
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  const auto wal = fs::path(path.string() + "-wal");
  rlimit lowered = saved;
  lowered.rlim_cur =
      std::max(fs::file_size(path), fs::exists(wal) ? fs::file_size(wal) : 0) + 65536;
  const std::pair<rlim_t, bool> attempts[] = {{4 << 20, false}, {4 << 20, true}, {65536, false}};
  for (const auto& row : attempts) {
    const bool swallow = row.second;  // a plain name: clang 14 captures no structured binding
    big.signedForm.assign(lowered.rlim_cur + row.first, 's');
    const auto attempt = [&](const std::function<void()>& change) {
      try {
        change();
      } catch (const LedgerError&) {
        if (!swallow) throw;
      }
    };
    std::string failure;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &lowered), 0);
    try {
      ledger->write([&](LedgerWrite& changes) {
        attempt([&] { changes.setFinished(2); });
        attempt([&] { changes.putTransaction(big); });
        attempt([&] { changes.putValue("k", "v"); });
      });
    } catch (const LedgerError& error) {
      failure = error.what();
    }
    ::setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_TRUE(failure.starts_with("state file " + path.string() + ": cannot commit: "))
        << swallow << " " << failure;
    untouched();
  }
  ::signal(SIGXFSZ, previous);

  ledger->write([](LedgerWrite& changes) { changes.setFinished(4); });
  ledger.reset();
  ledger = Ledger::open(path.string());
  EXPECT_EQ(ids(ledger->transactions(Selection::unfinished)), Ids{2});
  EXPECT_FALSE(ledger->transaction(50).has_value());
  EXPECT_EQ(ledger->value("k"), std::nullopt);
}

// Checkpoints run beside the commits (WalCheckpointer). However fast the commits come, the
// log is copied back and started afresh near its bound (past it by at most what commits while
// one checkpoint runs), and every commit stays.
TEST_F(LedgerTest, TheLogStaysBoundedUnderCommitsWithoutPause) {
  const auto path = dir_ / "busy.db";
  const std::string log = path.string() + "-wal";
  auto ledger = Ledger::open(path.string());
  constexpr int kCommits = 5000;  // ten pages each: three times the bound
  std::uintmax_t largestLog = 0;
  for (int i = 1; i <= kCommits; ++i) {
    auto t = entry(static_cast<std::uint64_t>(i), "Consumable", EntryState::purchased, false);
    t.signedForm.assign(40'000, static_cast<char>('a' + i % 26));
    ledger->write([&](LedgerWrite& changes) { changes.putTransaction(t); });
    std::error_code missing;
    const auto size = fs::file_size(log, missing);
    if (!missing) largestLog = std::max(largestLog, size);
  }
  // A frame is a page and its 24-byte header; the log has a 32-byte header.
  constexpr std::uintmax_t kFrame = 4096 + 24;
  EXPECT_GT(largestLog, 0u);
  EXPECT_LE(largestLog, 2 * WalCheckpointer::kMaxPages * kFrame + 32);
  ledger.reset();
  ledger = Ledger::open(path.string());
  EXPECT_EQ(ledger->transactionCount(), static_cast<std::size_t>(kCommits));
  EXPECT_EQ(ledger->signedForm(kCommits),
            std::string(40'000, static_cast<char>('a' + kCommits % 26)));
}

}  // namespace
}  // namespace appstore

namespace appstore {
namespace {

// Signed forms made over their row's payload keep their header once (signing_headers) and read
// back byte for byte through every read, also after a reopen and after a write that added a
// header was rolled back; forms of any other shape are kept whole. A row whose header is gone
// is damage, never a bare signature handed out; a file of this version without the headers'
// table is refused as it was.
TEST_F(LedgerTest, SignedFormsShareTheirHeaderAndReadBackByteForByte) {
  const std::string chainA(3000, 'A');
  const std::string chainB = "eyJ" + std::string(2000, 'B');
  const std::string chainC = "eyJ" + std::string(500, 'C');
  const auto made = [](std::uint64_t id, const std::string& header, std::string payload = "") {
    auto t = entry(id, "Consumable", EntryState::purchased, false);
    if (!payload.empty()) t.payload = std::move(payload);
    t.signedForm = header + "." + platform::base64URLEncode(t.payload) + ".sig" + std::to_string(id);
    return t;
  };
  auto otherMiddle = made(7, chainA);
  otherMiddle.signedForm = chainA + ".e30.sig7";  // not this row's payload
  auto noDots = made(8, chainA);
  noDots.signedForm = "not a token";
  auto noPayload = made(9, chainA);
  noPayload.payload.clear();
  noPayload.signedForm = chainA + "..sig9";
  // Compact: 1, 2, 3 and 6 (whose payload's segment holds base64url's own '-' and '_').
  const std::vector<LedgerTransaction> rows = {
      made(1, chainA), made(2, chainA), made(3, chainB), made(6, chainA, "{\"q\":\"?~?~?~\"}"),
      otherMiddle,     noDots,          noPayload};
  const auto path = dir_ / "headers.db";
  auto ledger = Ledger::open(path.string());
  ledger->write([&](LedgerWrite& changes) {
    for (const auto& t : rows) changes.putTransaction(t);
  });
  EXPECT_THROW(ledger->write([&](LedgerWrite& changes) {
    changes.putTransaction(made(10, chainC));
    throw std::runtime_error("rolled back");
  }),
               std::runtime_error);
  const auto afterRollback = made(11, chainC);
  ledger->write([&](LedgerWrite& changes) { changes.putTransaction(afterRollback); });
  for (int reopened = 0; reopened < 2; ++reopened) {
    for (const auto& t : rows) {
      EXPECT_EQ(ledger->signedForm(t.id), t.signedForm) << t.id;
      EXPECT_EQ(ledger->transaction(t.id)->signedForm, t.signedForm) << t.id;
      EXPECT_EQ(ledger->transaction(t.id)->payload, t.payload) << t.id;
    }
    EXPECT_EQ(ledger->signedForm(11), afterRollback.signedForm);
    EXPECT_FALSE(ledger->transaction(10).has_value());
    HistoryQuery all;
    all.limit = 100;
    std::vector<std::string> forms, expected;
    for (const auto& t : ledger->history(all)) forms.push_back(t.signedForm);
    for (const auto& t : rows) expected.push_back(t.signedForm);
    expected.push_back(afterRollback.signedForm);
    std::sort(forms.begin(), forms.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(forms, expected);
    ledger.reset();
    ledger = Ledger::open(path.string());
  }
  ledger.reset();
  {
    SQLite::Database file(path.string(), SQLite::OPEN_READWRITE);
    EXPECT_EQ(file.execAndGet("SELECT count(*) FROM signing_headers").getInt(), 3);
    EXPECT_EQ(file.execAndGet("SELECT group_concat(id) FROM (SELECT id FROM transaction_texts "
                              "WHERE header_id IS NOT NULL AND length(signed_form) < 6 ORDER BY id)")
                  .getString(),
              "1,2,3,6,11");
    file.exec("DELETE FROM signing_headers WHERE header = '" + chainB + "'");
  }
  ledger = Ledger::open(path.string());
  EXPECT_EQ(ledger->signedForm(1), rows[0].signedForm);
  try {
    (void)ledger->signedForm(3);
    ADD_FAILURE() << "a signed form without its header was read";
  } catch (const LedgerError& error) {
    EXPECT_TRUE(std::string(error.what()).starts_with("state file " + path.string() + ": damaged ("))
        << error.what();
  }
  ledger.reset();

  SQLite::Database(sampleLedger("no-headers.db").string(), SQLite::OPEN_READWRITE)
      .exec("DROP TABLE signing_headers");
  const auto before = contents(dir_ / "no-headers.db");
  EXPECT_EQ(refusal(dir_ / "no-headers.db"),
            "state file " + (dir_ / "no-headers.db").string() + ": damaged (no table signing_headers)");
  EXPECT_TRUE(contents(dir_ / "no-headers.db") == before);
}

}  // namespace
}  // namespace appstore
