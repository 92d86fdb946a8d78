// Fuzzes the queue file reader: any bytes as a queue file. Every message it
// returns is written to a second queue file and read back, and must come back
// with the same nine fields whenever the writer can carry them (no double
// quote or line break in any field).
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "campaign/dmmsgqueue.h"

namespace {

using Fields = std::vector<std::string>;

Fields FieldsOf(const quillo::dmCampaignMsg& m) {
  return {m.Email(),        m.MessageFileName(), m.Account(),      m.CampaignItemRecID(),
          m.CampaignName(), m.CampaignRecID(),   m.HistoryRecID(), m.CampaignType(),
          m.SendDate()};
}

bool Writable(const Fields& fields) {
  for (const auto& f : fields)
    if (f.find_first_of("\"\r\n") != std::string::npos) return false;
  return true;
}

std::string ScratchPath(const char* name) {
  return "/tmp/quillo-queue-fuzz-" + std::to_string(getpid()) + "-" + name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string input_path = ScratchPath("in");
  static const std::string output_path = ScratchPath("out");
  {
    std::ofstream out(input_path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  quillo::dmmsgqueue reader;
  reader.MessageQueueFileName(input_path);
  if (!reader.OpenQueueRead()) std::abort();
  std::vector<Fields> kept;
  while (auto message = reader.ReadMessage()) {
    Fields fields = FieldsOf(*message);
    if (Writable(fields)) kept.push_back(std::move(fields));
  }
  reader.CloseQueue();

  quillo::dmmsgqueue writer;
  writer.MessageQueueFileName(output_path);
  if (!writer.OpenQueueWrite()) std::abort();
  for (const auto& fields : kept) {
    quillo::dmCampaignMsg message;
    message.Email(fields[0]);
    message.MessageFileName(fields[1]);
    message.Account(fields[2]);
    message.CampaignItemRecID(fields[3]);
    message.CampaignName(fields[4]);
    message.CampaignRecID(fields[5]);
    message.HistoryRecID(fields[6]);
    message.CampaignType(fields[7]);
    message.SendDate(fields[8]);
    writer.WriteMessage(message);
  }
  writer.CloseQueue();

  quillo::dmmsgqueue again;
  again.MessageQueueFileName(output_path);
  if (!again.OpenQueueRead()) std::abort();
  size_t n = 0;
  while (auto message = again.ReadMessage()) {
    if (n >= kept.size() || FieldsOf(*message) != kept[n]) std::abort();
    ++n;
  }
  if (n != kept.size()) std::abort();
  return 0;
}
