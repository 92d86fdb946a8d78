#include "records/record.h"

#include <algorithm>
#include <utility>

#include "platform/database.h"
#include "platform/text.h"
#include "platform/xml.h"
#include "records/general_utilities.h"
#include "records/sql_statement.h"

namespace quillo {

namespace {

// The exact messages of the XML operations.
constexpr const char* kGetDocumentFailed = "Error Getting XML DOM Object";
constexpr const char* kLoadElementFailed = "Error Setting Class From Document Element";
constexpr const char* kLoadXmlFailed = "Error Setting Class From XML";

Record::Value EmptyValue(ColumnType type) {
  switch (type) {
    case ColumnType::kText:
      return std::string();
    case ColumnType::kInteger:
      return std::int16_t{0};
    case ColumnType::kLong:
      return std::int32_t{0};
    case ColumnType::kSingle:
      return 0.0f;
    case ColumnType::kDate:
      return Date();
  }
  return std::string();
}

}  // namespace

// ---------------------------------------------------------------------------
// TableInfo.

TableInfo::TableInfo(std::string_view table, std::vector<ColumnDeclaration> columns,
                     std::string_view key_property, const ExtraMembers& extra)
    : table_(table), root_element_(UCase(table)), members_(std::string(table), {}) {
  columns_.reserve(columns.size());
  for (size_t i = 0; i < columns.size(); ++i) {
    const ColumnDeclaration& decl = columns[i];
    columns_.push_back(Column{std::string(decl.property), std::string(decl.sql_name),
                              UCase(decl.property), decl.type});
    if (EqualsIgnoreCase(decl.property, key_property)) key_ = i;
  }
  const std::string& key = columns_[key_].sql_name;
  select_sql_ = "SELECT * FROM " + table_ + " WHERE " + key + " = ";
  delete_sql_ = "DELETE FROM " + table_ + " WHERE " + key + " = ";
  probe_sql_ = "SELECT " + key + " FROM " + table_ + " WHERE " + key + " = ";
  update_sql_ = "UPDATE " + table_ + " SET ? WHERE " + key + " = ";
  insert_sql_ = "INSERT INTO " + table_ + " (?) VALUES (?);";

  // The column properties, get then let, in column order; then the shared
  // members; then the class's own.
  MemberTable::Builder<Record> builder(table_);
  for (size_t i = 0; i < columns_.size(); ++i) {
    builder.Raw(Member{columns_[i].property, CallKind::kGet, 0, 0,
                       [i](Object& self, std::span<const Variant>) {
                         return static_cast<Record&>(self).ColumnValue(i);
                       }});
    builder.Raw(Member{columns_[i].property, CallKind::kPut, 1, 1,
                       [i](Object& self, std::span<const Variant> args) {
                         static_cast<Record&>(self).ColumnValue(i, args[0]);
                         return Variant();
                       }});
  }
  Record::AddSharedMembers(builder);
  if (extra) extra(builder);
  members_ = builder.Build();
}

// ---------------------------------------------------------------------------
// Record: storage and shared properties.

Record::Record(const TableInfo& table) : table_(&table) {
  values_.reserve(table.columns().size());
  for (const Column& c : table.columns()) values_.push_back(EmptyValue(c.type));
}

Record::~Record() = default;

Variant Record::ColumnValue(size_t index) const {
  return std::visit([](const auto& v) { return Variant(v); }, values_[index]);
}

void Record::ColumnValue(size_t index, const Variant& value) {
  switch (table_->columns()[index].type) {
    case ColumnType::kText:
      values_[index] = value.ToString();
      break;
    case ColumnType::kInteger:
      values_[index] = value.ToInteger();
      break;
    case ColumnType::kLong:
      values_[index] = value.ToLong();
      break;
    case ColumnType::kSingle:
      values_[index] = value.ToSingle();
      break;
    case ColumnType::kDate:
      values_[index] = value.ToDate();
      break;
  }
}

void Record::Connection(std::shared_ptr<quillo::Connection> connection) {
  connection_ = std::move(connection);
}

bool Record::ConnectionOpen() const { return connection_ && connection_->State() == 1; }

bool Record::IsNew() const { return Trim(TextAt(table_->key())).empty(); }

std::string Record::LastSQLExecuted() const {
  return sql_executed_.empty() ? std::string() : sql_executed_.back();
}

GeneralUtilities& Record::Utilities() {
  if (!utilities_) utilities_ = std::make_unique<GeneralUtilities>();
  return *utilities_;
}

void Record::Fail(std::string message) {
  error_ = true;
  error_message_ = std::move(message);
}

std::string Record::QuotedKey() const { return "'" + TextAt(table_->key()) + "';"; }

void Record::StoreConverted(size_t index, const Variant& value, bool from_xml) {
  GeneralUtilities& u = Utilities();
  switch (table_->columns()[index].type) {
    case ColumnType::kText:
      if (auto* text = std::get_if<std::string>(&values_[index]); text && value.IsString()) {
        text->assign(value.StringRef());
      } else {
        values_[index] = u.NCString(value);
      }
      break;
    case ColumnType::kInteger:
      values_[index] = u.NCInteger(value).ToInteger();
      break;
    case ColumnType::kLong:
      values_[index] = u.NCLong(value).ToLong();
      break;
    case ColumnType::kSingle:
      values_[index] = u.NCSingle(value).ToSingle();
      break;
    case ColumnType::kDate:
      values_[index] = from_xml ? u.ODBCToDateTime(value.StringRef()) : u.NCDate(value);
      break;
  }
}

// ---------------------------------------------------------------------------
// Record: database protocol.

void Record::LoadDataFromDS(const std::shared_ptr<Recordset>& ds) {
  if (!ds) Raise(err::kObjectNotSet);
  if (ds->Eof()) return;
  const std::vector<Column>& columns = table_->columns();
  // Each column read into a Variant kept for that column, and texts copied
  // into the record's own strings: rows load without allocating once the
  // strings have grown to their lengths.
  thread_local std::vector<Variant> read;
  if (read.size() < columns.size()) read.resize(columns.size());
  for (size_t i = 0; i < columns.size(); ++i) {
    ds->FieldValue(columns[i].sql_name, &read[i]);
    StoreConverted(i, read[i], false);
  }
}

void Record::LoadData() {
  error_ = false;
  sql_executed_.clear();
  SQLStatement statement;
  try {
    if (connection_) statement.Connection(connection_);
    statement.Sql(table_->select_sql() + QuotedKey());
    auto rs = std::make_shared<Recordset>();
    statement.GetRecordsetFO(rs);
    sql_executed_.push_back(statement.LastSQLExecuted());
    LoadDataFromDS(rs);
    rs->Close();
  } catch (...) {
    Fail(statement.ErrorMessage());
  }
}

void Record::Delete() {
  error_ = false;
  sql_executed_.clear();
  SQLStatement statement;
  if (connection_) statement.Connection(connection_);
  statement.Sql(table_->delete_sql() + QuotedKey());
  statement.Execute();
  sql_executed_.push_back(statement.LastSQLExecuted());
  if (statement.Error()) Fail(statement.ErrorMessage());
}

bool Record::SaveData() {
  bool result = true;
  error_ = false;
  sql_executed_.clear();
  SQLStatement statement;
  try {
    if (connection_) statement.Connection(connection_);
    statement.Sql(table_->probe_sql() + QuotedKey());
    auto probe = std::make_shared<Recordset>();
    statement.GetRecordsetFO(probe);
    sql_executed_.push_back(statement.LastSQLExecuted());
    const std::vector<Column>& columns = table_->columns();
    const size_t key = table_->key();
    if (probe->Eof()) {
      statement.Sql(table_->insert_sql());
      values_[key] = CallByName(id_generator_, "GetNextRecordID", CallKind::kMethod).ToString();
      statement.SetString(columns[key].sql_name, TextAt(key));
    } else {
      statement.Sql(table_->update_sql() + QuotedKey());
    }
    SetColumns(statement);
    statement.Execute();
    sql_executed_.push_back(statement.LastSQLExecuted());
    if (statement.Error()) {
      Fail(statement.ErrorMessage());
      result = false;
    }
  } catch (...) {
    Fail(statement.ErrorMessage());
    result = false;
  }
  return result;
}

void Record::SetColumns(SQLStatement& statement) const {
  const std::vector<Column>& columns = table_->columns();
  for (size_t i = 0; i < columns.size(); ++i) {
    if (i == table_->key()) continue;
    const std::string& name = columns[i].sql_name;
    switch (columns[i].type) {
      case ColumnType::kText:
        statement.SetString(name, TextAt(i));
        break;
      case ColumnType::kInteger:
        statement.SetInteger(name, IntegerAt(i));
        break;
      case ColumnType::kLong:
        statement.SetLong(name, LongAt(i));
        break;
      case ColumnType::kSingle:
        statement.SetSingle(name, SingleAt(i));
        break;
      case ColumnType::kDate:
        statement.SetTimeStamp(name, DateAt(i));
        break;
    }
  }
}

void Record::InsertNew(std::span<Record* const> records) {
  // Rows per statement: well inside every engine's limit on a statement's
  // size and parameters.
  constexpr size_t kRowsPerStatement = 200;
  for (size_t from = 0; from < records.size(); from += kRowsPerStatement) {
    const size_t to = std::min(records.size(), from + kRowsPerStatement);
    const Record& first = *records[from];
    if (!first.connection_) Raise(err::kObjectNotSet);
    std::string sql;
    for (size_t r = from; r < to; ++r) {
      Record& record = *records[r];
      if (record.table_ != first.table_ || record.connection_ != first.connection_) {
        Raise(err::kInvalidProcedureCall);
      }
      const size_t key = record.table_->key();
      record.values_[key] =
          CallByName(record.id_generator_, "GetNextRecordID", CallKind::kMethod).ToString();
      SQLStatement statement;
      statement.Sql(record.table_->insert_sql());
      statement.SetString(record.table_->columns()[key].sql_name, record.TextAt(key));
      record.SetColumns(statement);
      if (sql.empty()) {
        const std::string& text = first.table_->insert_sql();  // "INSERT INTO t (?) VALUES (?);"
        sql.assign(text, 0, text.find('?'));
        sql += statement.FieldNames();
        sql += ") VALUES ";
      } else {
        sql += ", ";
      }
      sql += '(';
      sql += statement.FieldValues();
      sql += ')';
    }
    first.connection_->Execute(sql);
  }
}

void Record::Copy(const ObjectPtr& source) {
  if (!source) Raise(err::kObjectNotSet);
  const std::vector<Column>& columns = table_->columns();
  for (size_t i = 0; i < columns.size(); ++i) {
    ColumnValue(i, source->Invoke(columns[i].property, CallKind::kGet));
  }
}

// ---------------------------------------------------------------------------
// Record: XML form.

std::shared_ptr<DOMDocument> Record::BuildDocument() {
  auto doc = std::make_shared<DOMDocument>();
  auto root = doc->createElement(table_->root_element());
  doc->documentElement(root);
  const std::vector<Column>& columns = table_->columns();
  for (size_t i = 0; i < columns.size(); ++i) {
    auto child = doc->createElement(columns[i].element);
    switch (columns[i].type) {
      case ColumnType::kText:
        child->text(TextAt(i));
        break;
      case ColumnType::kInteger:
        child->text(CStrNumber(IntegerAt(i)));
        break;
      case ColumnType::kLong:
        child->text(CStrNumber(LongAt(i)));
        break;
      case ColumnType::kSingle:
        child->text(CStrSingle(SingleAt(i)));
        break;
      case ColumnType::kDate:
        child->text(Utilities().DateTimeToODBC(DateAt(i)));
        break;
    }
    root->appendChild(child);
  }
  return doc;
}

std::shared_ptr<DOMDocument> Record::GetDOMDocument() {
  try {
    return BuildDocument();
  } catch (...) {
    Fail(kGetDocumentFailed);
    return nullptr;
  }
}

std::shared_ptr<DOMNode> Record::GetDOMElement() {
  auto doc = GetDOMDocument();
  return doc ? doc->documentElement() : nullptr;
}

std::string Record::XML() {
  auto doc = GetDOMDocument();
  return doc ? doc->xml() : std::string();
}

void Record::LoadFromDOMElement(const std::shared_ptr<DOMNode>& element) {
  error_ = false;
  try {
    if (!element) Raise(err::kObjectNotSet);
    const std::vector<Column>& columns = table_->columns();
    for (const auto& child : element->ChildList()) {
      if (child->nodeType() != DOMNodeType::kElement) continue;
      std::string name = UCase(child->tagName());
      for (size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].element == name) {
          StoreConverted(i, Variant(child->text()), true);
          break;
        }
      }
    }
  } catch (...) {
    Fail(kLoadElementFailed);
  }
}

