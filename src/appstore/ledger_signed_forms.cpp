#include "appstore/ledger_signed_forms.h"

#include <sqlite3.h>

#include <SQLiteCpp/Exception.h>

#include "platform/base64.h"

namespace appstore::ledger_signed_forms {

std::string signedForm(const SQLite::Statement& row, int first) {
  const auto stored = row.getColumn(first + 1);
  const auto headerID = row.getColumn(first + 2);
  if (headerID.isNull()) return stored.getString();
  const auto header = row.getColumn(first + 3);
  if (header.isNull()) {
    throw SQLite::Exception("a signed form's header is missing", SQLITE_CORRUPT);
  }
  // The payload's segment is unpadded base64url, as the signer wrote it (RFC 7515); a file
  // depends on that encoding never changing.
  const auto payload = platform::base64URLEncode(row.getColumn(first).getString());
  const auto headerText = header.getString();
  const auto rest = stored.getString();
  std::string form;
  form.reserve(headerText.size() + payload.size() + rest.size() + 2);
  form.append(headerText).append(1, '.').append(payload).append(1, '.').append(rest);
  return form;
}

Headers::Headers(SQLite::Database& database)
    : database_(database),
      find_(database, "SELECT id FROM signing_headers WHERE header = ?1"),
      add_(database, "INSERT INTO signing_headers (header) VALUES (?1)") {}

Stored Headers::store(std::string_view payload, const std::string& signedForm) {
  const auto first = signedForm.find('.');
  if (payload.empty() || first == 0 || first == std::string::npos) {
    return {std::nullopt, signedForm};
  }
  const auto second = signedForm.find('.', first + 1);
  if (second == std::string::npos) return {std::nullopt, signedForm};
  const std::string_view middle(signedForm.data() + first + 1, second - first - 1);
  if (middle != platform::base64URLEncode(payload)) return {std::nullopt, signedForm};
  return {idOf(std::string_view(signedForm).substr(0, first)), signedForm.substr(second + 1)};
}

std::int64_t Headers::idOf(std::string_view header) {
  if (const auto found = known_.find(header); found != known_.end()) return found->second;
  if (const auto found = added_.find(header); found != added_.end()) return found->second;
  find_.tryReset();
  find_.bind(1, std::string(header));
  if (find_.executeStep()) {
    const auto id = find_.getColumn(0).getInt64();
    find_.reset();
    // Not added by this write, so committed before it.
    known_.emplace(header, id);
    return id;
  }
  find_.reset();
  add_.tryReset();
  add_.bind(1, std::string(header));
  add_.exec();
  const auto id = database_.getLastInsertRowid();
  added_.emplace(header, id);
  return id;
}

void Headers::committed() { known_.merge(added_); added_.clear(); }

void Headers::rolledBack() { added_.clear(); }

}  // namespace appstore::ledger_signed_forms
