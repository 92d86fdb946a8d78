// Personalisation throughput: one 4 KB HTML body with ten listed variables
// (twenty tags) personalised for 1,000,000 clients.
//
// Three programs run over the same text and the same client values:
//   BM_Anchor           one left-to-right pass: find each "<!--", look the
//                       tag up among the ten, append the text before it and
//                       the client's value (values computed beforehand);
//   BM_AnchorBangSearch the anchor, but finding "<!--" by its rarer "!" the
//                       way the replacer does (for reference only);
//   BM_TagReplacer      the replacer dmMessage uses, variable by variable with
//                       a fresh value per occurrence, as the message does;
//   BM_dmMessage        dmMessage::GetReplacedMessageBody with a dmclients
//                       record set as Client (the whole path a host takes).
// Each reports messages per second; the summary prints each against the
// anchor. The clients are a pool of 1,000 distinct records used in turn.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "message/dm_message.h"
#include "message/personalisation.h"
#include "platform/text.h"
#include "records/dmclients.h"

namespace {

using quillo::ReplacementVariable;

constexpr int kClients = 1000;          // Distinct client records, used in turn.
constexpr int64_t kMessages = 1000000;  // Messages personalised per program.

const std::array<ReplacementVariable, 10> kListed = {
    ReplacementVariable::kFirst,   ReplacementVariable::kLast,     ReplacementVariable::kFullName,
    ReplacementVariable::kCompany, ReplacementVariable::kAddress1, ReplacementVariable::kCity,
    ReplacementVariable::kState,   ReplacementVariable::kPostal,   ReplacementVariable::kEmail,
    ReplacementVariable::kCsz};

struct ClientData {
  std::string first, last, middle, address, po, city, state, country, zip, company, email;
  quillo::ClientFields Fields() const {
    return {first, last, middle, address, po, city, state, country, zip, company, email};
  }
};

const std::vector<ClientData>& Clients() {
  static const std::vector<ClientData> clients = [] {
    std::vector<ClientData> out;
    for (int i = 0; i < kClients; ++i) {
      const std::string n = std::to_string(i);
      out.push_back({"First" + n, "Last" + n, "", n + " Main Street", "", "Springfield", "IL",
                     "USA", "627" + n, "Company " + n, "client" + n + "@example.com"});
    }
    return out;
  }();
  return clients;
}

// A 4 KB HTML body: paragraphs of ordinary markup, an unlisted tag and a
// comment, and each listed tag twice.
const std::string& Body() {
  static const std::string body = [] {
    std::string s = "<html><head><title>Spring offers</title></head><body>\r\n";
    int k = 0;
    while (s.size() < 3900) {
      const ReplacementVariable v = kListed[static_cast<size_t>(k % 10)];
      if (k < 20) {
        s += "<p class=\"line\">Dear customer, <b>";
        s += quillo::ReplacementTag(v);
        s += "</b>, our <i>spring</i> catalogue has arrived. <!-- note --> ";
        s += "Visit <a href=\"https://example.com/offers\">our shop</a> for details.</p>\r\n";
      } else {
        s += "<p>Kind regards from the whole team; <!--UNLISTED--> see you soon.</p>\r\n";
      }
      ++k;
    }
    s.resize(4000, ' ');
    s += "</body></html>\r\n";
    return s;
  }();
  return body;
}

// --- Anchor ------------------------------------------------------------------

inline char Upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c; }

// The next "<!--" at or after `pos`, with the standard search.
size_t FindWithStd(std::string_view text, size_t pos) { return text.find("<!--", pos); }

// The same, looking for the rarer "!" first, as the replacer does.
size_t FindByBang(std::string_view text, size_t pos) {
  size_t from = pos + 1;
  while (from + 2 < text.size()) {
    const size_t bang = text.find('!', from);
    if (bang == std::string_view::npos || bang + 2 >= text.size()) break;
    if (text[bang - 1] == '<' && text[bang + 1] == '-' && text[bang + 2] == '-') return bang - 1;
    from = bang + 1;
  }
  return std::string_view::npos;
}

