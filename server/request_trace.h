#pragma once
// What a session tells a request trace: its start and end, and every request
// it served with the reply it sent. The session only hands over the bytes it
// already has; whoever traces copies what it needs and must never block
// (tools/tracekit writes the trace from a thread of its own).
#include <cstdint>
#include <memory>
#include <string>

#include "platform/win_types.h"

class UsbCtlr;

// One request as served: the request bytes (header and payload as received)
// and the reply record's status and length, if a reply was sent.
struct ServedRequest {
    unsigned session = 0;
    std::uint32_t serial = 0;  // of the session's board
    const std::uint8_t* bytes = nullptr;
    std::uint32_t size = 0;  // of the whole request
    bool replied = false;
    std::uint32_t status = 0;
    std::uint32_t replyLength = 0;
    DWORD startTick = 0;  // when serving began
    DWORD tookMs = 0;
};

class RequestTrace {
  public:
    virtual ~RequestTrace() = default;
    virtual void sessionStarted(unsigned session, std::uint32_t serial) = 0;
    virtual void served(const ServedRequest& request) = 0;
    virtual void sessionEnded(unsigned session, std::uint32_t serial,
                              const std::string& reason) = 0;
};

// The trace in force (none by default). A trace once set stays alive until
// another one replaces it; null switches tracing off.
void setRequestTrace(std::shared_ptr<RequestTrace> trace);
RequestTrace* requestTrace();
// A new session number, 1, 2, ...
unsigned nextTracedSession();
