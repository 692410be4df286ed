#pragma once

// How a network camera is greeted before anything else is asked of it.

#include <string>

namespace CSDK {

/// Whether the camera at `host`, a name or a numeric address, answers the handshake: it accepts a connection on TCP
/// port 554, receives the greeting and answers "OK". False for every other answer and for every failure. What a camera
/// says after "OK" is not read; the connection is closed in any case.
///
/// Blocks for at most 3 s to connect, 3 s to send and 3 s to receive the whole answer, and before that for as long as
/// the system's resolver takes to look a name up. Any thread, several at a time.
bool Perform_BrevantaCam_HandShaking(std::string host) noexcept;

}  // namespace CSDK
