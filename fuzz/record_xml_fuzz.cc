// Fuzzes the XML form of a record: any text set as a client's XML loads or
// reports an error through Error, and what loaded writes back out.
#include <cstddef>
#include <cstdint>
#include <string>

#include "records/dmclients.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quillo::dmclients client;
  client.XML(std::string(reinterpret_cast<const char*>(data), size));
  (void)client.XML();
  return 0;
}
