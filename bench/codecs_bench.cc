// Throughput of the Base64 and MD5 codecs against OpenSSL.
//
// Each figure runs beside its anchor in the same process: the library's MD5
// against OpenSSL's MD5 (the low-level MD5_* calls, its fastest path) on 8 KiB
// and 64-byte inputs, and Base64 encoding and decoding of 64 MiB against
// EVP_EncodeBlock / EVP_DecodeBlock. Both sides of a pair produce the same
// kind of result (hex text, or a std::string of the output size), so they pay
// the same allocation. After the runs the program prints each pair with the
// ratio ours/anchor of throughput (above 1 means faster than OpenSSL), taken
// from the medians when --benchmark_repetitions is given.
//
//   build/release/bench/codecs_bench --benchmark_repetitions=5
#define OPENSSL_SUPPRESS_DEPRECATED
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/md5.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "codec/base64.h"
#include "codec/md5.h"

namespace {

constexpr size_t kBase64Size = 64u << 20;

std::string RandomBytes(size_t n, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::string s(n, '\0');
  for (size_t i = 0; i + 8 <= n; i += 8) {
    const uint64_t w = rng();
    std::memcpy(&s[i], &w, 8);
  }
  for (size_t i = n / 8 * 8; i < n; ++i) s[i] = static_cast<char>(rng());
  return s;
}

const std::string& Base64Plain() {
  static const std::string data = RandomBytes(kBase64Size, 1);
  return data;
}

// 64 MiB of Base64 text without padding: the encoding of 48 MiB.
const std::string& Base64Text() {
  static const std::string text = quillo::Base64Encode(RandomBytes(kBase64Size / 4 * 3, 2));
  return text;
}

std::string HexUpper(const unsigned char* md, size_t len) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string hex(2 * len, '0');
  for (size_t i = 0; i < len; ++i) {
    hex[2 * i] = kHex[md[i] >> 4];
    hex[2 * i + 1] = kHex[md[i] & 0x0F];
  }
  return hex;
}

// ---- MD5 ----

