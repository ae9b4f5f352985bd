// How the ledger keeps the signed forms of transactions. A compact JWS this store signs is
// header "." base64url(payload) "." signature, and its header (the x5c certificate chain,
// most of the token) is the same for every token one identity signs. So the header is kept
// once, in signing_headers, and a row keeps beside its payload (kept anyway) only what follows
// the payload's segment, with the header's id: the form is reassembled, byte for byte, when
// read. A signed form of any other shape, or whose middle segment is not exactly its row's
// payload in unpadded base64url, is kept whole (no header id), as are the rows of files
// written before signing_headers existed. Private to the ledger's files; runs within the
// ledger's own calls (its caller serialises).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

namespace appstore::ledger_signed_forms {

// The columns a query joins to read a transaction's signed form, in the order signedForm()
// takes them: payload, the stored text, the header id, the header (from signing_headers "h").
constexpr const char* kColumns = "x.payload, x.signed_form, x.header_id, h.header";
constexpr const char* kJoin = " LEFT JOIN signing_headers AS h ON h.id = x.header_id";

// The signed form of a row read with kColumns from column `first` on. Throws SQLite::Exception
// (as damage) when the row names a header the file does not have.
std::string signedForm(const SQLite::Statement& row, int first);

// How a signed form is written: the header's id and the text to store, or the form whole.
struct Stored {
  std::optional<std::int64_t> headerID;
  std::string text;
};

class Headers {
 public:
  explicit Headers(SQLite::Database& database);

  // What to store for `signedForm` made over `payload`; adds its header when new.
  Stored store(std::string_view payload, const std::string& signedForm);

  // The write that added headers committed, or rolled back (their ids are then forgotten).
  void committed();
  void rolledBack();

 private:
  std::int64_t idOf(std::string_view header);

  SQLite::Database& database_;
  SQLite::Statement find_;
  SQLite::Statement add_;
  std::map<std::string, std::int64_t, std::less<>> known_;  // committed
  std::map<std::string, std::int64_t, std::less<>> added_;  // by the write under way
};

}  // namespace appstore::ledger_signed_forms
