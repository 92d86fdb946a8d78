// Fuzzes the template reading of the library's dmMessage (header block,
// Replace lines and personalisation), which our delivery path shares.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "message/dm_message.h"
#include "records/dmclients.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto client = std::make_shared<quillo::dmclients>();
  client->Email("ada@example.test");
  client->First("Ada<!--FIRST-->");
  client->Last("Lovelace");
  quillo::dmMessage message;
  message.Client(client);
  message.Subject("Hello <!--FIRST-->");
  message.Message(std::string(reinterpret_cast<const char*>(data), size));
  (void)message.GetReplacedMessageBody();
  return 0;
}
