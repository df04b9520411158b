#pragma once
// Connecting as the controller asks its clients to: while every board is
// bound the controller does not listen, so a connection refused right after
// another client left is tried again for a while.
#include <cstdint>
#include <string>

#include "tools/tovelclient/tovel_client.h"

namespace tovelctl {

// Connects to host:port, retrying a refused connection until `connectTimeoutMs`
// have passed (0: one attempt). Throws tovelclient::ClientError with the last
// failure.
tovelclient::Client connectRetrying(const std::string& host, std::uint16_t port,
                                    DWORD replyTimeoutMs, DWORD connectTimeoutMs);

}  // namespace tovelctl
