// Compact storage for the rows of a materialised query (keyset and static
// recordsets): each row is one packed run of bytes in large shared blocks
// instead of a vector of Variants, so a million rows of five short columns
// take some 130 bytes each rather than some 380.
//
// Row layout: one 32-bit offset per column (from the row's start), then per
// column a type byte and its payload: nothing for Empty and Null, the value's
// bytes for numbers, dates and Booleans, a 32-bit length and the characters
// for text. Values come back as the Variants that were stored.
// Thread-safety: none.
#ifndef QUILLO_PLATFORM_DB_ROW_STORE_H_
#define QUILLO_PLATFORM_DB_ROW_STORE_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/variant.h"

namespace quillo::db {

// Rows of a fixed number of columns, appended in order and read by position.
class RowStore {
 public:
  RowStore() = default;
  ~RowStore();
  RowStore(const RowStore&) = delete;
  RowStore& operator=(const RowStore&) = delete;

  // Appends one row (Object values are not stored: they never come from an
  // engine; one would raise 3001).
  void Append(const std::vector<Variant>& row);
  // Appends a row value by value: BeginRow, then Add or AddText once per
  // column, then EndRow. Text goes in without becoming a Variant first.
  void BeginRow(size_t columns);
  void Add(const Variant& value);
  void AddText(std::string_view text);
  void EndRow();
  // The number of rows.
  size_t size() const { return rows_.size(); }
  // The value of column `column` in row `row` (both in range) into
  // `*value`, whose text memory is reused.
  void ValueInto(size_t row, size_t column, Variant* value) const;
  // Releases the blocks that hold only rows before `row`; those rows must
  // not be read again (a recordset that only moves forward calls it as it
  // moves).
  void ReleaseBefore(size_t row);

 private:
  // Space for `bytes` more bytes in the current block.
  char* Reserve(size_t bytes);

  // Blocks grow from 16 kB to the 2 MB of a bulk block (see bulk_arena.h),
  // so that a small result costs a small allocation and a large one few
  // page faults.
  struct Block {
    char* data;
    bool bulk;
    size_t first_row;  // The first row that starts in the block.
  };
  static void FreeBlock(Block& block);
  std::vector<Block> blocks_;
  size_t released_ = 0;    // Blocks at the front of blocks_ already given back.
  size_t block_size_ = 0;  // Size of the current (last) block.
  size_t block_used_ = 0;  // Bytes used in it.
  std::vector<const char*> rows_;
  // The row being built: its column offsets, then its cells.
  std::string pending_;
  size_t pending_columns_ = 0;
  size_t pending_at_ = 0;  // Columns added so far.
};

}  // namespace quillo::db

#endif  // QUILLO_PLATFORM_DB_ROW_STORE_H_
