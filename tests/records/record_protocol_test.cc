// The whole record protocol (new, save, load, update, copy, XML round trip,
// delete) run over every table class on every engine, plus the shape of each
// class's interface.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/database.h"
#include "platform/object.h"
#include "platform/text.h"
#include "records/record.h"
#include "records/record_test_util.h"

namespace quillo {
namespace {

using records_test::CountRows;
using records_test::FixedIdGenerator;

const std::vector<std::string> kTableClasses = {"dmmrktcmp",
                                                "dmmrktcmpitems",
                                                "dmmrktcmphistory",
                                                "dmclientsmrktcmp",
                                                "dmsentitems",
                                                "dmcatalogitem",
                                                "dmclients",
                                                "dmclientscustom",
                                                "dmcontrolparameters",
                                                "dmcustomfielddef",
                                                "dmcustomfieldlistdef",
                                                "dmolxref",
                                                "dmsinglemessageconfig",
                                                "dmsmtpaccounts"};

const std::vector<std::string> kSharedMembers = {"Connection",
                                                 "Connection",
                                                 "IDGenerator",
                                                 "IDGenerator",
                                                 "UI",
                                                 "UI",
                                                 "Error",
                                                 "Error",
                                                 "ErrorMessage",
                                                 "ErrorMessage",
                                                 "ConnectionOpen",
                                                 "IsNew",
                                                 "LoadDataFromDS",
                                                 "LoadData",
                                                 "Delete",
                                                 "SaveData",
                                                 "Copy",
                                                 "GetDOMDocument",
                                                 "GetDOMElement",
                                                 "XML",
                                                 "LoadFromDOMElement",
                                                 "XML"};

std::shared_ptr<Record> MakeRecord(const std::string& name) {
  auto record = std::dynamic_pointer_cast<Record>(CreateObject(name));
  EXPECT_NE(record, nullptr) << name;
  return record;
}

// A distinct value for column `i` (seed `s` varies it between saves).
Variant SampleValue(ColumnType type, size_t i, int s) {
  switch (type) {
    case ColumnType::kText:
      return Variant("v" + std::to_string(i) + "'s " + std::to_string(s));
    case ColumnType::kInteger:
      return Variant(static_cast<std::int16_t>((i % 2 ? -1 : 1) * (static_cast<int>(i) + 2 + s)));
    case ColumnType::kLong:
      return Variant(static_cast<std::int32_t>((i % 2 ? -1 : 1) * (100000 + 7 * i + s)));
    case ColumnType::kSingle:
      return Variant(1.5f + static_cast<float>(i) + static_cast<float>(s));
    case ColumnType::kDate:
      // Whole seconds: 2005-03-01 plus i days, 10:i:s.
      return Variant(Date(38412.0 + i + s + (10 * 3600 + 60 * i + s) / 86400.0));
  }
  return Variant();
}

void ExpectSameColumns(const Record& expected, const Record& actual) {
  const auto& columns = expected.Info().columns();
  for (size_t i = 0; i < columns.size(); ++i) {
    Variant a = expected.ColumnValue(i), b = actual.ColumnValue(i);
    if (columns[i].type == ColumnType::kDate) {
      EXPECT_NEAR(a.ToDouble(), b.ToDouble(), 0.5 / 86400.0) << columns[i].property;
    } else {
      EXPECT_EQ(a, b) << columns[i].property;
    }
  }
}

// ---------------------------------------------------------------------------
// Interface shape, per class.

class RecordShape : public ::testing::TestWithParam<std::string> {};

TEST_P(RecordShape, NewRecordIsEmpty) {
  auto record = MakeRecord(GetParam());
  const auto& columns = record->Info().columns();
  for (size_t i = 0; i < columns.size(); ++i) {
    Variant v = record->ColumnValue(i);
    switch (columns[i].type) {
      case ColumnType::kText:
        EXPECT_EQ(v, Variant(std::string())) << columns[i].property;
        break;
      case ColumnType::kInteger:
        EXPECT_EQ(v, Variant(std::int16_t{0})) << columns[i].property;
        break;
      case ColumnType::kLong:
        EXPECT_EQ(v, Variant(std::int32_t{0})) << columns[i].property;
        break;
      case ColumnType::kSingle:
        EXPECT_EQ(v, Variant(0.0f)) << columns[i].property;
        break;
      case ColumnType::kDate:
        EXPECT_EQ(v, Variant(Date())) << columns[i].property;
        break;
    }
  }
  EXPECT_TRUE(record->IsNew());
  EXPECT_FALSE(record->Error());
  EXPECT_EQ(record->ErrorMessage(), "");
  EXPECT_EQ(record->Connection(), nullptr);
  EXPECT_FALSE(record->ConnectionOpen());
}

TEST_P(RecordShape, MembersAreColumnPairsThenTheSharedMembers) {
  auto record = MakeRecord(GetParam());
  const auto& members = record->Members().members();
  const auto& columns = record->Info().columns();
  ASSERT_GE(members.size(), 2 * columns.size() + kSharedMembers.size());
  size_t m = 0;
  for (const Column& c : columns) {
    EXPECT_EQ(members[m].name, c.property);
    EXPECT_EQ(members[m++].kind, CallKind::kGet);
    EXPECT_EQ(members[m].name, c.property);
    EXPECT_EQ(members[m++].kind, CallKind::kPut);
  }
  for (const std::string& name : kSharedMembers) EXPECT_EQ(members[m++].name, name);
  std::vector<std::string> extra;
  for (; m < members.size(); ++m) extra.push_back(members[m].name);
  if (GetParam() == "dmmrktcmphistory") {
    EXPECT_EQ(extra,
              (std::vector<std::string>{"LoadLatestByEffectiveDate", "LoadLatestByRunDate"}));
  } else {
    EXPECT_TRUE(extra.empty());
  }
  EXPECT_EQ(record->TypeName(), GetParam());
  EXPECT_EQ(record->Info().root_element(), UCase(GetParam()));
}

TEST_P(RecordShape, ColumnPropertiesConvertByName) {
  auto record = MakeRecord(GetParam());
  const auto& columns = record->Info().columns();
  for (size_t i = 0; i < columns.size(); ++i) {
    switch (columns[i].type) {
      case ColumnType::kText:
        record->Invoke(columns[i].property, CallKind::kPut, {Variant(12)});
        EXPECT_EQ(record->ColumnValue(i), Variant("12"));
        break;
      case ColumnType::kInteger:
        record->Invoke(columns[i].property, CallKind::kPut, {Variant("12.5")});
        EXPECT_EQ(record->ColumnValue(i), Variant(std::int16_t{12}));
        EXPECT_THROW(record->Invoke(columns[i].property, CallKind::kPut, {Variant(40000)}),
                     RuntimeError);
        break;
      case ColumnType::kLong:
        record->Invoke(columns[i].property, CallKind::kPut, {Variant("13.5")});
        EXPECT_EQ(record->ColumnValue(i), Variant(std::int32_t{14}));
        EXPECT_THROW(record->Invoke(columns[i].property, CallKind::kPut, {Variant("abc")}),
                     RuntimeError);
        break;
      case ColumnType::kSingle:
        record->Invoke(columns[i].property, CallKind::kPut, {Variant(2.25)});
        EXPECT_EQ(record->ColumnValue(i), Variant(2.25f));
        break;
      case ColumnType::kDate:
        record->Invoke(columns[i].property, CallKind::kPut, {Variant(38412.5)});
        EXPECT_EQ(record->ColumnValue(i), Variant(Date(38412.5)));
        break;
    }
    EXPECT_EQ(record->Invoke(UCase(columns[i].property), CallKind::kGet), record->ColumnValue(i));
  }
}

TEST_P(RecordShape, IsNewForAKeyOfBlanksOnly) {
  auto record = MakeRecord(GetParam());
  const std::string key = record->Info().columns()[record->Info().key()].property;
  record->Invoke(key, CallKind::kPut, {Variant("   ")});
  EXPECT_TRUE(record->IsNew());
  record->Invoke(key, CallKind::kPut, {Variant(" k ")});
  EXPECT_FALSE(record->IsNew());
}

TEST_P(RecordShape, HostPropertiesAreStoredAndReturned) {
  auto record = MakeRecord(GetParam());
  ObjectPtr ui = CreateObject("DOMDocument");
  ObjectPtr gen = CreateObject("idgen");
  record->Invoke("UI", CallKind::kPut, {Variant(ui)});
  record->Invoke("IDGenerator", CallKind::kPut, {Variant(gen)});
  record->Invoke("Error", CallKind::kPut, {Variant(true)});
  record->Invoke("ErrorMessage", CallKind::kPut, {Variant("set by host")});
  EXPECT_EQ(record->Invoke("UI", CallKind::kGet).ToObject(), ui);
  EXPECT_EQ(record->Invoke("IDGenerator", CallKind::kGet).ToObject(), gen);
  EXPECT_TRUE(record->Invoke("Error", CallKind::kGet).ToBool());
  EXPECT_EQ(record->Invoke("ErrorMessage", CallKind::kGet).ToString(), "set by host");
}

INSTANTIATE_TEST_SUITE_P(AllTableClasses, RecordShape, ::testing::ValuesIn(kTableClasses),
                         [](const auto& info) { return info.param; });

// ---------------------------------------------------------------------------
// The whole protocol, per class and engine.

class RecordProtocol : public ::testing::TestWithParam<std::tuple<std::string, std::string>> {
 protected:
  void SetUp() override {
    connection_ = records_test::OpenDatabase(std::get<1>(GetParam()));
    ASSERT_NE(connection_, nullptr);
  }
  std::shared_ptr<Record> NewRecord() {
    auto record = MakeRecord(std::get<0>(GetParam()));
    record->Invoke("Connection", CallKind::kPut, {Variant(ObjectPtr(connection_))});
    record->Invoke("IDGenerator", CallKind::kPut, {Variant(CreateObject("idgen"))});
    return record;
  }
  void Fill(Record& record, int s) {
    const auto& columns = record.Info().columns();
    for (size_t i = 0; i < columns.size(); ++i) {
      if (i == record.Info().key()) continue;
      record.Invoke(columns[i].property, CallKind::kPut, {SampleValue(columns[i].type, i, s)});
    }
  }
  std::string KeyProperty(const Record& record) {
    return record.Info().columns()[record.Info().key()].property;
  }
  long Rows() { return CountRows(connection_, "SELECT * FROM " + std::get<0>(GetParam())); }

