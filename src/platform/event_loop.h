// The host's message loop for socket events.
//
// quillo::DoEvents() is what the library calls wherever it yields to the host
// while waiting (the SMTP client's reply waits, for one): it delivers every
// socket event that is ready on the calling thread and, when none is ready,
// sleeps in poll(2) for at most kMaxEventWaitMs milliseconds or until a socket
// becomes ready, whichever comes first. A wait therefore costs neither CPU (no
// spinning) nor latency (a reply is dispatched as soon as it arrives).
// quillo::PumpEvents(0) delivers what is ready without waiting at all.
//
// quillo::ForwardEvents(socket, client) wires a socket control's DataArrival
// and Error events to the client's Winsock_DataArrival and Winsock_Error, by
// name, as a host that owns both objects would.
//
// Thread-safety: each thread pumps the sockets it connected.
#ifndef QUILLO_PLATFORM_EVENT_LOOP_H_
#define QUILLO_PLATFORM_EVENT_LOOP_H_

#include <memory>

#include "platform/object.h"

namespace quillo {

class SocketControl;

// The longest DoEvents sleeps when nothing is ready.
inline constexpr int kMaxEventWaitMs = 5;

// Delivers ready socket events; waits up to kMaxEventWaitMs when none is.
// Returns the number of sockets that had events.
int DoEvents();

// Delivers ready socket events, waiting at most `timeout_ms` (0: no wait)
// for one when none is ready. Returns the number of sockets that had events.
int PumpEvents(int timeout_ms);

// Forwards `socket`'s DataArrival and Error events to `smtp_client`'s
// Winsock_DataArrival and Winsock_Error (called by name). The socket holds
// the client weakly, so neither keeps the other alive. Replaces the socket's
// typed callbacks.
void ForwardEvents(const std::shared_ptr<SocketControl>& socket, const ObjectPtr& smtp_client);

namespace internal {
// Adds/removes a socket to/from the calling thread's pump.
void RegisterSocket(SocketControl* socket);
void UnregisterSocket(SocketControl* socket);
}  // namespace internal

}  // namespace quillo

#endif  // QUILLO_PLATFORM_EVENT_LOOP_H_