void Record::XML(std::string_view text) {
  error_ = false;
  std::shared_ptr<DOMNode> root;
  try {
    auto doc = std::make_shared<DOMDocument>();
    doc->loadXML(text);
    root = doc->documentElement();
  } catch (...) {
    Fail(kLoadXmlFailed);
    return;
  }
  LoadFromDOMElement(root);
}

// ---------------------------------------------------------------------------
// The shared members, in interface order.

void Record::AddSharedMembers(MemberTable::Builder<Record>& b) {
  using R = Record;
  b.Get("Connection", [](R& r) { return r.Connection(); })
      .Put("Connection",
           [](R& r, std::shared_ptr<quillo::Connection> c) { r.Connection(std::move(c)); })
      .Get("IDGenerator", [](R& r) { return r.IDGenerator(); })
      .Put("IDGenerator", [](R& r, ObjectPtr g) { r.IDGenerator(std::move(g)); })
      .Get("UI", [](R& r) { return r.UI(); })
      .Put("UI", [](R& r, ObjectPtr ui) { r.UI(std::move(ui)); })
      .Get("Error", [](R& r) { return r.Error(); })
      .Put("Error", [](R& r, bool e) { r.Error(e); })
      .Get("ErrorMessage", [](R& r) { return r.ErrorMessage(); })
      .Put("ErrorMessage", [](R& r, std::string m) { r.ErrorMessage(std::move(m)); })
      .Get("ConnectionOpen", [](R& r) { return r.ConnectionOpen(); })
      .Get("IsNew", [](R& r) { return r.IsNew(); })
      .Method("LoadDataFromDS", [](R& r, std::shared_ptr<Recordset> ds) { r.LoadDataFromDS(ds); })
      .Method("LoadData", [](R& r) { r.LoadData(); })
      .Method("Delete", [](R& r) { r.Delete(); })
      .Method("SaveData", [](R& r) { return Variant(r.SaveData()); })
      .Method("Copy", [](R& r, ObjectPtr source) { r.Copy(source); })
      .Method("GetDOMDocument", [](R& r) { return r.GetDOMDocument(); })
      .Method("GetDOMElement", [](R& r) { return r.GetDOMElement(); })
      .Get("XML", [](R& r) { return r.XML(); })
      // The element arrives as any value: an object that is not a DOM node is
      // reported through Error like any other load failure.
      .Method("LoadFromDOMElement",
              [](R& r, Variant element) {
                std::shared_ptr<DOMNode> node;
                if (element.IsObject())
                  node = std::dynamic_pointer_cast<DOMNode>(element.ObjectRef());
                r.LoadFromDOMElement(node);
              })
      .Put("XML", [](R& r, std::string text) { r.XML(text); });
}

}  // namespace quillo
