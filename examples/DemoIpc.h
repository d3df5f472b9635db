#pragma once

// The demo's second process: a frame, its spots and a command cross a shared-memory
// message queue to a peer process and come back.

#include "DImage.h"

namespace norvexa_demo {

/// The argument that starts the demo program as the peer: `<program> --queue-peer NAME`.
constexpr const char* kQueuePeerOption = "--queue-peer";

/// Starts `self` (the demo program) again as the peer on a queue of its own, sends it a
/// command, `frame` with its metadata, a drawing list of the spots found in the frame and
/// the list of their peak pixels, receives all of it back, and tells whether it arrived
/// unchanged.
void demoIpc(const norvexa::imglib::DImage& frame, const char* self);

/// The peer's side: opens the queue `name`, receives the command and the three objects,
/// answers with a text that says what arrived, and sends the objects back. Returns the
/// process's exit status.
int queuePeer(const char* name);

} // namespace norvexa_demo
