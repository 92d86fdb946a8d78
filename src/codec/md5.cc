// MD5 (RFC 1321): an unrolled block transform with compile-time constants,
// the Init/Update/Final steps over a 64-byte buffer, and the file digest.
//
// The state words are unsigned 32-bit integers, so additions wrap modulo 2^32
// and shifts are logical without any masking; the words read as signed 32-bit
// values only where they are shown as text (RegisterA..RegisterD).
#include "codec/md5.h"

#include <fcntl.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/error.h"

namespace quillo {
namespace {

constexpr std::array<uint32_t, 4> kInitialState = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu,
                                                   0x10325476u};

inline uint32_t LoadLittleEndian32(const uint8_t* p) {
  uint32_t w;
  std::memcpy(&w, p, sizeof w);
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap32(w);
  return w;
}

// The four round steps. Each adds the message word and the constant first
// (they do not depend on the previous step), then the round function.
template <uint32_t kT, int kS>
[[gnu::always_inline]] inline uint32_t StepF(uint32_t a, uint32_t b, uint32_t c, uint32_t d,
                                             uint32_t x) {
  a += x + kT;
  a += ((c ^ d) & b) ^ d;
  return std::rotl(a, kS) + b;
}

template <uint32_t kT, int kS>
[[gnu::always_inline]] inline uint32_t StepG(uint32_t a, uint32_t b, uint32_t c, uint32_t d,
                                             uint32_t x) {
  // (b & d) | (c & ~d): the two halves never share a bit, so they are added
  // separately and the second does not wait for b.
  a += x + kT;
  a += c & ~d;
  a += b & d;
  return std::rotl(a, kS) + b;
}

template <uint32_t kT, int kS>
[[gnu::always_inline]] inline uint32_t StepH(uint32_t a, uint32_t b, uint32_t c, uint32_t d,
                                             uint32_t x) {
  a += x + kT;
  a += b ^ c ^ d;
  return std::rotl(a, kS) + b;
}

template <uint32_t kT, int kS>
[[gnu::always_inline]] inline uint32_t StepI(uint32_t a, uint32_t b, uint32_t c, uint32_t d,
                                             uint32_t x) {
  a += x + kT;
  a += c ^ (b | ~d);
  return std::rotl(a, kS) + b;
}

// Transforms `blocks` consecutive 64-byte blocks at `p` into `state`.
void TransformBlocks(uint32_t* state, const uint8_t* p, size_t blocks) {
  uint32_t a = state[0];
  uint32_t b = state[1];
  uint32_t c = state[2];
  uint32_t d = state[3];
  for (; blocks > 0; --blocks, p += 64) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = LoadLittleEndian32(p + 4 * i);
    const uint32_t aa = a;
    const uint32_t bb = b;
    const uint32_t cc = c;
    const uint32_t dd = d;

    a = StepF<0xD76AA478u, 7>(a, b, c, d, x[0]);
    d = StepF<0xE8C7B756u, 12>(d, a, b, c, x[1]);
    c = StepF<0x242070DBu, 17>(c, d, a, b, x[2]);
    b = StepF<0xC1BDCEEEu, 22>(b, c, d, a, x[3]);
    a = StepF<0xF57C0FAFu, 7>(a, b, c, d, x[4]);
    d = StepF<0x4787C62Au, 12>(d, a, b, c, x[5]);
    c = StepF<0xA8304613u, 17>(c, d, a, b, x[6]);
    b = StepF<0xFD469501u, 22>(b, c, d, a, x[7]);
    a = StepF<0x698098D8u, 7>(a, b, c, d, x[8]);
    d = StepF<0x8B44F7AFu, 12>(d, a, b, c, x[9]);
    c = StepF<0xFFFF5BB1u, 17>(c, d, a, b, x[10]);
    b = StepF<0x895CD7BEu, 22>(b, c, d, a, x[11]);
    a = StepF<0x6B901122u, 7>(a, b, c, d, x[12]);
    d = StepF<0xFD987193u, 12>(d, a, b, c, x[13]);
    c = StepF<0xA679438Eu, 17>(c, d, a, b, x[14]);
    b = StepF<0x49B40821u, 22>(b, c, d, a, x[15]);

    a = StepG<0xF61E2562u, 5>(a, b, c, d, x[1]);
    d = StepG<0xC040B340u, 9>(d, a, b, c, x[6]);
    c = StepG<0x265E5A51u, 14>(c, d, a, b, x[11]);
    b = StepG<0xE9B6C7AAu, 20>(b, c, d, a, x[0]);
    a = StepG<0xD62F105Du, 5>(a, b, c, d, x[5]);
    d = StepG<0x02441453u, 9>(d, a, b, c, x[10]);
    c = StepG<0xD8A1E681u, 14>(c, d, a, b, x[15]);
    b = StepG<0xE7D3FBC8u, 20>(b, c, d, a, x[4]);
    a = StepG<0x21E1CDE6u, 5>(a, b, c, d, x[9]);
    d = StepG<0xC33707D6u, 9>(d, a, b, c, x[14]);
    c = StepG<0xF4D50D87u, 14>(c, d, a, b, x[3]);
    b = StepG<0x455A14EDu, 20>(b, c, d, a, x[8]);
    a = StepG<0xA9E3E905u, 5>(a, b, c, d, x[13]);
    d = StepG<0xFCEFA3F8u, 9>(d, a, b, c, x[2]);
    c = StepG<0x676F02D9u, 14>(c, d, a, b, x[7]);
    b = StepG<0x8D2A4C8Au, 20>(b, c, d, a, x[12]);

    a = StepH<0xFFFA3942u, 4>(a, b, c, d, x[5]);
    d = StepH<0x8771F681u, 11>(d, a, b, c, x[8]);
    c = StepH<0x6D9D6122u, 16>(c, d, a, b, x[11]);
    b = StepH<0xFDE5380Cu, 23>(b, c, d, a, x[14]);
    a = StepH<0xA4BEEA44u, 4>(a, b, c, d, x[1]);
    d = StepH<0x4BDECFA9u, 11>(d, a, b, c, x[4]);
    c = StepH<0xF6BB4B60u, 16>(c, d, a, b, x[7]);
    b = StepH<0xBEBFBC70u, 23>(b, c, d, a, x[10]);
    a = StepH<0x289B7EC6u, 4>(a, b, c, d, x[13]);
    d = StepH<0xEAA127FAu, 11>(d, a, b, c, x[0]);
    c = StepH<0xD4EF3085u, 16>(c, d, a, b, x[3]);
    b = StepH<0x04881D05u, 23>(b, c, d, a, x[6]);
    a = StepH<0xD9D4D039u, 4>(a, b, c, d, x[9]);
    d = StepH<0xE6DB99E5u, 11>(d, a, b, c, x[12]);
    c = StepH<0x1FA27CF8u, 16>(c, d, a, b, x[15]);
    b = StepH<0xC4AC5665u, 23>(b, c, d, a, x[2]);

    a = StepI<0xF4292244u, 6>(a, b, c, d, x[0]);
    d = StepI<0x432AFF97u, 10>(d, a, b, c, x[7]);
    c = StepI<0xAB9423A7u, 15>(c, d, a, b, x[14]);
    b = StepI<0xFC93A039u, 21>(b, c, d, a, x[5]);
    a = StepI<0x655B59C3u, 6>(a, b, c, d, x[12]);
    d = StepI<0x8F0CCC92u, 10>(d, a, b, c, x[3]);
    c = StepI<0xFFEFF47Du, 15>(c, d, a, b, x[10]);
    b = StepI<0x85845DD1u, 21>(b, c, d, a, x[1]);
    a = StepI<0x6FA87E4Fu, 6>(a, b, c, d, x[8]);
    d = StepI<0xFE2CE6E0u, 10>(d, a, b, c, x[15]);
    c = StepI<0xA3014314u, 15>(c, d, a, b, x[6]);
    b = StepI<0x4E0811A1u, 21>(b, c, d, a, x[13]);
    a = StepI<0xF7537E82u, 6>(a, b, c, d, x[4]);
    d = StepI<0xBD3AF235u, 10>(d, a, b, c, x[11]);
    c = StepI<0x2AD7D2BBu, 15>(c, d, a, b, x[2]);
    b = StepI<0xEB86D391u, 21>(b, c, d, a, x[9]);

    a += aa;
    b += bb;
    c += cc;
    d += dd;
  }
  state[0] = a;
  state[1] = b;
  state[2] = c;
  state[3] = d;
}

