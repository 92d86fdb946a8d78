// Connection, Recordset and Field over the engines of platform/db.
#include "platform/database.h"

#include <utility>

#include "platform/db/backend.h"
#include "platform/db/row_store.h"
#include "platform/error.h"
#include "platform/text.h"

namespace quillo {
namespace {

// EqualsIgnoreCase for column names, inline: the record classes look up
// every column of every row by name.
inline char Fold(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
bool SameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i] && Fold(a[i]) != Fold(b[i])) return false;
  }
  return true;
}

[[noreturn]] void RaiseClosed() {
  Raise(err::kDbObjectClosed, "Operation is not allowed when the object is closed.");
}

}  // namespace

// ---------------------------------------------------------------------------
// Connection

Connection::Connection() = default;
Connection::~Connection() = default;

void Connection::Open(std::string_view connection_text) {
  if (backend_) {
    Raise(err::kDbObjectOpen, "Operation is not allowed when the object is open.");
  }
  backend_ = db::OpenBackend(connection_text);
  connection_text_ = std::string(connection_text);
}

long Connection::State() const { return backend_ ? kAdStateOpen : kAdStateClosed; }

long Connection::Execute(std::string_view sql, long* records_affected, long /*options*/) {
  if (!backend_) RaiseClosed();
  const long changed = backend_->Execute(sql);
  if (records_affected) *records_affected = changed;
  return changed;
}

void Connection::Close() {
  if (!backend_) RaiseClosed();
  backend_.reset();
}

std::string Connection::EngineName() const {
  return backend_ ? backend_->EngineName() : std::string();
}

db::Backend& Connection::Backend() {
  if (!backend_) {
    Raise(err::kDbConnectionClosed,
          "The connection cannot be used to perform this operation. It is either closed or "
          "invalid in this context.");
  }
  return *backend_;
}

