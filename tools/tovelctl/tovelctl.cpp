// tovelctl: speaks the controller's remote command protocol from the command
// line. One command per run, one connection per command.
//
// Exit codes: 0 a reply was received (whatever its status), 1 bad arguments
// or input file (also an image for cof-download that the COFF reader
// refuses, unless --force), 2 the connection failed (refused, closed, timed out, or an
// answer that is not a reply).
#include <CLI/CLI.hpp>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/terminal.h"
#include "tools/tovelclient/tovel_client.h"
#include "tools/tovelctl/image_verdict.h"
#include "tools/tovelctl/report.h"
#include "tools/tovelctl/trace_table.h"

namespace {

using tovelclient::Client;
using tovelclient::Reply;
using tovelctl::Report;

constexpr int kExitInput = 1;
constexpr int kExitConnection = 2;

struct InputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string host = "127.0.0.1";
    std::uint16_t port = 3445;
    bool json = false;
    DWORD timeoutMs = 60000;
    unsigned repeat = 1;  // 0: until the connection ends
    DWORD intervalMs = 1000;
};

// A number given in decimal or with a 0x prefix in hex, up to `max`.
std::uint32_t parseNumber(const std::string& text, std::uint32_t max, const char* what) {
    std::size_t used = 0;
    unsigned long long value = 0;
    try {
        value = std::stoull(text, &used, 0);
    } catch (const std::exception&) {
        used = 0;
    }
    if (text.empty() || used != text.size() || text[0] == '-' || value > max)
        throw InputError(std::string(what) + " must be a number from 0 to " + std::to_string(max) +
                         ", not '" + text + "'");
    return static_cast<std::uint32_t>(value);
}

std::uint8_t parseByte(const std::string& text, const char* what) {
    return static_cast<std::uint8_t>(parseNumber(text, 0xff, what));
}

std::vector<std::uint8_t> parsePayload(const std::string& text) {
    auto bytes = tovelclient::parseHex(text);
    if (!bytes) throw InputError("payload must be pairs of hex digits, not '" + text + "'");
    return *bytes;
}

std::vector<std::uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw InputError("cannot read '" + path + "'");
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void printReply(const Options& o, Report& report) {
    report.print(std::cout, o.json);
}

// A bar on the terminal while the COF image goes out.
class ProgressBar {
  public:
    explicit ProgressBar(bool enabled) : enabled_(enabled) {}
    ~ProgressBar() { finish(); }
    void show(std::size_t done, std::size_t total) {
        if (!enabled_) return;
        constexpr int kWidth = 40;
        const int percent = total == 0 ? 100 : static_cast<int>(done * 100 / total);
        const int filled = percent * kWidth / 100;
        std::cout << "\r[" << std::string(filled, '#') << std::string(kWidth - filled, ' ') << "] "
                  << percent << "% " << done << "/" << total << " bytes" << std::flush;
        shown_ = true;
    }
    void finish() {
        if (shown_) std::cout << "\n";
        shown_ = false;
    }

  private:
    bool enabled_;
    bool shown_ = false;
};

void cofDownload(const Options& o, Client& client, const std::vector<std::uint8_t>& image) {
    ProgressBar bar(!o.json && host::stdoutIsTerminal());
    std::size_t pieces = 0;
    std::vector<std::string> failures;  // text mode: data replies that were not 0
    client.cofDownload(
        image, [&](Client::CofStep step, const Reply& reply, std::size_t sent, std::size_t total) {
            const char* name = step == Client::CofStep::Start  ? "cof-start"
                               : step == Client::CofStep::Data ? "cof-data"
                                                               : "cof-end";
            if (step == Client::CofStep::Data) ++pieces;
            if (o.json) {
                Report report(name);
                report.status("status", reply.status);
                if (step == Client::CofStep::Data)
                    report.add("sent", static_cast<std::int64_t>(sent));
                report.add("total", static_cast<std::int64_t>(total));
                printReply(o, report);
                return;
            }
            bar.show(sent, total);
            if (reply.status != 0)
                failures.push_back(std::string(name) + " after " + std::to_string(sent) +
                                   " bytes: status " + tovelclient::describeStatus(reply.status));
        });
    if (o.json) return;
    bar.finish();
    for (const auto& line : failures) std::cout << line << "\n";
    Report report("cof-download");
    report.add("sent", static_cast<std::int64_t>(image.size()))
        .add("pieces", static_cast<std::int64_t>(pieces))
        .add("failed", static_cast<std::int64_t>(failures.size()));
    printReply(o, report);
}

