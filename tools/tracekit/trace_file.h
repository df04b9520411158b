#pragma once
// The request trace as a file: one JSON object per line for every request a
// session served, and for each session's start and end. Sessions only queue
// a copy of what they served; a thread of its own formats and writes it, so a
// slow disk never holds a session up. When the queue is full the record is
// dropped and counted, and a line says how many were dropped before the next
// one. The file rotates like the event log: above the size limit it becomes
// FILE.old (replacing an older one) and a new FILE starts.
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "server/request_trace.h"

namespace tracekit {

class TraceFile final : public RequestTrace {
  public:
    static constexpr std::size_t kPayloadShown = 64;  // bytes of payload in hex
    static constexpr std::size_t kQueueLimit = 4096;

    // The board slot of a serial number, 0 when unknown (the simulated bus knows).
    using SlotOf = std::function<int(std::uint32_t serial)>;

    TraceFile(std::string path, std::uint64_t maxBytes, SlotOf slotOf = {},
              std::size_t queueLimit = kQueueLimit);
    ~TraceFile() override;  // writes what is queued, then closes
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    bool isOpen() const { return out_.is_open(); }

    void sessionStarted(unsigned session, std::uint32_t serial) override;
    void served(const ServedRequest& request) override;
    void sessionEnded(unsigned session, std::uint32_t serial, const std::string& reason) override;

    // Blocks until every record queued so far is written (tests, shutdown).
    void flush();

  private:
    enum class Type { Start, Request, End };
    struct Record {
        Type type = Type::Request;
        DWORD tick = 0;
        std::chrono::system_clock::time_point wall;
        unsigned session = 0;
        std::uint32_t serial = 0;
        std::array<std::uint8_t, 16 + kPayloadShown> head{};  // header and first payload bytes
        std::uint32_t size = 0;
        bool replied = false;
        std::uint32_t status = 0, replyLength = 0;
        DWORD tookMs = 0;
        std::string reason;
    };

    static Record record(Type type, DWORD tick, unsigned session, std::uint32_t serial);
    void enqueue(Record record);
    void run();
    std::string format(const Record& record) const;
    int slotOf(std::uint32_t serial) const;
    void writeLine(const std::string& line);

    const std::string path_;
    const std::uint64_t maxBytes_;
    const SlotOf slotOf_;
    const std::size_t queueLimit_;
    const DWORD startTick_;
    std::ofstream out_;
    std::uint64_t written_ = 0;
    mutable std::map<std::uint32_t, int> knownSlots_;  // the writer thread's only

    std::mutex mutex_;
    std::condition_variable wake_, drained_;
    std::deque<Record> queue_;
    std::uint64_t dropped_ = 0;
    std::uint64_t enqueued_ = 0, done_ = 0, flushed_ = 0;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace tracekit
