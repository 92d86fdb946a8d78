// Packing rows of Variants into blocks and reading them back.
#include "platform/db/row_store.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/database.h"
#include "platform/error.h"

namespace quillo::db {
namespace {

constexpr size_t kBlockBytes = 256 * 1024;

// The payload size of `v` after its type byte.
size_t PayloadSize(const Variant& v) {
  switch (v.Type()) {
    case VarType::kInteger:
      return sizeof(std::int16_t);
    case VarType::kLong:
      return sizeof(std::int32_t);
    case VarType::kSingle:
      return sizeof(float);
    case VarType::kDouble:
    case VarType::kDate:
      return sizeof(double);
    case VarType::kCurrency:
      return sizeof(std::int64_t);
    case VarType::kBoolean:
      return 1;
    case VarType::kString:
      return sizeof(std::uint32_t) + v.StringRef().size();
    case VarType::kEmpty:
    case VarType::kNull:
      return 0;
    default:
      Raise(err::kDbBadArguments, "An object value cannot be stored in a recordset row.");
  }
}

template <class T>
char* Put(char* at, T value) {
  std::memcpy(at, &value, sizeof value);
  return at + sizeof value;
}

template <class T>
T Get(const char* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

}  // namespace

char* RowStore::Reserve(size_t bytes) {
  if (blocks_.empty() || block_size_ - block_used_ < bytes) {
    block_size_ = std::max(kBlockBytes, bytes);
    blocks_.emplace_back(new char[block_size_]);
    block_used_ = 0;
  }
  char* at = blocks_.back().get() + block_used_;
  block_used_ += bytes;
  return at;
}

void RowStore::Append(const std::vector<Variant>& row) {
  const size_t columns = row.size();
  size_t bytes = columns * sizeof(std::uint32_t);
  for (const Variant& v : row) bytes += 1 + PayloadSize(v);
  char* start = Reserve(bytes);
  char* at = start + columns * sizeof(std::uint32_t);
  for (size_t i = 0; i < columns; ++i) {
    const Variant& v = row[i];
    std::uint32_t offset = static_cast<std::uint32_t>(at - start);
    std::memcpy(start + i * sizeof offset, &offset, sizeof offset);
    const VarType type = v.Type();
    *at++ = static_cast<char>(type);
    switch (type) {
      case VarType::kInteger:
        at = Put(at, v.ToInteger());
        break;
      case VarType::kLong:
        at = Put(at, v.ToLong());
        break;
      case VarType::kSingle:
        at = Put(at, v.ToSingle());
        break;
      case VarType::kDouble:
        at = Put(at, v.ToDouble());
        break;
      case VarType::kDate:
        at = Put(at, v.ToDate().value);
        break;
      case VarType::kCurrency:
        at = Put(at, v.ToCurrency().scaled);
        break;
      case VarType::kBoolean:
        *at++ = v.ToBool() ? 1 : 0;
        break;
      case VarType::kString: {
        const std::string& s = v.StringRef();
        at = Put(at, static_cast<std::uint32_t>(s.size()));
        if (!s.empty()) std::memcpy(at, s.data(), s.size());
        at += s.size();
        break;
      }
      default:
        break;
    }
  }
  rows_.push_back(start);
}

Variant RowStore::Value(size_t row, size_t column) const {
  const char* start = rows_[row];
  const char* at = start + Get<std::uint32_t>(start + column * sizeof(std::uint32_t));
  const auto type = static_cast<VarType>(static_cast<unsigned char>(*at++));
  switch (type) {
    case VarType::kNull:
      return Variant(kNull);
    case VarType::kInteger:
      return Variant(Get<std::int16_t>(at));
    case VarType::kLong:
      return Variant(Get<std::int32_t>(at));
    case VarType::kSingle:
      return Variant(Get<float>(at));
    case VarType::kDouble:
      return Variant(Get<double>(at));
    case VarType::kDate:
      return Variant(Date(Get<double>(at)));
    case VarType::kCurrency:
      return Variant(Currency{Get<std::int64_t>(at)});
    case VarType::kBoolean:
      return Variant(*at != 0);
    case VarType::kString: {
      const auto size = Get<std::uint32_t>(at);
      return Variant(std::string(at + sizeof size, size));
    }
    default:
      return Variant();
  }
}

void RowStore::Clear() {
  rows_.clear();
  rows_.shrink_to_fit();
  blocks_.clear();
  blocks_.shrink_to_fit();
  block_size_ = block_used_ = 0;
}

}  // namespace quillo::db