// Prints the reader's verdict on the image; refuses one that will not boot
// unless forced.
void checkImage(const Options& o, const std::string& file, bool force) {
    const tovelctl::ImageVerdict verdict = tovelctl::readImageVerdict(file);
    Report report = verdict.report(file);
    printReply(o, report);
    if (!verdict.accepted() && !force)
        throw InputError("'" + file + "' will not boot: " + verdict.reason +
                         "; --force sends it anyway");
}

void printStatusBlock(const Options& o, const Reply& reply) {
    Report report("status");
    report.status("status", reply.status);
    remproto::StatusBlock block;
    if (remproto::decodeStatusReply(reply.data, block)) {
        report.add("device", std::int64_t{block.device});
        report.status("state", block.state);
        report.add("sequence", std::int64_t{block.sequence});
        report.add("detail", tovelclient::toHex(block.detail));
    } else {
        report.data(reply.data);
    }
    printReply(o, report);
}

void printPacket(const Options& o, const char* command, const Reply& reply) {
    Report report(command);
    report.status("status", reply.status);
    if (reply.data.size() >= remproto::kDspPacketHeaderSize) {
        report.add("packetDevice", std::int64_t{reply.data[0]})
            .add("packetOpcode", std::int64_t{reply.data[1]})
            .add("packetSize", std::int64_t{reply.data[2] * 256 + reply.data[3]});
    }
    report.data(reply.data);
    printReply(o, report);
}

void printPlain(const Options& o, const char* command, const Reply& reply) {
    Report report(command);
    report.status("status", reply.status);
    report.data(reply.data);
    printReply(o, report);
}

}  // namespace

// Reads a file, talks to no controller.
int traceCommand(const std::string& file, const std::string& session, const std::string& status,
                 bool json) {
    tovelctl::TraceFilter filter;
    try {
        if (!session.empty()) filter.session = parseNumber(session, 0xffffffffu, "--session");
        if (!status.empty() && !tovelctl::parseStatusFilter(status, filter))
            throw InputError("--status must be a status number or 'nonzero', not '" + status + "'");
    } catch (const InputError& e) {
        std::cerr << "tovelctl: " << e.what() << "\n";
        return kExitInput;
    }
    std::ifstream in(file);
    std::string error;
    if (!in) error = "cannot read '" + file + "'";
    if (in && tovelctl::printTrace(in, file, filter, json, std::cout, error)) return 0;
    std::cerr << "tovelctl: " << error << "\n";
    return kExitInput;
}

