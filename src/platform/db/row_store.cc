// Packing rows of Variants into blocks and reading them back.
#include "platform/db/row_store.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/database.h"
#include "platform/db/bulk_arena.h"
#include "platform/error.h"

namespace quillo::db {
namespace {

constexpr size_t kFirstBlockBytes = 16 * 1024;

template <class T>
T Get(const char* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

}  // namespace

RowStore::~RowStore() {
  for (size_t i = released_; i < blocks_.size(); ++i) FreeBlock(blocks_[i]);
}

void RowStore::FreeBlock(Block& block) {
  if (block.bulk) {
    FreeBulkBlock(block.data);
  } else {
    delete[] block.data;
  }
  block.data = nullptr;
}

void RowStore::ReleaseBefore(size_t row) {
  // Block i holds rows [first_row(i), first_row(i + 1)); never the last block.
  while (released_ + 1 < blocks_.size() && blocks_[released_ + 1].first_row <= row) {
    FreeBlock(blocks_[released_]);
    ++released_;
  }
}

char* RowStore::Reserve(size_t bytes) {
  if (blocks_.empty() || block_size_ - block_used_ < bytes) {
    const size_t next =
        blocks_.empty() ? kFirstBlockBytes : std::min(block_size_ * 4, kBulkBlockBytes);
    if (next == kBulkBlockBytes && bytes <= kBulkBlockBytes) {
      blocks_.push_back(Block{static_cast<char*>(AllocateBulkBlock()), true, rows_.size()});
      block_size_ = kBulkBlockBytes;
    } else {
      block_size_ = std::max(next, bytes);
      blocks_.push_back(Block{new char[block_size_], false, rows_.size()});
    }
    block_used_ = 0;
  }
  char* at = blocks_.back().data + block_used_;
  block_used_ += bytes;
  return at;
}

void RowStore::BeginRow(size_t columns) {
  pending_.assign(columns * sizeof(std::uint32_t), '\0');
  pending_columns_ = columns;
  pending_at_ = 0;
}

// Records where the next column starts and puts its type byte.
#define QUILLO_ROW_CELL(type)                                                             \
  do {                                                                                    \
    const auto offset = static_cast<std::uint32_t>(pending_.size());                      \
    std::memcpy(pending_.data() + pending_at_++ * sizeof offset, &offset, sizeof offset); \
    pending_.push_back(static_cast<char>(type));                                          \
  } while (false)

template <class T>
void PutPending(std::string& out, T value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void RowStore::AddText(std::string_view text) {
  QUILLO_ROW_CELL(VarType::kString);
  PutPending(pending_, static_cast<std::uint32_t>(text.size()));
  pending_.append(text);
}

void RowStore::Add(const Variant& v) {
  const VarType type = v.Type();
  if (type == VarType::kString) return AddText(v.StringRef());
  if (type == VarType::kObject) {
    Raise(err::kDbBadArguments, "An object value cannot be stored in a recordset row.");
  }
  QUILLO_ROW_CELL(type);
  switch (type) {
    case VarType::kInteger:
      PutPending(pending_, v.ToInteger());
      break;
    case VarType::kLong:
      PutPending(pending_, v.ToLong());
      break;
    case VarType::kSingle:
      PutPending(pending_, v.ToSingle());
      break;
    case VarType::kDouble:
      PutPending(pending_, v.ToDouble());
      break;
    case VarType::kDate:
      PutPending(pending_, v.ToDate().value);
      break;
    case VarType::kCurrency:
      PutPending(pending_, v.ToCurrency().scaled);
      break;
    case VarType::kBoolean:
      pending_.push_back(v.ToBool() ? 1 : 0);
      break;
    default:
      break;
  }
}

#undef QUILLO_ROW_CELL

void RowStore::EndRow() {
  // Columns never added read back as Empty.
  while (pending_at_ < pending_columns_) Add(Variant());
  char* start = Reserve(pending_.size());
  std::memcpy(start, pending_.data(), pending_.size());
  rows_.push_back(start);
}

void RowStore::Append(const std::vector<Variant>& row) {
  BeginRow(row.size());
  for (const Variant& v : row) Add(v);
  EndRow();
}

void RowStore::ValueInto(size_t row, size_t column, Variant* value) const {
  const char* start = rows_[row];
  const char* at = start + Get<std::uint32_t>(start + column * sizeof(std::uint32_t));
  const auto type = static_cast<VarType>(static_cast<unsigned char>(*at++));
  switch (type) {
    case VarType::kNull:
      *value = Variant(kNull);
      break;
    case VarType::kInteger:
      *value = Variant(Get<std::int16_t>(at));
      break;
    case VarType::kLong:
      *value = Variant(Get<std::int32_t>(at));
      break;
    case VarType::kSingle:
      *value = Variant(Get<float>(at));
      break;
    case VarType::kDouble:
      *value = Variant(Get<double>(at));
      break;
    case VarType::kDate:
      *value = Variant(Date(Get<double>(at)));
      break;
    case VarType::kCurrency:
      *value = Variant(Currency{Get<std::int64_t>(at)});
      break;
    case VarType::kBoolean:
      *value = Variant(*at != 0);
      break;
    case VarType::kString: {
      const auto size = Get<std::uint32_t>(at);
      value->AssignText(std::string_view(at + sizeof size, size));
      break;
    }
    default:
      *value = Variant();
      break;
  }
}

}  // namespace quillo::db