template <size_t (*Find)(std::string_view, size_t)>
void AnchorLoop(benchmark::State& state) {
  const std::string& body = Body();
  std::vector<std::array<std::string, 10>> values;
  for (const ClientData& c : Clients()) {
    std::array<std::string, 10> row;
    for (size_t i = 0; i < kListed.size(); ++i) {
      quillo::AppendClientValue(kListed[i], c.Fields(), row[i]);
    }
    values.push_back(std::move(row));
  }
  std::array<std::string_view, 10> tags;
  for (size_t i = 0; i < kListed.size(); ++i) tags[i] = quillo::ReplacementTag(kListed[i]);
  size_t client = 0;
  for (auto _ : state) {
    const auto& row = values[client];
    client = (client + 1) % values.size();
    std::string out;
    out.reserve(body.size() + 256);
    size_t pos = 0;
    while (true) {
      const size_t at = Find(body, pos);
      if (at == std::string::npos) break;
      size_t matched = tags.size();
      for (size_t i = 0; i < tags.size() && matched == tags.size(); ++i) {
        const std::string_view tag = tags[i];
        if (at + tag.size() > body.size()) continue;
        size_t j = 4;  // The marker itself has matched.
        while (j < tag.size() && Upper(body[at + j]) == tag[j]) ++j;
        if (j == tag.size()) matched = i;
      }
      if (matched == tags.size()) {
        out.append(body, pos, at + 4 - pos);
        pos = at + 4;
        continue;
      }
      out.append(body, pos, at - pos);
      out.append(row[matched]);
      pos = at + tags[matched].size();
    }
    out.append(body, pos, std::string::npos);
    benchmark::DoNotOptimize(out);
  }
  state.counters["msgs/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
void BM_Anchor(benchmark::State& state) { AnchorLoop<FindWithStd>(state); }
BENCHMARK(BM_Anchor)->Iterations(kMessages)->Unit(benchmark::kMicrosecond);

// The anchor with the replacer's marker search, to show what the search
// alone is worth.
void BM_AnchorBangSearch(benchmark::State& state) { AnchorLoop<FindByBang>(state); }
BENCHMARK(BM_AnchorBangSearch)->Iterations(kMessages)->Unit(benchmark::kMicrosecond);

// --- The replacer ----------------------------------------------------------------

void BM_TagReplacer(benchmark::State& state) {
  const std::string& body = Body();
  const std::vector<ClientData>& clients = Clients();
  quillo::TagReplacer replacer;
  size_t client = 0;
  for (auto _ : state) {
    const quillo::ClientFields fields = clients[client].Fields();
    client = (client + 1) % clients.size();
    std::string out = replacer.Replace(body, kListed, [&](ReplacementVariable v, std::string& s) {
      quillo::AppendClientValue(v, fields, s);
    });
    benchmark::DoNotOptimize(out);
  }
  state.counters["msgs/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_TagReplacer)->Iterations(kMessages)->Unit(benchmark::kMicrosecond);

// --- dmMessage ----------------------------------------------------------------------

void BM_dmMessage(benchmark::State& state) {
  std::vector<std::shared_ptr<quillo::dmclients>> clients;
  for (const ClientData& c : Clients()) {
    auto record = std::make_shared<quillo::dmclients>();
    record->First(c.first);
    record->Last(c.last);
    record->Address(c.address);
    record->city(c.city);
    record->state(c.state);
    record->Country(c.country);
    record->zip(c.zip);
    record->Company(c.company);
    record->Email(c.email);
    clients.push_back(std::move(record));
  }
  std::string header = "[HEADER]\r\n";
  for (ReplacementVariable v : kListed) {
    std::string_view tag = quillo::ReplacementTag(v);
    header += "Replace: " + std::string(tag.substr(4, tag.size() - 7)) + "\r\n";
  }
  header += "[/HEADER]\r\n";
  quillo::dmMessage message;
  message.Message(header + Body());
  size_t client = 0;
  for (auto _ : state) {
    message.Client(clients[client]);
    client = (client + 1) % clients.size();
    std::string out = message.GetReplacedMessageBody();
    benchmark::DoNotOptimize(out);
  }
  state.counters["msgs/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_dmMessage)->Iterations(kMessages)->Unit(benchmark::kMicrosecond);

// Prints each program's rate beside the anchor's.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const double seconds = run.GetAdjustedRealTime() * 1e-6;  // Unit is microseconds.
      if (seconds > 0) rates_[run.benchmark_name()] = 1.0 / seconds;
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const auto anchor = rates_.find("BM_Anchor/iterations:1000000");
    if (anchor == rates_.end()) return;
    std::printf("\n%-36s %14s %8s\n", "program", "messages/s", "ratio");
    for (const auto& [name, rate] : rates_) {
      std::printf("%-36s %14.0f %8.2f\n", name.c_str(), rate, rate / anchor->second);
    }
  }

 private:
  std::map<std::string, double> rates_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
