// The socket-control interface: by-name members and event delivery.
#include "platform/socket.h"

#include <sys/socket.h>

#include <cstring>
#include <optional>
#include <vector>

#include "platform/event_loop.h"

namespace quillo {

int32_t SocketScode(int16_t number) {
  return static_cast<int32_t>(0x800A0000u | static_cast<uint16_t>(number));
}

const MemberTable& SocketControl::Members() const {
  static const MemberTable table =
      MemberTable::Builder<SocketControl>("SocketControl")
          .Method("Connect",
                  [](SocketControl& s, std::string host, int32_t port) { s.Connect(host, port); })
          .Get("State", [](SocketControl& s) { return s.State(); })
          .Method("SendData", [](SocketControl& s, std::string data) { s.SendData(data); })
          .Method("GetData",
                  [](SocketControl& s, std::optional<Variant> /*data*/, std::optional<int32_t> type,
                     std::optional<int32_t> max_len) {
                    std::string data;
                    s.GetData(data, type.value_or(8), max_len.value_or(0));
                    return data;
                  })
          .Method("Close", [](SocketControl& s) { s.Close(); })
          .Get("BytesReceived",
               [](SocketControl& s) { return static_cast<int32_t>(s.BytesReceived()); })
          .Build();
  return table;
}

void SocketControl::RaiseDataArrival(long bytes_total) {
  if (on_data_arrival_) {
    DataArrivalHandler handler = on_data_arrival_;  // The handler may replace itself.
    handler(bytes_total);
  }
  if (HasSinks()) {
    std::vector<Variant> args{Variant(static_cast<int32_t>(bytes_total))};
    FireEvent("DataArrival", args);
  }
}

void SocketControl::RaiseError(int16_t number, const std::string& description, int32_t scode,
                               const std::string& source) {
  bool cancel_display = false;
  if (on_error_) {
    ErrorHandler handler = on_error_;
    handler(number, description, scode, source, std::string(), 0, cancel_display);
  }
  if (HasSinks()) {
    std::vector<Variant> args{Variant(number),        Variant(description),   Variant(scode),
                              Variant(source),        Variant(std::string()), Variant(int32_t{0}),
                              Variant(cancel_display)};
    FireEvent("Error", args);
  }
}

void SocketControl::Register() { internal::RegisterSocket(this); }
void SocketControl::Unregister() { internal::UnregisterSocket(this); }

bool ConnectedToItself(int fd) {
  sockaddr_storage local{}, peer{};
  socklen_t local_len = sizeof local, peer_len = sizeof peer;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &local_len) != 0 ||
      getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_len) != 0) {
    return false;
  }
  return local_len == peer_len && std::memcmp(&local, &peer, local_len) == 0;
}

}  // namespace quillo