void BM_Md5Hex(benchmark::State& state) {
  const std::string data = RandomBytes(static_cast<size_t>(state.range(0)), 3);
  for (auto _ : state) benchmark::DoNotOptimize(quillo::Md5Hex(data));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_OpenSsl_Md5Hex(benchmark::State& state) {
  const std::string data = RandomBytes(static_cast<size_t>(state.range(0)), 3);
  for (auto _ : state) {
    unsigned char md[MD5_DIGEST_LENGTH];
    MD5_CTX ctx;
    MD5_Init(&ctx);
    MD5_Update(&ctx, data.data(), data.size());
    MD5_Final(md, &ctx);
    benchmark::DoNotOptimize(HexUpper(md, sizeof md));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_Md5Digest(benchmark::State& state) {
  const std::string data = RandomBytes(static_cast<size_t>(state.range(0)), 3);
  for (auto _ : state) benchmark::DoNotOptimize(quillo::Md5Digest(data));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_OpenSsl_Md5Digest(benchmark::State& state) {
  const std::string data = RandomBytes(static_cast<size_t>(state.range(0)), 3);
  for (auto _ : state) {
    unsigned char md[MD5_DIGEST_LENGTH];
    MD5(reinterpret_cast<const unsigned char*>(data.data()), data.size(), md);
    benchmark::DoNotOptimize(md);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_qoMD5_DigestStrToHexStr(benchmark::State& state) {
  const std::string data = RandomBytes(static_cast<size_t>(state.range(0)), 3);
  quillo::qoMD5 md5;
  for (auto _ : state) benchmark::DoNotOptimize(md5.DigestStrToHexStr(data));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

BENCHMARK(BM_Md5Hex)->Arg(8192)->Arg(64);
BENCHMARK(BM_OpenSsl_Md5Hex)->Arg(8192)->Arg(64);
BENCHMARK(BM_Md5Digest)->Arg(8192)->Arg(64);
BENCHMARK(BM_OpenSsl_Md5Digest)->Arg(8192)->Arg(64);
BENCHMARK(BM_qoMD5_DigestStrToHexStr)->Arg(8192)->Arg(64);

// ---- Base64 ----

void BM_Base64Encode(benchmark::State& state) {
  const std::string& data = Base64Plain();
  for (auto _ : state) benchmark::DoNotOptimize(quillo::Base64Encode(data));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void BM_OpenSsl_Base64Encode(benchmark::State& state) {
  const std::string& data = Base64Plain();
  for (auto _ : state) {
    std::string out((data.size() + 2) / 3 * 4 + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(data.data()),
                                  static_cast<int>(data.size()));
    out.resize(static_cast<size_t>(n));
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void BM_Base64Decode(benchmark::State& state) {
  const std::string& text = Base64Text();
  for (auto _ : state) benchmark::DoNotOptimize(quillo::Base64Decode(text));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_OpenSsl_Base64Decode(benchmark::State& state) {
  const std::string& text = Base64Text();
  for (auto _ : state) {
    std::string out(text.size() / 4 * 3, '\0');
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    out.resize(static_cast<size_t>(n));
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// The same work into an output buffer kept between iterations: the codec
// alone, without the first-touch cost of fresh output pages.
void BM_Base64EncodeTo(benchmark::State& state) {
  const std::string& data = Base64Plain();
  std::string out;
  for (auto _ : state) {
    quillo::Base64EncodeTo(data, &out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void BM_OpenSsl_Base64EncodeTo(benchmark::State& state) {
  const std::string& data = Base64Plain();
  std::string out((data.size() + 2) / 3 * 4 + 1, '\0');
  for (auto _ : state) {
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(data.data()),
                                  static_cast<int>(data.size()));
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}

void BM_Base64DecodeTo(benchmark::State& state) {
  const std::string& text = Base64Text();
  std::string out;
  for (auto _ : state) {
    quillo::Base64DecodeTo(text, &out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_OpenSsl_Base64DecodeTo(benchmark::State& state) {
  const std::string& text = Base64Text();
  std::string out(text.size() / 4 * 3 + 1, '\0');
  for (auto _ : state) {
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

BENCHMARK(BM_Base64Encode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSsl_Base64Encode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Decode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSsl_Base64Decode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64EncodeTo)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSsl_Base64EncodeTo)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64DecodeTo)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSsl_Base64DecodeTo)->Unit(benchmark::kMillisecond);

// Keeps the console output and remembers each benchmark's time per
// iteration (the median when repetitions are asked for).
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const std::string name = run.run_name.str();
      const double seconds = run.GetAdjustedRealTime();
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name == "median") median_[name] = seconds;
      } else {
        single_[name] = seconds;
      }
    }
  }

  // Time per iteration of `name` in the reporter's unit; negative if absent.
  double Time(const std::string& name) const {
    if (auto it = median_.find(name); it != median_.end()) return it->second;
    if (auto it = single_.find(name); it != single_.end()) return it->second;
    return -1;
  }

 private:
  std::map<std::string, double> median_;  // Median per benchmark, when repeated.
  std::map<std::string, double> single_;  // Last single run per benchmark.
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  struct Pair {
    const char* what;
    const char* ours;
    const char* anchor;
  };
  const Pair pairs[] = {
      {"MD5 8 KiB, hex text", "BM_Md5Hex/8192", "BM_OpenSsl_Md5Hex/8192"},
      {"MD5 64 B, hex text", "BM_Md5Hex/64", "BM_OpenSsl_Md5Hex/64"},
      {"MD5 8 KiB, raw digest", "BM_Md5Digest/8192", "BM_OpenSsl_Md5Digest/8192"},
      {"MD5 64 B, raw digest", "BM_Md5Digest/64", "BM_OpenSsl_Md5Digest/64"},
      {"qoMD5 8 KiB, hex text", "BM_qoMD5_DigestStrToHexStr/8192", "BM_OpenSsl_Md5Hex/8192"},
      {"qoMD5 64 B, hex text", "BM_qoMD5_DigestStrToHexStr/64", "BM_OpenSsl_Md5Hex/64"},
      {"Base64 encode 64 MiB", "BM_Base64Encode", "BM_OpenSsl_Base64Encode"},
      {"Base64 decode 64 MiB", "BM_Base64Decode", "BM_OpenSsl_Base64Decode"},
      {"Base64 encode, reused", "BM_Base64EncodeTo", "BM_OpenSsl_Base64EncodeTo"},
      {"Base64 decode, reused", "BM_Base64DecodeTo", "BM_OpenSsl_Base64DecodeTo"},
  };
  std::printf("\n%-24s %14s %14s %8s\n", "figure", "ours", "OpenSSL", "ratio");
  for (const Pair& pair : pairs) {
    const double ours = reporter.Time(pair.ours);
    const double anchor = reporter.Time(pair.anchor);
    if (ours <= 0 || anchor <= 0) continue;
    // Same bytes on both sides, so the throughput ratio is the inverse time ratio.
    std::printf("%-24s %14.4g %14.4g %8.3f\n", pair.what, ours, anchor, anchor / ours);
  }
  std::printf("(times per iteration in each benchmark's unit; ratio = ours/OpenSSL throughput)\n");
  benchmark::Shutdown();
  return 0;
}