const MemberTable& Connection::Members() const {
  static const MemberTable table =
      MemberTable::Builder<Connection>("Connection")
          .Method("Open", [](Connection& c, std::string text) { c.Open(text); })
          .Get("State", [](Connection& c) { return static_cast<std::int32_t>(c.State()); })
          .Method("Execute",
                  [](Connection& c, std::string sql, std::optional<Variant> /*affected*/,
                     std::optional<std::int32_t> options) {
                    return static_cast<std::int32_t>(c.Execute(sql, nullptr, options.value_or(-1)));
                  })
          .Method("Close", [](Connection& c) { c.Close(); })
          .Get("ConnectionString", [](Connection& c) { return c.ConnectionString(); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(Connection, Creatable::kPublic);

// ---------------------------------------------------------------------------
// Field

const MemberTable& Field::Members() const {
  static const MemberTable table = MemberTable::Builder<Field>("Field")
                                       .Get("Value", [](Field& f) { return f.Value(); })
                                       .Get("Name", [](Field& f) { return f.Name(); })
                                       .Build();
  return table;
}

// ---------------------------------------------------------------------------
// Recordset

Recordset::Recordset() = default;
Recordset::~Recordset() = default;

void Recordset::Open(std::string_view source, const std::shared_ptr<Connection>& active_connection,
                     long cursor_type, long /*lock_type*/, long /*options*/) {
  if (open_) Raise(err::kDbObjectOpen, "Operation is not allowed when the object is open.");
  if (!active_connection) {
    Raise(err::kDbConnectionClosed,
          "The connection cannot be used to perform this operation. It is either closed or "
          "invalid in this context.");
  }
  db::Backend& backend = active_connection->Backend();
  const bool forward_only = cursor_type == kAdOpenForwardOnly;
  std::unique_ptr<db::Cursor> cursor = backend.Query(source, forward_only);
  names_ = cursor->Names();
  rows_.reset();
  row_.clear();
  position_ = 0;
  if (forward_only) {
    eof_ = !cursor->Next(&row_);
    has_next_ = !eof_ && cursor->Next(&next_row_);
    cursor_ = has_next_ ? std::move(cursor) : nullptr;
  } else {
    auto rows = std::make_unique<db::RowStore>();
    while (cursor->NextInto(rows.get())) {
    }
    rows_ = std::move(rows);
    cursor_.reset();
  }
  cursor_type_ = forward_only ? kAdOpenForwardOnly
                              : (cursor_type == kAdOpenStatic ? kAdOpenStatic : kAdOpenKeyset);
  open_ = true;
}

long Recordset::State() const { return open_ ? kAdStateOpen : kAdStateClosed; }

void Recordset::RequireOpen() const {
  if (!open_) RaiseClosed();
}

bool Recordset::Eof() const {
  RequireOpen();
  if (cursor_type_ == kAdOpenForwardOnly) return eof_;
  return position_ >= rows_->size();
}

void Recordset::MoveNext() {
  RequireOpen();
  if (Eof()) {
    Raise(err::kDbNoCurrentRecord,
          "Either BOF or EOF is True, or the current record has been deleted. Requested "
          "operation requires a current record.");
  }
  if (cursor_type_ == kAdOpenForwardOnly) {
    // One row is read ahead, so that the engine's statement finishes (and
    // lets go of its read snapshot) as soon as the last row is current.
    if (has_next_) {
      row_.swap(next_row_);
      has_next_ = cursor_->Next(&next_row_);
      if (!has_next_) cursor_.reset();
    } else {
      eof_ = true;
    }
  } else {
    // Recordsets only move forward: the rows passed are never read again.
    rows_->ReleaseBefore(++position_);
  }
}

long Recordset::RecordCount() const {
  RequireOpen();
  if (cursor_type_ == kAdOpenForwardOnly) return -1;
  return static_cast<long>(rows_->size());
}

long Recordset::ColumnIndex(std::string_view name) const {
  for (size_t i = 0; i < names_.size(); ++i) {
    if (SameName(names_[i], name)) return static_cast<long>(i);
  }
  Raise(err::kDbItemNotFound,
        "Item cannot be found in the collection corresponding to the "
        "requested name or ordinal.");
}

Variant Recordset::CurrentValue(long column) const {
  Variant value;
  CurrentValueInto(column, &value);
  return value;
}

void Recordset::CurrentValueInto(long column, Variant* value) const {
  if (Eof()) {
    Raise(err::kDbNoCurrentRecord,
          "Either BOF or EOF is True, or the current record has been deleted. Requested "
          "operation requires a current record.");
  }
  if (cursor_type_ == kAdOpenForwardOnly) {
    *value = row_[static_cast<size_t>(column)];
  } else {
    rows_->ValueInto(position_, static_cast<size_t>(column), value);
  }
}

std::shared_ptr<Field> Recordset::Fields(std::string_view name) const {
  RequireOpen();
  const long column = ColumnIndex(name);
  return std::make_shared<Field>(names_[static_cast<size_t>(column)], CurrentValue(column));
}

Variant Recordset::FieldValue(std::string_view name) const {
  RequireOpen();
  return CurrentValue(ColumnIndex(name));
}

void Recordset::FieldValue(std::string_view name, Variant* value) const {
  RequireOpen();
  CurrentValueInto(ColumnIndex(name), value);
}

long Recordset::FieldCount() const {
  RequireOpen();
  return static_cast<long>(names_.size());
}

std::string Recordset::FieldName(long index) const {
  RequireOpen();
  if (index < 0 || index >= static_cast<long>(names_.size())) {
    Raise(err::kDbItemNotFound,
          "Item cannot be found in the collection corresponding to the "
          "requested name or ordinal.");
  }
  return names_[static_cast<size_t>(index)];
}

void Recordset::Close() {
  RequireOpen();
  open_ = false;
  cursor_.reset();
  rows_.reset();
  row_.clear();
  next_row_.clear();
  has_next_ = false;
  names_.clear();
  eof_ = true;
  position_ = 0;
}

const MemberTable& Recordset::Members() const {
  static const MemberTable table =
      MemberTable::Builder<Recordset>("Recordset")
          .Method("Open",
                  [](Recordset& r, std::string source, std::shared_ptr<Connection> connection,
                     std::optional<std::int32_t> cursor_type, std::optional<std::int32_t> lock,
                     std::optional<std::int32_t> options) {
                    r.Open(source, connection, cursor_type.value_or(kAdOpenForwardOnly),
                           lock.value_or(kAdLockReadOnly), options.value_or(-1));
                  })
          .Get("State", [](Recordset& r) { return static_cast<std::int32_t>(r.State()); })
          .Get("EOF", [](Recordset& r) { return r.Eof(); })
          .Method("MoveNext", [](Recordset& r) { r.MoveNext(); })
          .Get("RecordCount",
               [](Recordset& r) { return static_cast<std::int32_t>(r.RecordCount()); })
          .Get("Fields", [](Recordset& r, std::string name) { return r.Fields(name); })
          .Method("Close", [](Recordset& r) { r.Close(); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(Recordset, Creatable::kPublic);

}  // namespace quillo
