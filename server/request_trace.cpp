#include "server/request_trace.h"

#include <atomic>

namespace {

// Set once at start-up, before any session runs; read by every session.
std::shared_ptr<RequestTrace> g_trace;
std::atomic<unsigned> g_sessions{0};

}  // namespace

void setRequestTrace(std::shared_ptr<RequestTrace> trace) {
    g_trace = std::move(trace);
}

RequestTrace* requestTrace() {
    return g_trace.get();
}

unsigned nextTracedSession() {
    return ++g_sessions;
}
