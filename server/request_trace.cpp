#include "server/request_trace.h"

#include <atomic>

namespace {

// Read by every session at every request; the benchmark switches it while
// a session waits for its client, so the pointer itself is atomic.
std::shared_ptr<RequestTrace> g_owner;
std::atomic<RequestTrace*> g_trace{nullptr};
std::atomic<unsigned> g_sessions{0};

}  // namespace

void setRequestTrace(std::shared_ptr<RequestTrace> trace) {
    g_trace = trace.get();
    if (trace) g_owner = std::move(trace);  // kept: a session may still hold the old one
}

RequestTrace* requestTrace() {
    return g_trace.load(std::memory_order_acquire);
}

unsigned nextTracedSession() {
    return ++g_sessions;
}
