// idgen: the library's record identifier generator.
//
// GetNextRecordID returns a new key for a table row: the MD5 digest, as 32
// upper-case hexadecimal digits, of a seed made of the current local time
// written "yyyymmddhhnnss" followed by a whole number from 1 to 1000 drawn
// from the process's pseudo-random sequence, unpadded (20050301141509 and 37
// give the seed "2005030114150937"). Records call the generator by name, so a
// host may lend any object with a GetNextRecordID method instead.
//
// The random sequence starts from the same fixed seed in every process, so
// two processes started together draw the same numbers; uniqueness rests on
// the time stamp plus the position in the sequence. This is intended: hosts
// that run several writers at once supply their own generator.
//
// Example:
//   auto gen = quillo::CreateObject("idgen");
//   std::string key = quillo::CallByName(gen, "GetNextRecordID",
//                                        quillo::CallKind::kMethod).ToString();
//
// Thread-safety: GetNextRecordID may be called from any thread; the random
// sequence is shared by the process and advanced atomically.
#ifndef QUILLO_RECORDS_IDGEN_H_
#define QUILLO_RECORDS_IDGEN_H_

#include <cstdint>
#include <string>

#include "platform/object.h"

namespace quillo {

// The identifier generator.
class idgen : public Object {
 public:
  const MemberTable& Members() const override;

  // A new identifier: 32 hexadecimal digits. Reads the time from quillo::Now().
  std::string GetNextRecordID();
};

namespace internal {

// The next number of the process's pseudo-random sequence, in [0, 1): the
// classic Basic generator (24-bit linear congruential, x = x * 0x43FD43FD +
// 0xC39EC3 mod 2^24) from its classic start value 0x50000, so the first
// draws of every process are 0.7055475, 0.5334240, 0.5795186, ...
float NextRandom();

// The seed text GetNextRecordID digests: `time_text` followed by the next
// number from 1 to 1000 of the sequence.
std::string NextRecordSeed(const std::string& time_text);

}  // namespace internal

}  // namespace quillo

#endif  // QUILLO_RECORDS_IDGEN_H_