  std::shared_ptr<Connection> connection_;
};

TEST_P(RecordProtocol, NewSaveLoadUpdateCopyXmlDelete) {
  const std::string table = std::get<0>(GetParam());
  auto record = NewRecord();
  Fill(*record, 0);
  const std::string key_property = KeyProperty(*record);
  record->Invoke(key_property, CallKind::kPut, {Variant("caller-key")});

  // New: an insert with a fresh key.
  ASSERT_TRUE(record->Invoke("SaveData", CallKind::kMethod).ToBool()) << record->ErrorMessage();
  EXPECT_FALSE(record->Error());
  std::string key = record->Invoke(key_property, CallKind::kGet).ToString();
  EXPECT_TRUE(std::regex_match(key, std::regex("^[0-9A-F]{32}$"))) << key;
  EXPECT_FALSE(record->IsNew());
  EXPECT_EQ(Rows(), 1);

  // Load into a fresh record by key.
  auto loaded = NewRecord();
  loaded->Invoke(key_property, CallKind::kPut, {Variant(key)});
  loaded->Invoke("LoadData", CallKind::kMethod);
  EXPECT_FALSE(loaded->Error()) << loaded->ErrorMessage();
  ExpectSameColumns(*record, *loaded);

  // Update: same row, new values.
  Fill(*loaded, 1);
  ASSERT_TRUE(loaded->SaveData()) << loaded->ErrorMessage();
  EXPECT_EQ(loaded->Invoke(key_property, CallKind::kGet).ToString(), key);
  EXPECT_EQ(Rows(), 1);
  auto reloaded = NewRecord();
  reloaded->Invoke(key_property, CallKind::kPut, {Variant(key)});
  reloaded->LoadData();
  ExpectSameColumns(*loaded, *reloaded);

  // Copy: every column, key included.
  auto copy = NewRecord();
  copy->Invoke("Copy", CallKind::kMethod, {Variant(ObjectPtr(reloaded))});
  ExpectSameColumns(*reloaded, *copy);
  EXPECT_EQ(copy->Connection(), connection_);

  // XML round trip.
  auto from_xml = NewRecord();
  from_xml->Invoke("XML", CallKind::kPut, {reloaded->Invoke("XML", CallKind::kGet)});
  EXPECT_FALSE(from_xml->Error());
  ExpectSameColumns(*reloaded, *from_xml);

  // Delete: the row goes, the values stay.
  copy->Invoke("Delete", CallKind::kMethod);
  EXPECT_FALSE(copy->Error()) << copy->ErrorMessage();
  EXPECT_EQ(Rows(), 0);
  EXPECT_EQ(copy->Invoke(key_property, CallKind::kGet).ToString(), key);
  auto gone = NewRecord();
  gone->Invoke(key_property, CallKind::kPut, {Variant(key)});
  gone->LoadData();
  EXPECT_FALSE(gone->Error());
  auto untouched = NewRecord();
  untouched->Invoke(key_property, CallKind::kPut, {Variant(key)});
  ExpectSameColumns(*untouched, *gone);
}

TEST_P(RecordProtocol, InsertingManyNewRecordsAtOnceStoresEachWithAFreshKey) {
  // More rows than one statement takes, so the insert spans statements.
  constexpr int kCount = 450;
  std::vector<std::shared_ptr<Record>> records;
  std::vector<Record*> pointers;
  // Keys that never repeat (the library's idgen may, within one second).
  auto ids = std::make_shared<FixedIdGenerator>();
  for (int i = 0; i < kCount; ++i) {
    auto record = NewRecord();
    record->IDGenerator(ids);
    Fill(*record, i % 2);
    record->Invoke(KeyProperty(*record), CallKind::kPut, {Variant("caller-key")});
    records.push_back(record);
    pointers.push_back(record.get());
  }
  Record::InsertNew(pointers);
  EXPECT_EQ(Rows(), kCount);
  std::set<std::string> keys;
  for (const auto& record : records) {
    const std::string key = record->Invoke(KeyProperty(*record), CallKind::kGet).ToString();
    EXPECT_NE(key, "caller-key");
    keys.insert(key);
  }
  EXPECT_EQ(keys.size(), static_cast<size_t>(kCount));
  EXPECT_EQ(ids->calls(), kCount);
  // Each row reads back as the record that was inserted, as after SaveData.
  for (size_t i : {size_t{0}, size_t{199}, size_t{200}, size_t{kCount - 1}}) {
    auto loaded = NewRecord();
    loaded->Invoke(KeyProperty(*loaded), CallKind::kPut,
                   {records[i]->Invoke(KeyProperty(*records[i]), CallKind::kGet)});
    loaded->LoadData();
    EXPECT_FALSE(loaded->Error()) << loaded->ErrorMessage();
    ExpectSameColumns(*records[i], *loaded);
  }
}

TEST_P(RecordProtocol, InsertingNoRecordsDoesNothing) {
  Record::InsertNew({});
  EXPECT_EQ(Rows(), 0);
}

TEST_P(RecordProtocol, SavingACopyUpdatesTheSourceRow) {
  auto record = NewRecord();
  Fill(*record, 0);
  ASSERT_TRUE(record->SaveData());
  auto copy = NewRecord();
  copy->Copy(record);
  Fill(*copy, 2);
  ASSERT_TRUE(copy->SaveData());
  EXPECT_EQ(Rows(), 1);
  record->LoadData();
  ExpectSameColumns(*copy, *record);
}

TEST_P(RecordProtocol, EmptyingTheKeyOfACopyMakesANewRow) {
  auto record = NewRecord();
  ASSERT_TRUE(record->SaveData());
  auto copy = NewRecord();
  copy->Copy(record);
  copy->Invoke(KeyProperty(*copy), CallKind::kPut, {Variant("")});
  ASSERT_TRUE(copy->SaveData());
  EXPECT_EQ(Rows(), 2);
}

TEST_P(RecordProtocol, LoadingAMissingKeyChangesNothing) {
  auto record = NewRecord();
  Fill(*record, 3);
  record->Invoke(KeyProperty(*record), CallKind::kPut, {Variant("no such key")});
  auto before = NewRecord();
  before->Copy(record);
  record->Error(true);
  record->LoadData();
  EXPECT_FALSE(record->Error());
  ExpectSameColumns(*before, *record);
}

TEST_P(RecordProtocol, SavedNullsLoadAsEmptyValues) {
  auto record = NewRecord();
  ASSERT_TRUE(record->SaveData());
  auto loaded = NewRecord();
  Fill(*loaded, 4);
  loaded->Invoke(KeyProperty(*loaded), CallKind::kPut,
                 {record->Invoke(KeyProperty(*record), CallKind::kGet)});
  loaded->LoadData();
  ExpectSameColumns(*record, *loaded);
}

TEST_P(RecordProtocol, LoadingRowAfterRowIntoOneRecordKeepsNothingOfTheRowBefore) {
  // Long texts, then a row of Nulls, then short texts: each load must give
  // exactly its own row, on keyset and forward-only recordsets alike.
  auto long_texts = NewRecord();
  Fill(*long_texts, 40);
  const auto& columns = long_texts->Info().columns();
  for (size_t i = 0; i < columns.size(); ++i) {
    if (i == long_texts->Info().key() || columns[i].type != ColumnType::kText) continue;
    long_texts->Invoke(columns[i].property, CallKind::kPut,
                       {Variant(std::string(40, static_cast<char>('a' + i % 26)))});
  }
  ASSERT_TRUE(long_texts->SaveData());
  auto nulls = NewRecord();
  ASSERT_TRUE(nulls->SaveData());
  auto short_texts = NewRecord();
  Fill(*short_texts, 1);
  ASSERT_TRUE(short_texts->SaveData());
  const std::vector<std::shared_ptr<Record>> saved = {long_texts, nulls, short_texts};
  const std::string key = long_texts->Info().columns()[long_texts->Info().key()].sql_name;
  for (long cursor : {kAdOpenKeyset, kAdOpenForwardOnly}) {
    for (const auto& order : {std::vector<size_t>{0, 1, 2}, std::vector<size_t>{2, 1, 0}}) {
      auto loaded = NewRecord();
      for (size_t index : order) {
        const Variant id = saved[index]->Invoke(KeyProperty(*saved[index]), CallKind::kGet);
        auto rs = std::make_shared<Recordset>();
        rs->Open("SELECT * FROM " + std::get<0>(GetParam()) + " WHERE " + key + " = '" +
                     id.ToString() + "'",
                 connection_, cursor);
        loaded->LoadDataFromDS(rs);
        ExpectSameColumns(*saved[index], *loaded);
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllTableClasses, RecordProtocol,
                         ::testing::Combine(::testing::ValuesIn(kTableClasses),
                                            ::testing::ValuesIn(records_test::Engines())),
                         [](const auto& info) {
                           return std::get<0>(info.param) + "_" + std::get<1>(info.param);
                         });

}  // namespace
}  // namespace quillo