int main(int argc, char** argv) {
    Options o;
    CLI::App app{"Talks to a Tovel controller over its remote command protocol."};
    app.add_option("--host", o.host, "controller host name or address")->capture_default_str();
    app.add_option("--port", o.port, "remote command port")->capture_default_str();
    app.add_flag("--json", o.json, "print one JSON object per reply");
    app.add_option("--timeout", o.timeoutMs, "milliseconds to wait for a reply (0: for ever)")
        ->capture_default_str();
    app.add_option("--repeat", o.repeat,
                   "run the command N times on one connection (0: until it ends), to watch "
                   "a board while it is pulled or faulted")
        ->capture_default_str();
    app.add_option("--interval", o.intervalMs, "milliseconds between repeats")
        ->capture_default_str();
    app.require_subcommand(1, 1);

    std::string file, opcode, replyOpcode, length, hex, device, size;
    auto* version = app.add_subcommand("version", "read the server version");
    auto* boards = app.add_subcommand("boards", "count the boards (re-enumerates them)");
    auto* status = app.add_subcommand("status", "read the board's 64-byte status block");
    auto* boot = app.add_subcommand("boot", "boot the board's DSP from its COF file");
    auto* reboot = app.add_subcommand("reboot", "restart the controller");
    auto* cmdline = app.add_subcommand("cmdline", "hand the unit to command-line control");
    auto* cof = app.add_subcommand("cof-download", "replace the board kind's COF image with FILE");
    cof->add_option("FILE", file, "COF image to send")->required();
    bool force = false;
    cof->add_flag("--force", force,
                  "send an image that the COFF reader refuses (it will not boot)");
    auto* atomicSend =
        app.add_subcommand("atomic-send", "send a DSP command and wait until it is done");
    atomicSend->add_option("OPCODE", opcode, "DSP command opcode")->required();
    atomicSend->add_option("HEX", hex, "payload as hex bytes");
    auto* atomicGet =
        app.add_subcommand("atomic-get", "send a DSP command and read the DSP's answer");
    atomicGet->add_option("OPCODE", opcode, "DSP command opcode")->required();
    atomicGet->add_option("REPLY-OPCODE", replyOpcode, "opcode the answer must carry")->required();
    atomicGet->add_option("LENGTH", length, "answer bytes wanted")->required();
    atomicGet->add_option("HEX", hex, "payload as hex bytes");
    auto* primSend = app.add_subcommand("prim-send", "send a raw DSP packet (no reply)");
    primSend->add_option("DEVICE", device, "packet device id")->required();
    primSend->add_option("OPCODE", opcode, "packet opcode")->required();
    primSend->add_option("HEX", hex, "payload as hex bytes");
    auto* primGet = app.add_subcommand("prim-get", "read a raw DSP packet of SIZE payload bytes");
    primGet->add_option("SIZE", size, "payload bytes of the packet")->required();

    auto* trace = app.add_subcommand("trace", "print a request trace (tovel --trace) as a table");
    std::string traceSession, traceStatus;
    trace->add_option("FILE", file, "the trace file")->required();
    trace->add_option("--session", traceSession, "only this session's lines");
    trace->add_option("--status", traceStatus, "only replies with this status, or 'nonzero'");

    CLI11_PARSE(app, argc, argv);
    if (trace->parsed()) return traceCommand(file, traceSession, traceStatus, o.json);

    try {
        // Arguments first, so that a typo costs no connection.
        std::vector<std::uint8_t> payload =
            hex.empty() ? std::vector<std::uint8_t>{} : parsePayload(hex);
        std::vector<std::uint8_t> image;
        if (cof->parsed()) {
            image = readFile(file);
            checkImage(o, file, force);
        }
        std::uint8_t op = opcode.empty() ? 0 : parseByte(opcode, "OPCODE");
        if (primSend->parsed() && payload.size() > 0xffff)
            throw InputError("a packet payload is at most 65535 bytes");

        Client client(o.host, o.port, o.timeoutMs);
        for (unsigned round = 0; o.repeat == 0 || round < o.repeat; ++round) {
            if (round > 0) host::Sleep(o.intervalMs);
            if (version->parsed()) {
                Reply r = client.version();
                Report report("version");
                if (auto v = tovelclient::versionOf(r)) report.add("version", std::int64_t{*v});
                report.status("status", r.status);
                printReply(o, report);
            } else if (boards->parsed()) {
                Reply r = client.enumBoards();
                Report report("boards");
                if (auto n = tovelclient::boardCountOf(r)) report.add("boards", std::int64_t{*n});
                report.status("status", r.status);
                printReply(o, report);
            } else if (status->parsed()) {
                printStatusBlock(o, client.getStatus());
            } else if (boot->parsed()) {
                printPlain(o, "boot", client.boot());
            } else if (reboot->parsed()) {
                printPlain(o, "reboot", client.reboot());
            } else if (cmdline->parsed()) {
                printPlain(o, "cmdline", client.cmdLineControl());
            } else if (cof->parsed()) {
                cofDownload(o, client, image);
            } else if (atomicSend->parsed()) {
                printPlain(o, "atomic-send", client.atomicSend(op, payload));
            } else if (atomicGet->parsed()) {
                const auto reply = parseByte(replyOpcode, "REPLY-OPCODE");
                const auto wanted = parseNumber(length, 0xffffffffu, "LENGTH");
                printPlain(o, "atomic-get", client.atomicGet(op, payload, reply, wanted));
            } else if (primSend->parsed()) {
                const auto dev = parseByte(device, "DEVICE");
                client.primSend(dev, op, payload);
                Report report("prim-send");
                report.add("sent", static_cast<std::int64_t>(payload.size() + 5))
                    .add("reply", false);
                printReply(o, report);
            } else if (primGet->parsed()) {
                const auto n = static_cast<std::uint16_t>(parseNumber(size, 0xffff, "SIZE"));
                printPacket(o, "prim-get", client.primGet(n));
            }
        }
    } catch (const InputError& e) {
        std::cerr << "tovelctl: " << e.what() << "\n";
        return kExitInput;
    } catch (const tovelclient::ClientError& e) {
        std::cerr << "tovelctl: " << e.what() << "\n";
        return kExitConnection;
    }
    return 0;
}
