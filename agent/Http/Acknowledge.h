// The acknowledgement of received data.
#pragma once

namespace Agent::Http {

/// Acknowledges what a TCP socket has received, instead of later, where the system can. Does nothing for
/// another descriptor.
void AcknowledgeAtOnce(int socket);

} // namespace Agent::Http
