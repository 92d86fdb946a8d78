// Tests of the MD5 digest: the RFC 1321 suite, agreement with OpenSSL for
// every length up to 1,000 and for large random inputs, the step-by-step
// interface, the file digest with its 64-byte block rule, and file errors.
#include "codec/md5.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "platform/error.h"

namespace quillo {
namespace {

#define EXPECT_RUNTIME_ERROR_NUMBER(expr, n)                                         \
  do {                                                                               \
    try {                                                                            \
      (void)(expr);                                                                  \
      ADD_FAILURE() << #expr << " did not throw RuntimeError " << (n);               \
    } catch (const ::quillo::RuntimeError& e) {                                      \
      EXPECT_EQ(e.number, (n)) << #expr << " threw " << e.number << " " << e.what(); \
    }                                                                                \
  } while (false)

std::string RandomBytes(std::mt19937_64& rng, size_t n) {
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(rng() & 0xFF);
  return s;
}

// OpenSSL's MD5 of `data`, in upper-case hexadecimal.
std::string OpenSslMd5(std::string_view data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EXPECT_EQ(EVP_Digest(data.data(), data.size(), md, &len, EVP_md5(), nullptr), 1);
  static const char kHex[] = "0123456789ABCDEF";
  std::string hex;
  for (unsigned int i = 0; i < len; ++i) {
    hex += kHex[md[i] >> 4];
    hex += kHex[md[i] & 0x0F];
  }
  return hex;
}

// A temporary folder removed with everything in it at the end of the test.
class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quillo-md5-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    path_ = pattern;
  }
  ~TempFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // Writes `bytes` to a new file `name` in the folder and returns its path.
  std::string Write(const std::string& name, const std::string& bytes) const {
    const std::string file = (path_ / name).string();
    std::ofstream out(file, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return file;
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;  // The folder.
};

TEST(Md5, DigestsRfc1321TestSuite) {
  qoMD5 md5;
  EXPECT_EQ(md5.DigestStrToHexStr(""), "D41D8CD98F00B204E9800998ECF8427E");
  EXPECT_EQ(md5.DigestStrToHexStr("a"), "0CC175B9C0F1B6A831C399E269772661");
  EXPECT_EQ(md5.DigestStrToHexStr("abc"), "900150983CD24FB0D6963F7D28E17F72");
  EXPECT_EQ(md5.DigestStrToHexStr("message digest"), "F96B697D7CB7938D525A2F31AAF161D0");
  EXPECT_EQ(md5.DigestStrToHexStr("abcdefghijklmnopqrstuvwxyz"),
            "C3FCD3D76192E4007DFB496CCA67E13B");
  EXPECT_EQ(md5.DigestStrToHexStr("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "D174AB98D277D9F5A5611C2C9F419D9F");
  EXPECT_EQ(md5.DigestStrToHexStr("1234567890123456789012345678901234567890"
                                  "1234567890123456789012345678901234567890"),
            "57EDF4A22BE3C955AC49DA2E2107B67A");
}

TEST(Md5, DigestsEmptyTextAs32UpperCaseDigits) {
  const std::string hex = qoMD5().DigestStrToHexStr("");
  ASSERT_EQ(hex.size(), 32u);
  for (char c : hex) EXPECT_TRUE(std::isdigit(c) || (c >= 'A' && c <= 'F')) << hex;
  EXPECT_EQ(hex, "D41D8CD98F00B204E9800998ECF8427E");
}

TEST(Md5, FreeFunctionsGiveTheSameDigest) {
  EXPECT_EQ(Md5Hex("abc"), "900150983CD24FB0D6963F7D28E17F72");
  const std::array<uint8_t, 16> expected = {0x90, 0x01, 0x50, 0x98, 0x3C, 0xD2, 0x4F, 0xB0,
                                            0xD6, 0x96, 0x3F, 0x7D, 0x28, 0xE1, 0x7F, 0x72};
  EXPECT_EQ(Md5Digest("abc"), expected);
}

TEST(Md5, AgreesWithOpenSslForEveryLengthUpTo1000) {
  std::mt19937_64 rng(1321);
  qoMD5 md5;
  for (size_t n = 0; n <= 1000; ++n) {
    const std::string data = RandomBytes(rng, n);
    const std::string expected = OpenSslMd5(data);
    ASSERT_EQ(md5.DigestStrToHexStr(data), expected) << "length " << n;
    ASSERT_EQ(Md5Hex(data), expected) << "length " << n;
  }
}

TEST(Md5, AgreesWithOpenSslForRandomInputsUpToOneMegabyte) {
  std::mt19937_64 rng(5);
  qoMD5 md5;
  for (int round = 0; round < 12; ++round) {
    const size_t n = round == 0 ? (1u << 20) : rng() % ((1u << 20) + 1);
    const std::string data = RandomBytes(rng, n);
    const std::string expected = OpenSslMd5(data);
    ASSERT_EQ(md5.DigestStrToHexStr(data), expected) << "length " << n;
    ASSERT_EQ(Md5Hex(data), expected) << "length " << n;
  }
}

TEST(Md5, UpdateInPiecesGivesTheDigestOfTheWhole) {
  std::mt19937_64 rng(64);
  const std::string data = RandomBytes(rng, 5000);
  for (int round = 0; round < 50; ++round) {
    qoMD5 md5;
    md5.MD5Init();
    size_t at = 0;
    while (at < data.size()) {
      const size_t piece = std::min<size_t>(rng() % 150, data.size() - at);
      md5.MD5Update(static_cast<long>(piece), std::string_view(data).substr(at, piece));
      at += piece;
    }
    md5.MD5Final();
    ASSERT_EQ(md5.GetValues(), OpenSslMd5(data)) << "round " << round;
  }
}

TEST(Md5, UpdateTakesByteArrayAndCountsOnlyInputLen) {
  qoMD5 md5;
  md5.MD5Init();
  const std::vector<uint8_t> bytes = {'a', 'b', 'c', 'd', 'e'};
  md5.MD5Update(3, bytes);
  md5.MD5Final();
  EXPECT_EQ(md5.GetValues(), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(Md5, UpdateRejectsLengthOutsideTheBuffer) {
  qoMD5 md5;
  md5.MD5Init();
  EXPECT_RUNTIME_ERROR_NUMBER(md5.MD5Update(4, std::vector<uint8_t>{1, 2, 3}), 9);
  EXPECT_RUNTIME_ERROR_NUMBER(md5.MD5Update(4, std::string_view("abc")), 9);
  EXPECT_RUNTIME_ERROR_NUMBER(md5.MD5Update(-1, std::string_view("abc")), 5);
  // Nothing was added by the failed calls.
  md5.MD5Final();
  EXPECT_EQ(md5.GetValues(), "D41D8CD98F00B204E9800998ECF8427E");
}

TEST(Md5, GetValuesAfterInitShowsInitialWordsLeastSignificantByteFirst) {
  qoMD5 md5;
  md5.MD5Init();
  EXPECT_EQ(md5.GetValues(), "0123456789ABCDEFFEDCBA9876543210");
}

TEST(Md5, RegistersShowStateWordsAsSignedDecimal) {
  qoMD5 md5;
  md5.MD5Init();
  EXPECT_EQ(md5.RegisterA(), "1732584193");
  EXPECT_EQ(md5.RegisterB(), "-271733879");
  EXPECT_EQ(md5.RegisterC(), "-1732584194");
  EXPECT_EQ(md5.RegisterD(), "271733878");
  md5.DigestStrToHexStr("abc");
  // 900150983CD24FB0...: word A is 0x98500190.
  EXPECT_EQ(md5.RegisterA(), std::to_string(static_cast<int32_t>(0x98500190u)));
}

TEST(Md5, StepsAfterTextDigestContinueLikeRfcSteps) {
  // After a text digest, further steps work on from the finished state exactly
  // as they do after MD5Init, MD5Update and MD5Final by hand.
  for (size_t n : {size_t{0}, size_t{3}, size_t{55}, size_t{56}, size_t{64}, size_t{100}}) {
    const std::string text(n, 'z');
    qoMD5 by_text;
    by_text.DigestStrToHexStr(text);
    qoMD5 by_steps;
    by_steps.MD5Init();
    by_steps.MD5Update(static_cast<long>(n), text);
    by_steps.MD5Final();
    ASSERT_EQ(by_text.GetValues(), by_steps.GetValues());
    by_text.MD5Update(5, std::string_view("tail!"));
    by_steps.MD5Update(5, std::string_view("tail!"));
    by_text.MD5Final();
    by_steps.MD5Final();
    EXPECT_EQ(by_text.GetValues(), by_steps.GetValues()) << "length " << n;
  }
}

TEST(Md5, HashSetsOutputFromInput) {
  qoMD5 md5;
  EXPECT_EQ(md5.OutputValue(), "");
  md5.InputValue("message digest");
  md5.Hash();
  EXPECT_EQ(md5.OutputValue(), "F96B697D7CB7938D525A2F31AAF161D0");
}

TEST(Md5, DigestsHighAndZeroBytes) {
  EXPECT_EQ(Md5Hex(std::string(1, '\0')), "93B885ADFE0DA089CDF634904FD59F71");
  EXPECT_EQ(Md5Hex(std::string(1, '\xFF')), "00594FD4F42BA43FC1CA0427A0576295");
}

TEST(Md5, LongLeftRotateRotatesThirtyTwoBits) {
  EXPECT_EQ(qoMD5::LongLeftRotate(1, 1), 2);
  EXPECT_EQ(qoMD5::LongLeftRotate(INT32_MIN, 1), 1);
  EXPECT_EQ(qoMD5::LongLeftRotate(0x12345678, 8), 0x34567812);
  EXPECT_EQ(qoMD5::LongLeftRotate(0x12345678, 0), 0x12345678);
  EXPECT_EQ(qoMD5::LongLeftRotate(0x12345678, 32), 0x12345678);
  EXPECT_EQ(qoMD5::LongLeftRotate(-1, 7), -1);
}

TEST(Md5, DigestsFilesLikeOpenSslWhenLengthIsNotAMultipleOf64) {
  TempFolder folder;
  std::mt19937_64 rng(99);
  qoMD5 md5;
  for (size_t n : {size_t{0}, size_t{1}, size_t{55}, size_t{56}, size_t{63}, size_t{65},
                   size_t{127}, size_t{5 * 1024 * 1024 + 1}}) {
    const std::string data = RandomBytes(rng, n);
// GCC 12 at -O3 reports -Wrestrict inside libstdc++ for "x" + std::string&&
// where no overlap is possible (GCC bug 105329).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wrestrict"
    const std::string file = folder.Write("f" + std::to_string(n), data);
#pragma GCC diagnostic pop
    EXPECT_EQ(md5.DigestFileToHexStr(file), OpenSslMd5(data)) << "length " << n;
  }
}

TEST(Md5, FileOfWholeBlocksDigestsAllButItsLastBlock) {
  TempFolder folder;
  std::mt19937_64 rng(128);
  qoMD5 md5;
  for (size_t n : {size_t{64}, size_t{128}, size_t{5 * 1024 * 1024}}) {
    const std::string data = RandomBytes(rng, n);
// GCC 12 at -O3 reports -Wrestrict inside libstdc++ for "x" + std::string&&
// where no overlap is possible (GCC bug 105329).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wrestrict"
    const std::string file = folder.Write("f" + std::to_string(n), data);
#pragma GCC diagnostic pop
    EXPECT_EQ(md5.DigestFileToHexStr(file), OpenSslMd5(std::string_view(data).substr(0, n - 64)))
        << "length " << n;
  }
}

TEST(Md5, FileOf64BytesDigestsAsEmptyInput) {
  TempFolder folder;
  const std::string file = folder.Write("block", std::string(64, 'q'));
  EXPECT_EQ(qoMD5().DigestFileToHexStr(file), "D41D8CD98F00B204E9800998ECF8427E");
}

TEST(Md5, FileDigestLeavesTheObjectReadyForText) {
  TempFolder folder;
  qoMD5 md5;
  md5.DigestFileToHexStr(folder.Write("x", std::string(64, 'x')));
  EXPECT_EQ(md5.DigestStrToHexStr("abc"), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(Md5, MissingFileRaisesFileNotFound) {
  TempFolder folder;
  qoMD5 md5;
  EXPECT_RUNTIME_ERROR_NUMBER(md5.DigestFileToHexStr((folder.path() / "missing").string()), 53);
  EXPECT_RUNTIME_ERROR_NUMBER(md5.DigestFileToHexStr(""), 53);
}

TEST(Md5, FileUnderAFileRaisesFileNotFound) {
  TempFolder folder;
  const std::string file = folder.Write("plain", "abc");
  EXPECT_RUNTIME_ERROR_NUMBER(qoMD5().DigestFileToHexStr(file + "/inner"), 53);
}

TEST(Md5, UnreadableFileRaisesPathFileAccessError) {
  TempFolder folder;
  qoMD5 md5;
  // A folder opens but cannot be read as a file.
  EXPECT_RUNTIME_ERROR_NUMBER(md5.DigestFileToHexStr(folder.path().string()), 75);
  // The object still works after the failure.
  EXPECT_EQ(md5.DigestStrToHexStr("a"), "0CC175B9C0F1B6A831C399E269772661");
}

// The error number DigestFileToHexStr(path) raises, or 0 when it raises none.
long DigestErrorNumber(const std::string& path) {
  try {
    (void)qoMD5().DigestFileToHexStr(path);
  } catch (const RuntimeError& e) {
    return e.number;
  }
  return 0;
}

TEST(Md5, FileWithoutReadPermissionRaisesPathFileAccessError) {
  TempFolder folder;
  const std::string file = folder.Write("secret", "abc");
  ASSERT_EQ(::chmod(file.c_str(), 0), 0);
  if (::geteuid() != 0) {
    EXPECT_EQ(DigestErrorNumber(file), 75);
    return;
  }
  // Root reads any file: the digest is asked by a child process that has
  // given up root for the unprivileged "nobody" user.
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(100);
    ::_exit(static_cast<int>(DigestErrorNumber(file)));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_NE(WEXITSTATUS(status), 100) << "could not become the unprivileged user";
  EXPECT_EQ(WEXITSTATUS(status), 75);
}

}  // namespace
}  // namespace quillo
