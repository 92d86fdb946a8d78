// Queue file throughput: writing and reading back 1,000,000 records through
// dmmsgqueue, beside the anchor of writing and reading the same bytes with
// plain buffered stdio in the same process.
//
// Prints records per second for each direction and the ratio to the anchor
// (goal: at least 0.5). The Google Benchmark cases time the same work for
// the usual console report.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "campaign/dm_campaign_msg.h"
#include "campaign/dmmsgqueue.h"

namespace {

constexpr int kRecords = 1000000;

std::string QueuePath() {
  return (std::filesystem::temp_directory_path() /
          ("quillo-queue-bench-" + std::to_string(::getpid()) + ".txt"))
      .string();
}

std::vector<std::shared_ptr<quillo::dmCampaignMsg>> MakeMessages() {
  std::vector<std::shared_ptr<quillo::dmCampaignMsg>> out;
  out.reserve(kRecords);
  for (int i = 0; i < kRecords; ++i) {
    auto m = std::make_shared<quillo::dmCampaignMsg>();
    std::string k = std::to_string(i);
    m->Email("client" + k + "@example.com");
    m->MessageFileName("templates/welcome-" + std::to_string(i % 3) + ".txt");
    m->Account("ACCOUNT" + k);
    m->CampaignItemRecID("6F9619FF8B86D011B42D00C04FC964F" + std::to_string(i % 3));
    m->CampaignName("Spring Drip Campaign");
    m->CampaignRecID("0123456789ABCDEF0123456789ABCDEF");
    m->HistoryRecID("FEDCBA9876543210FEDCBA9876543210");
    m->CampaignType("1");
    m->SendDate("2026-03-01");
    out.push_back(std::move(m));
  }
  return out;
}

// The bytes of each record, as the queue writes them, for the anchor.
std::vector<std::string> RecordLines(
    const std::vector<std::shared_ptr<quillo::dmCampaignMsg>>& ms) {
  std::vector<std::string> lines;
  lines.reserve(ms.size());
  for (const auto& m : ms) {
    lines.push_back("\"" + m->Email() + "\",\"" + m->MessageFileName() + "\",\"" + m->Account() +
                    "\",\"" + m->CampaignItemRecID() + "\",\"" + m->CampaignName() + "\",\"" +
                    m->CampaignRecID() + "\",\"" + m->HistoryRecID() + "\",\"" + m->CampaignType() +
                    "\",\"" + m->SendDate() + "\"\r\n");
  }
  return lines;
}

void QueueWrite(const std::string& path,
                const std::vector<std::shared_ptr<quillo::dmCampaignMsg>>& ms) {
  quillo::dmmsgqueue q;
  q.MessageQueueFileName(path);
  if (!q.OpenQueueWrite()) std::abort();
  for (const auto& m : ms) q.WriteMessage(m);
  q.CloseQueue();
}

long QueueRead(const std::string& path) {
  quillo::dmmsgqueue q;
  q.MessageQueueFileName(path);
  if (!q.OpenQueueRead()) std::abort();
  long n = 0;
  while (auto m = q.ReadMessage()) {
    benchmark::DoNotOptimize(m);
    ++n;
  }
  q.CloseQueue();
  return n;
}

void PlainWrite(const std::string& path, const std::vector<std::string>& lines) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) std::abort();
  for (const std::string& line : lines) std::fwrite(line.data(), 1, line.size(), f);
  std::fclose(f);
}

long PlainRead(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) std::abort();
  char* line = nullptr;
  size_t cap = 0;
  long n = 0;
  while (::getline(&line, &cap, f) > 0) {
    benchmark::DoNotOptimize(line);
    ++n;
  }
  std::free(line);
  std::fclose(f);
  return n;
}

const std::vector<std::shared_ptr<quillo::dmCampaignMsg>>& Messages() {
  static const auto messages = MakeMessages();
  return messages;
}
const std::vector<std::string>& Lines() {
  static const auto lines = RecordLines(Messages());
  return lines;
}

void BM_QueueWrite(benchmark::State& state) {
  std::string path = QueuePath();
  for (auto _ : state) QueueWrite(path, Messages());
  state.SetItemsProcessed(state.iterations() * kRecords);
  std::filesystem::remove(path);
}
void BM_PlainWrite(benchmark::State& state) {
  std::string path = QueuePath();
  for (auto _ : state) PlainWrite(path, Lines());
  state.SetItemsProcessed(state.iterations() * kRecords);
  std::filesystem::remove(path);
}
void BM_QueueRead(benchmark::State& state) {
  std::string path = QueuePath();
  PlainWrite(path, Lines());
  for (auto _ : state) benchmark::DoNotOptimize(QueueRead(path));
  state.SetItemsProcessed(state.iterations() * kRecords);
  std::filesystem::remove(path);
}
void BM_PlainRead(benchmark::State& state) {
  std::string path = QueuePath();
  PlainWrite(path, Lines());
  for (auto _ : state) benchmark::DoNotOptimize(PlainRead(path));
  state.SetItemsProcessed(state.iterations() * kRecords);
  std::filesystem::remove(path);
}
BENCHMARK(BM_QueueWrite)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_PlainWrite)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_QueueRead)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_PlainRead)->Unit(benchmark::kMillisecond)->Iterations(3);

// Best of `rounds` timings of `f`, in seconds.
template <class F>
double BestSeconds(int rounds, F f) {
  double best = 1e300;
  for (int i = 0; i < rounds; ++i) {
    auto t0 = std::chrono::steady_clock::now();
    f();
    std::chrono::duration<double> d = std::chrono::steady_clock::now() - t0;
    best = std::min(best, d.count());
  }
  return best;
}

// The side-by-side summary: the queue against the anchor, interleaved so
// that both see the same machine load.
void Summary() {
  std::string path = QueuePath();
  const auto& ms = Messages();
  const auto& lines = Lines();
  double qw = BestSeconds(5, [&] { QueueWrite(path, ms); });
  double pw = BestSeconds(5, [&] { PlainWrite(path, lines); });
  double qr = BestSeconds(5, [&] {
    if (QueueRead(path) != kRecords) std::abort();
  });
  double pr = BestSeconds(5, [&] {
    if (PlainRead(path) != kRecords) std::abort();
  });
  std::uintmax_t bytes = std::filesystem::file_size(path);
  std::filesystem::remove(path);
  std::printf("\nQueue file, %d records, %.1f MB (best of 5)\n", kRecords, bytes / 1e6);
  std::printf("  %-8s %14s %14s %7s\n", "", "dmmsgqueue", "plain stdio", "ratio");
  std::printf("  %-8s %12.0f/s %12.0f/s %7.2f\n", "write", kRecords / qw, kRecords / pw, pw / qw);
  std::printf("  %-8s %12.0f/s %12.0f/s %7.2f\n", "read", kRecords / qr, kRecords / pr, pr / qr);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  Summary();
  return 0;
}
