// The socket event pump: poll(2) over the calling thread's sockets.
#include "platform/event_loop.h"

#include <poll.h>

#include <algorithm>
#include <span>
#include <vector>

#include "platform/socket.h"

namespace quillo {
namespace {

// The sockets with a descriptor or a pending event, per thread.
std::vector<SocketControl*>& Registry() {
  thread_local std::vector<SocketControl*> sockets;
  return sockets;
}

bool IsRegistered(SocketControl* socket) {
  const auto& sockets = Registry();
  return std::find(sockets.begin(), sockets.end(), socket) != sockets.end();
}

}  // namespace

namespace internal {

void RegisterSocket(SocketControl* socket) {
  if (!IsRegistered(socket)) Registry().push_back(socket);
}

void UnregisterSocket(SocketControl* socket) {
  auto& sockets = Registry();
  sockets.erase(std::remove(sockets.begin(), sockets.end(), socket), sockets.end());
}

}  // namespace internal

int PumpEvents(int timeout_ms) {
  // A snapshot: handlers may close, open or destroy sockets while we dispatch.
  // The buffers are kept between calls (a handler that pumps again gets its
  // own set).
  thread_local int depth = 0;
  thread_local std::vector<SocketControl*> kept_sockets;
  thread_local std::vector<pollfd> kept_fds;
  thread_local std::vector<SocketControl*> kept_polled;
  std::vector<SocketControl*> own_sockets, own_polled;
  std::vector<pollfd> own_fds;
  const bool nested = depth > 0;
  std::vector<SocketControl*>& sockets = nested ? own_sockets : kept_sockets;
  std::vector<pollfd>& fds = nested ? own_fds : kept_fds;
  std::vector<SocketControl*>& polled = nested ? own_polled : kept_polled;
  struct Depth {
    Depth() { ++depth; }
    ~Depth() { --depth; }
  } depth_guard;
  sockets = Registry();
  fds.clear();
  polled.clear();
  bool pending = false;
  for (SocketControl* socket : sockets) {
    if (socket->HasPendingEvent()) pending = true;
    const int fd = socket->PollDescriptor();
    const short interest = socket->PollInterest();
    if (fd >= 0 && interest != 0) {
      fds.push_back(pollfd{fd, interest, 0});
      polled.push_back(socket);
    }
  }
  const int wait = pending ? 0 : timeout_ms;
  if (fds.empty() && wait == 0 && !pending) return 0;
  int ready = ::poll(fds.empty() ? nullptr : fds.data(), fds.size(), wait);
  if (ready < 0) ready = 0;  // EINTR: treat as a pass with nothing ready.

  int dispatched = 0;
  for (SocketControl* socket : sockets) {
    if (!IsRegistered(socket)) continue;  // Closed or destroyed by an earlier handler.
    short revents = 0;
    for (size_t i = 0; i < polled.size(); ++i) {
      if (polled[i] == socket) revents = fds[i].revents;
    }
    if (revents == 0 && !socket->HasPendingEvent()) continue;
    // Keep a shared socket alive while its handlers run.
    std::shared_ptr<Object> keep = socket->weak_from_this().lock();
    socket->Dispatch(revents);
    ++dispatched;
  }
  return dispatched;
}

int DoEvents() { return PumpEvents(kMaxEventWaitMs); }

void ForwardEvents(const std::shared_ptr<SocketControl>& socket, const ObjectPtr& smtp_client) {
  if (!socket) Raise(err::kObjectNotSet);
  std::weak_ptr<Object> client = smtp_client;
  // DataArrival comes with every reply: the forwarder is looked up once in the
  // client's member table (a table that lacks it leaves the lookup to Invoke).
  const Member* data_arrival =
      smtp_client ? smtp_client->Members().Find("Winsock_DataArrival", CallKind::kMethod) : nullptr;
  if (data_arrival && (data_arrival->min_args > 1 || data_arrival->max_args < 1)) {
    data_arrival = nullptr;
  }
  socket->OnDataArrival([client, data_arrival](long bytes_total) {
    if (ObjectPtr target = client.lock()) {
      const Variant arg(static_cast<int32_t>(bytes_total));
      if (data_arrival) {
        data_arrival->call(*target, std::span<const Variant>(&arg, 1));
      } else {
        target->Invoke("Winsock_DataArrival", CallKind::kMethod, {arg});
      }
    }
  });
  socket->OnError([client](int16_t number, const std::string& description, int32_t scode,
                           const std::string& source, const std::string& help_file,
                           int32_t help_context, bool& cancel_display) {
    if (ObjectPtr target = client.lock()) {
      target->Invoke("Winsock_Error", CallKind::kMethod,
                     {Variant(number), Variant(description), Variant(scode), Variant(source),
                      Variant(help_file), Variant(help_context), Variant(cancel_display)});
    }
  });
}

}  // namespace quillo