// Pads the `tail_len` (< 64) bytes at `tail` for a message of `total_len`
// bytes and transforms the one or two final blocks.
void FinishDigest(uint32_t* state, const uint8_t* tail, size_t tail_len, uint64_t total_len) {
  uint8_t block[128] = {};
  std::memcpy(block, tail, tail_len);
  block[tail_len] = 0x80;
  const size_t blocks = tail_len < 56 ? 1 : 2;
  const uint64_t bits = total_len * 8;
  for (int i = 0; i < 8; ++i) block[blocks * 64 - 8 + i] = static_cast<uint8_t>(bits >> (8 * i));
  TransformBlocks(state, block, blocks);
}

// The state words after digesting all of `data` in one go.
void DigestWords(std::string_view data, uint32_t* state) {
  for (int i = 0; i < 4; ++i) state[i] = kInitialState[i];
  const auto* p = reinterpret_cast<const uint8_t*>(data.data());
  const size_t blocks = data.size() / 64;
  TransformBlocks(state, p, blocks);
  FinishDigest(state, p + blocks * 64, data.size() % 64, data.size());
}

constexpr char kHexDigits[] = "0123456789ABCDEF";

// The state words as hexadecimal text, bytes of each word least significant
// first.
std::string HexOfWords(const uint32_t* words) {
  std::string hex(32, '0');
  for (int w = 0; w < 4; ++w) {
    for (int i = 0; i < 4; ++i) {
      const auto byte = static_cast<uint8_t>(words[w] >> (8 * i));
      hex[8 * w + 2 * i] = kHexDigits[byte >> 4];
      hex[8 * w + 2 * i + 1] = kHexDigits[byte & 0x0F];
    }
  }
  return hex;
}

