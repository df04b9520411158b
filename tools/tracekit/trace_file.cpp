#include "tools/tracekit/trace_file.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>

#include "boards/dsp_status.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "server/remote_protocol.h"

namespace tracekit {
namespace {

constexpr const char* kRequestNames[] = {"PrimSend",  "PrimGet",    "GetStatus",
                                         "AtomicGet", "AtomicSend", "Control"};

std::string hex(const std::uint8_t* bytes, std::size_t count) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(count * 2);
    for (std::size_t i = 0; i < count; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 15];
    }
    return out;
}

std::string isoTime(std::chrono::system_clock::time_point wall) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(wall.time_since_epoch());
    const std::time_t seconds = static_cast<std::time_t>(ms.count() / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>(ms.count() % 1000));
    return text;
}

}  // namespace

TraceFile::TraceFile(std::string path, std::uint64_t maxBytes, SlotOf slotOf,
                     std::size_t queueLimit)
    : path_(std::move(path)),
      maxBytes_(maxBytes),
      slotOf_(std::move(slotOf)),
      queueLimit_(queueLimit),
      startTick_(host::GetTickCount()) {
    out_.open(path_, std::ios::app | std::ios::binary);
    std::error_code ec;
    written_ = std::filesystem::exists(path_, ec) ? std::filesystem::file_size(path_, ec) : 0;
    thread_ = std::thread([this] { run(); });
}

TraceFile::~TraceFile() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

TraceFile::Record TraceFile::record(Type type, DWORD tick, unsigned session, std::uint32_t serial) {
    Record r;
    r.type = type;
    r.tick = tick;
    r.wall = host::clock().wallTime();
    r.session = session;
    r.serial = serial;
    return r;
}

void TraceFile::sessionStarted(unsigned session, std::uint32_t serial) {
    enqueue(record(Type::Start, host::GetTickCount(), session, serial));
}

void TraceFile::served(const ServedRequest& request) {
    Record record =
        TraceFile::record(Type::Request, request.startTick, request.session, request.serial);
    std::copy_n(request.bytes, std::min<std::size_t>(request.size, record.head.size()),
                record.head.begin());
    record.size = request.size;
    record.replied = request.replied;
    record.status = request.status;
    record.replyLength = request.replyLength;
    record.tookMs = request.tookMs;
    record.wall -= std::chrono::milliseconds(request.tookMs);  // when it began, as t_ms
    enqueue(std::move(record));
}

void TraceFile::sessionEnded(unsigned session, std::uint32_t serial, const std::string& reason) {
    Record record = TraceFile::record(Type::End, host::GetTickCount(), session, serial);
    record.reason = reason;
    enqueue(std::move(record));
}

void TraceFile::enqueue(Record record) {
    bool wasEmpty = false;
    {
        std::lock_guard lock(mutex_);
        if (queue_.size() >= queueLimit_) {
            ++dropped_;
            return;
        }
        wasEmpty = queue_.empty();
        queue_.push_back(std::move(record));
        ++enqueued_;
    }
    // The writer waits only on an empty queue: one wake-up per batch.
    if (wasEmpty) wake_.notify_one();
}

void TraceFile::flush() {
    std::unique_lock lock(mutex_);
    const std::uint64_t target = enqueued_;
    drained_.wait(lock, [&] { return flushed_ >= target || stop_; });
}

// The writer takes the whole queue at once and flushes the file after each
// batch, so a burst costs one write and a reader sees every line soon after.
void TraceFile::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stop_ || !queue_.empty() || dropped_; });
        if (queue_.empty() && stop_ && !dropped_) return;  // everything written
        std::deque<Record> batch;
        batch.swap(queue_);
        const std::uint64_t dropped = std::exchange(dropped_, 0);
        lock.unlock();
        if (dropped) writeLine(nlohmann::json{{"dropped", dropped}}.dump());
        for (const Record& record : batch) writeLine(format(record));
        out_.flush();
        lock.lock();
        done_ += batch.size();
        flushed_ = done_;
        drained_.notify_all();
    }
}

// A pulled board is gone from the bus; its lines keep the slot it had.
int TraceFile::slotOf(std::uint32_t serial) const {
    const int slot = slotOf_ ? slotOf_(serial) : 0;
    if (slot) knownSlots_[serial] = slot;
    const auto known = knownSlots_.find(serial);
    return known == knownSlots_.end() ? 0 : known->second;
}

std::string TraceFile::format(const Record& r) const {
    nlohmann::ordered_json line;
    line["t_ms"] = static_cast<DWORD>(r.tick - startTick_);
    line["wall"] = isoTime(r.wall);
    line["session"] = r.session;
    line["slot"] = slotOf(r.serial);
    line["serial"] = r.serial;
    if (r.type != Type::Request) {
        line["event"] = r.type == Type::Start ? "start" : "end";
        if (r.type == Type::End) line["reason"] = r.reason;
        return line.dump();
    }
    const std::uint8_t* h = r.head.data();
    const std::uint8_t opcode = h[0];
    line["request"] = opcode < std::size(kRequestNames) ? kRequestNames[opcode] : "unknown";
    line["opcode"] = opcode;
    std::size_t header = remproto::kShortHeaderSize;
    if (opcode <= 2) {
        line["device"] = h[1];
        line["dsp_opcode"] = h[2];
        line["size"] = remproto::readU16be(r.head, 3);
    } else {
        header = remproto::kLongHeaderSize;
        line[opcode == 5 ? "sub" : "dsp_opcode"] = h[1];
        line["size"] = remproto::readU32le(r.head, 4);
        if (opcode == 3) {
            line["reply_opcode"] = h[8];
            line["reply_length_wanted"] = remproto::readU32le(r.head, 12);
        }
    }
    const std::size_t payload =
        std::min<std::size_t>(r.size > header ? r.size - header : 0, kPayloadShown);
    line["payload"] = hex(h + header, payload);
    if (r.replied) {
        line["status"] = r.status;
        // Status 0 has no text of its own (it borrows "DSP Dead!"): call it success.
        line["status_text"] =
            r.status == 0 ? "success"
                          : host::narrow(dspStatusShortText(static_cast<std::int32_t>(r.status)));
        line["reply_length"] = r.replyLength;
    }
    line["took_ms"] = r.tookMs;
    return line.dump();
}

void TraceFile::writeLine(const std::string& line) {
    if (maxBytes_ && written_ > 0 && written_ + line.size() + 1 > maxBytes_) {
        out_.close();
        std::error_code ec;
        std::filesystem::rename(path_, path_ + ".old", ec);
        out_.open(path_, std::ios::trunc | std::ios::binary);
        written_ = 0;
    }
    out_ << line << '\n';
    written_ += line.size() + 1;
}

}  // namespace tracekit
