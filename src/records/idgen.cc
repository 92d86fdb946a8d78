#include "records/idgen.h"

#include <atomic>
#include <charconv>

#include "codec/md5.h"
#include "platform/clock.h"
#include "platform/format.h"

namespace quillo {

namespace internal {

namespace {

constexpr std::uint32_t kRandomStart = 0x50000;  // The classic generator's start value.
std::atomic<std::uint32_t> random_state{kRandomStart};

constexpr std::uint32_t Step(std::uint32_t x) { return (x * 0x43FD43FDu + 0xC39EC3u) & 0xFFFFFFu; }

}  // namespace

float NextRandom() {
  std::uint32_t current = random_state.load(std::memory_order_relaxed);
  std::uint32_t next = Step(current);
  while (!random_state.compare_exchange_weak(current, next, std::memory_order_relaxed)) {
    next = Step(current);
  }
  return static_cast<float>(next) / 16777216.0f;
}

std::string NextRecordSeed(const std::string& time_text) {
  // Whole part of r * 1000 + 1: a number from 1 to 1000.
  int number = static_cast<int>(static_cast<double>(NextRandom()) * 1000.0 + 1.0);
  char digits[8];
  auto [end, ec] = std::to_chars(digits, digits + sizeof(digits), number);
  std::string seed;
  seed.reserve(time_text.size() + 4);
  seed += time_text;
  seed.append(digits, end);
  return seed;
}

}  // namespace internal

std::string idgen::GetNextRecordID() {
  return Md5Hex(internal::NextRecordSeed(FormatDate(Now(), "yyyymmddhhnnss")));
}

const MemberTable& idgen::Members() const {
  static const MemberTable table =
      MemberTable::Builder<idgen>("idgen")
          .Method("GetNextRecordID", [](idgen& g) { return g.GetNextRecordID(); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(idgen, Creatable::kPublic);

}  // namespace quillo