// A file descriptor closed when it goes out of scope.
class FileHandle {
 public:
  explicit FileHandle(int fd) : fd_(fd) {}
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  ~FileHandle() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;  // Open descriptor, or -1.
};

// Opens `path` for reading; throws the file errors of the platform.
FileHandle OpenForReading(const std::string& path) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    const int error = errno;
    if (error == ENOENT || error == ENOTDIR) Raise(err::kFileNotFound);
    Raise(err::kPathFileAccessError);
  }
  return FileHandle(fd);
}

// Reads up to `len` bytes; returns 0 at the end of the file, throws error 75
// when the read fails (a directory, an I/O error).
size_t ReadSome(const FileHandle& file, uint8_t* data, size_t len) {
  ssize_t got;
  do {
    got = ::read(file.get(), data, len);
  } while (got < 0 && errno == EINTR);
  if (got < 0) Raise(err::kPathFileAccessError);
  return static_cast<size_t>(got);
}

}  // namespace

std::array<uint8_t, 16> Md5Digest(std::string_view data) {
  uint32_t state[4];
  DigestWords(data, state);
  std::array<uint8_t, 16> digest;
  for (int w = 0; w < 4; ++w) {
    for (int i = 0; i < 4; ++i) digest[4 * w + i] = static_cast<uint8_t>(state[w] >> (8 * i));
  }
  return digest;
}

std::string Md5Hex(std::string_view data) {
  uint32_t state[4];
  DigestWords(data, state);
  return HexOfWords(state);
}

qoMD5::qoMD5() { MD5Init(); }

void qoMD5::Hash() { output_value_ = DigestStrToHexStr(input_value_); }

void qoMD5::InputValue(std::string value) { input_value_ = std::move(value); }

std::string qoMD5::OutputValue() const { return output_value_; }

std::string qoMD5::RegisterA() const { return std::to_string(static_cast<int32_t>(state_[0])); }

std::string qoMD5::RegisterB() const { return std::to_string(static_cast<int32_t>(state_[1])); }

std::string qoMD5::RegisterC() const { return std::to_string(static_cast<int32_t>(state_[2])); }

std::string qoMD5::RegisterD() const { return std::to_string(static_cast<int32_t>(state_[3])); }

std::string qoMD5::DigestFileToHexStr(const std::string& file_name) {
  // The file stays open for this call only and belongs to this call alone.
  const FileHandle file = OpenForReading(file_name);
  MD5Init();
  // Whole 64-byte blocks are transformed as long as at least one byte of the
  // file follows them; the block that reaches the end of the file (1 to 64
  // bytes) is kept back in `chunk` and goes to the buffer below.
  constexpr size_t kChunk = 64 * 1024;
  std::vector<uint8_t> chunk(kChunk + 64);
  size_t have = 0;
  for (;;) {
    const size_t got = ReadSome(file, chunk.data() + have, chunk.size() - have);
    if (got == 0) break;
    have += got;
    const size_t blocks = (have - 1) / 64;
    TransformBlocks(state_.data(), chunk.data(), blocks);
    byte_count_ += uint64_t{64} * blocks;
    std::memmove(chunk.data(), chunk.data() + blocks * 64, have - blocks * 64);
    have -= blocks * 64;
  }
  // The last block: left in the buffer with only length modulo 64 counted, so
  // MD5Final pads over it from that position.
  std::memcpy(buffer_.data(), chunk.data(), have);
  byte_count_ += have % 64;
  MD5Final();
  return GetValues();
}

