#include "tools/tovelctl/connect.h"

#include <algorithm>

#include "platform/clock.h"

namespace tovelctl {

tovelclient::Client connectRetrying(const std::string& host, std::uint16_t port,
                                    DWORD replyTimeoutMs, DWORD connectTimeoutMs) {
    const DWORD start = host::GetTickCount();
    DWORD pause = 20;  // short at first: the controller listens again within moments
    for (;;) {
        try {
            return tovelclient::Client(host, port, replyTimeoutMs);
        } catch (const tovelclient::ClientError& e) {
            const DWORD waited = host::GetTickCount() - start;
            if (e.socketError() != static_cast<int>(WSAECONNREFUSED) || waited >= connectTimeoutMs)
                throw;
            host::Sleep(std::min(pause, connectTimeoutMs - waited));
            pause = std::min<DWORD>(pause * 2, 250);
        }
    }
}

}  // namespace tovelctl