std::string qoMD5::DigestStrToHexStr(std::string_view source_string) {
  // MD5Init, MD5Update and MD5Final in one pass over the text. The object ends
  // as those steps leave it: the state words hold the digest and the count
  // includes the padding, a whole number of blocks, so the buffer holds
  // nothing that a later MD5Update or MD5Final would read.
  DigestWords(source_string, state_.data());
  const size_t index = source_string.size() % 64;
  byte_count_ = source_string.size() + (index < 56 ? 56 - index : 120 - index) + 8;
  return GetValues();
}

std::string qoMD5::GetValues() const { return HexOfWords(state_.data()); }

void qoMD5::MD5Init() {
  state_ = kInitialState;
  byte_count_ = 0;
  buffer_.fill(0);
}

void qoMD5::MD5Update(long input_len, const std::vector<uint8_t>& input_buffer) {
  if (input_len < 0) Raise(err::kInvalidProcedureCall);
  if (static_cast<unsigned long>(input_len) > input_buffer.size()) {
    Raise(err::kSubscriptOutOfRange);
  }
  Update(input_buffer.data(), static_cast<size_t>(input_len));
}

void qoMD5::MD5Update(long input_len, std::string_view input_buffer) {
  if (input_len < 0) Raise(err::kInvalidProcedureCall);
  if (static_cast<unsigned long>(input_len) > input_buffer.size()) {
    Raise(err::kSubscriptOutOfRange);
  }
  Update(reinterpret_cast<const uint8_t*>(input_buffer.data()), static_cast<size_t>(input_len));
}

void qoMD5::MD5Final() {
  const uint64_t bits = byte_count_ * 8;
  const size_t index = byte_count_ % 64;
  static constexpr uint8_t kPadding[64] = {0x80};
  Update(kPadding, index < 56 ? 56 - index : 120 - index);
  uint8_t length[8];
  for (int i = 0; i < 8; ++i) length[i] = static_cast<uint8_t>(bits >> (8 * i));
  Update(length, 8);
}

int32_t qoMD5::LongLeftRotate(int32_t value, int32_t bits) {
  const int shift = ((bits % 32) + 32) % 32;
  return static_cast<int32_t>(std::rotl(static_cast<uint32_t>(value), shift));
}

void qoMD5::Update(const uint8_t* data, size_t len) {
  size_t index = byte_count_ % 64;
  byte_count_ += len;
  if (index != 0) {
    const size_t fill = 64 - index;
    if (len < fill) {
      std::memcpy(buffer_.data() + index, data, len);
      return;
    }
    std::memcpy(buffer_.data() + index, data, fill);
    TransformBlocks(state_.data(), buffer_.data(), 1);
    data += fill;
    len -= fill;
    index = 0;
  }
  const size_t blocks = len / 64;
  TransformBlocks(state_.data(), data, blocks);
  data += blocks * 64;
  len -= blocks * 64;
  if (len > 0) std::memcpy(buffer_.data(), data, len);
}

const MemberTable& qoMD5::Members() const {
  using M = qoMD5;
  static const MemberTable table =
      MemberTable::Builder<M>("qoMD5")
          .Method("Hash", [](M& m) { m.Hash(); })
          .Put("InputValue", [](M& m, std::string v) { m.InputValue(std::move(v)); })
          .Get("OutputValue", [](M& m) { return m.OutputValue(); })
          .Get("RegisterA", [](M& m) { return m.RegisterA(); })
          .Get("RegisterB", [](M& m) { return m.RegisterB(); })
          .Get("RegisterC", [](M& m) { return m.RegisterC(); })
          .Get("RegisterD", [](M& m) { return m.RegisterD(); })
          .Method("DigestFileToHexStr",
                  [](M& m, std::string file) { return m.DigestFileToHexStr(file); })
          .Method("DigestStrToHexStr", [](M& m, std::string s) { return m.DigestStrToHexStr(s); })
          .Method("GetValues", [](M& m) { return m.GetValues(); })
          .Method("MD5Init", [](M& m) { m.MD5Init(); })
          .Method("MD5Update",
                  [](M& m, std::int32_t length, std::string buffer) {
                    m.MD5Update(length, std::string_view(buffer));
                  })
          .Method("MD5Final", [](M& m) { m.MD5Final(); })
          .Method("LongLeftRotate",
                  [](M&, std::int32_t value, std::int32_t bits) {
                    return M::LongLeftRotate(value, bits);
                  })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(qoMD5, Creatable::kPrivate);

}  // namespace quillo
