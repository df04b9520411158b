// tovelctl: speaks the controller's remote command protocol from the command
// line. One connection per run; several commands may share it, separated by
// the word `then` ("cof-download img.out then boot"), because each board is
// bound to a connection.
//
// Exit codes: 0 a reply was received (whatever its status) or help was shown,
// 1 bad arguments or input file (also an image for cof-download that the COFF
// reader refuses, unless --force), 2 the connection failed (refused for longer
// than --connect-timeout, closed, timed out, or an answer that is not a reply).
#include <CLI/CLI.hpp>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/terminal.h"
#include "tools/tovelclient/tovel_client.h"
#include "tools/tovelctl/connect.h"
#include "tools/tovelctl/image_verdict.h"
#include "tools/tovelctl/report.h"
#include "tools/tovelctl/sequence.h"
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
    DWORD connectTimeoutMs = 3000;
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
            .add("packetSize", std::int64_t{remproto::readU16be(reply.data, 2)});
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

// The words of one command as the command line gave them.
struct CommandArgs {
    std::string name;
    std::string file, opcode, replyOpcode, length, hex, device, size;
    bool force = false;
    std::string traceSession, traceStatus;
};

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

// One command, its arguments checked, ready to run on the connection.
using Step = std::function<void(const Options&, Client&)>;

// Registers every command on `app`; the chosen one's words land in `args`.
void addCommands(CLI::App& app, CommandArgs& args) {
    app.require_subcommand(1, 1);
    app.add_subcommand("version", "read the server version");
    app.add_subcommand("boards", "count the boards (re-enumerates them)");
    app.add_subcommand("status", "read the board's 64-byte status block");
    app.add_subcommand("boot", "boot the board's DSP from its COF file");
    app.add_subcommand("reboot", "restart the controller");
    app.add_subcommand("cmdline", "hand the unit to command-line control");
    auto* cof = app.add_subcommand("cof-download", "replace the board kind's COF image with FILE");
    cof->add_option("FILE", args.file, "COF image to send")->required();
    cof->add_flag("--force", args.force,
                  "send an image that the COFF reader refuses (it will not boot)");
    auto* atomicSend =
        app.add_subcommand("atomic-send", "send a DSP command and wait until it is done");
    atomicSend->add_option("OPCODE", args.opcode, "DSP command opcode")->required();
    atomicSend->add_option("HEX", args.hex, "payload as hex bytes");
    auto* atomicGet =
        app.add_subcommand("atomic-get", "send a DSP command and read the DSP's answer");
    atomicGet->add_option("OPCODE", args.opcode, "DSP command opcode")->required();
    atomicGet->add_option("REPLY-OPCODE", args.replyOpcode, "opcode the answer must carry")
        ->required();
    atomicGet->add_option("LENGTH", args.length, "answer bytes wanted")->required();
    atomicGet->add_option("HEX", args.hex, "payload as hex bytes");
    auto* primSend = app.add_subcommand("prim-send", "send a raw DSP packet (no reply)");
    primSend->add_option("DEVICE", args.device, "packet device id")->required();
    primSend->add_option("OPCODE", args.opcode, "packet opcode")->required();
    primSend->add_option("HEX", args.hex, "payload as hex bytes");
    auto* primGet = app.add_subcommand("prim-get", "read a raw DSP packet of SIZE payload bytes");
    primGet->add_option("SIZE", args.size, "payload bytes of the packet")->required();
    auto* trace = app.add_subcommand("trace", "print a request trace (tovel --trace) as a table");
    trace->add_option("FILE", args.file, "the trace file")->required();
    trace->add_option("--session", args.traceSession, "only this session's lines");
    trace->add_option("--status", args.traceStatus, "only replies with this status, or 'nonzero'");
    // After parsing, the chosen command names itself.
    app.parse_complete_callback([&app, &args] {
        for (const auto* sub : app.get_subcommands()) args.name = sub->get_name();
    });
}

void runVersion(const Options& o, Client& client) {
    Reply r = client.version();
    Report report("version");
    if (auto v = tovelclient::versionOf(r)) report.add("version", std::int64_t{*v});
    report.status("status", r.status);
    printReply(o, report);
}

void runBoards(const Options& o, Client& client) {
    Reply r = client.enumBoards();
    Report report("boards");
    if (auto n = tovelclient::boardCountOf(r)) report.add("boards", std::int64_t{*n});
    report.status("status", r.status);
    printReply(o, report);
}

void runPrimSend(const Options& o, Client& client, std::uint8_t device, std::uint8_t opcode,
                 const std::vector<std::uint8_t>& payload) {
    client.primSend(device, opcode, payload);
    Report report("prim-send");
    report.add("sent", static_cast<std::int64_t>(payload.size() + 5)).add("reply", false);
    printReply(o, report);
}

// Checks a command's words before anything connects, so a typo costs no
// connection, and binds them to the command's function.
Step prepare(const Options& o, const CommandArgs& a) {
    const std::vector<std::uint8_t> payload =
        a.hex.empty() ? std::vector<std::uint8_t>{} : parsePayload(a.hex);
    const std::uint8_t op = a.opcode.empty() ? 0 : parseByte(a.opcode, "OPCODE");
    if (a.name == "version") return runVersion;
    if (a.name == "boards") return runBoards;
    if (a.name == "status")
        return [](const Options& o, Client& c) { printStatusBlock(o, c.getStatus()); };
    if (a.name == "boot")
        return [](const Options& o, Client& c) { printPlain(o, "boot", c.boot()); };
    if (a.name == "reboot")
        return [](const Options& o, Client& c) { printPlain(o, "reboot", c.reboot()); };
    if (a.name == "cmdline")
        return [](const Options& o, Client& c) { printPlain(o, "cmdline", c.cmdLineControl()); };
    if (a.name == "cof-download") {
        auto image = readFile(a.file);
        checkImage(o, a.file, a.force);
        return
            [image = std::move(image)](const Options& o, Client& c) { cofDownload(o, c, image); };
    }
    if (a.name == "atomic-send")
        return [op, payload](const Options& o, Client& c) {
            printPlain(o, "atomic-send", c.atomicSend(op, payload));
        };
    if (a.name == "atomic-get") {
        const auto reply = parseByte(a.replyOpcode, "REPLY-OPCODE");
        const auto wanted = parseNumber(a.length, 0xffffffffu, "LENGTH");
        return [op, payload, reply, wanted](const Options& o, Client& c) {
            printPlain(o, "atomic-get", c.atomicGet(op, payload, reply, wanted));
        };
    }
    if (a.name == "prim-send") {
        const auto device = parseByte(a.device, "DEVICE");
        if (payload.size() > 0xffff) throw InputError("a packet payload is at most 65535 bytes");
        return [device, op, payload](const Options& o, Client& c) {
            runPrimSend(o, c, device, op, payload);
        };
    }
    if (a.name == "prim-get") {
        const auto n = static_cast<std::uint16_t>(parseNumber(a.size, 0xffff, "SIZE"));
        return [n](const Options& o, Client& c) { printPacket(o, "prim-get", c.primGet(n)); };
    }
    throw InputError("unknown command '" + a.name + "'");
}

// Parses one part of the command line with `app`; CLI11's own exit codes
// (104, 106, ...) become the documented 1, help stays 0.
std::optional<int> parseWith(CLI::App& app, const std::vector<std::string>& words) {
    std::vector<const char*> argv{"tovelctl"};
    for (const auto& w : words) argv.push_back(w.c_str());
    try {
        app.parse(static_cast<int>(argv.size()), argv.data());
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kExitInput;
    }
    return std::nullopt;
}

void addGlobalOptions(CLI::App& app, Options& o) {
    app.add_option("--host", o.host, "controller host name or address")->capture_default_str();
    app.add_option("--port", o.port, "remote command port")->capture_default_str();
    app.add_flag("--json", o.json, "print one JSON object per reply");
    app.add_option("--timeout", o.timeoutMs, "milliseconds to wait for a reply (0: for ever)")
        ->capture_default_str();
    app.add_option("--connect-timeout", o.connectTimeoutMs,
                   "milliseconds to keep retrying a refused connection (the controller does not "
                   "listen while every board is bound)")
        ->capture_default_str();
    app.add_option("--repeat", o.repeat,
                   "run the commands N times on one connection (0: until it ends), to watch "
                   "a board while it is pulled or faulted")
        ->capture_default_str();
    app.add_option("--interval", o.intervalMs, "milliseconds between repeats")
        ->capture_default_str();
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    std::vector<Step> steps;
    try {
        const auto parts = tovelctl::splitAtThen(std::vector<std::string>(argv + 1, argv + argc));
        for (std::size_t i = 0; i < parts.size(); ++i) {
            CLI::App app{"Talks to a Tovel controller over its remote command protocol."};
            app.footer(
                "Several commands share one connection, and so one board, when the word 'then' "
                "separates them:\n  tovelctl cof-download t1.out then boot");
            if (i == 0) addGlobalOptions(app, o);
            CommandArgs args;
            addCommands(app, args);
            if (auto exitCode = parseWith(app, parts[i])) return *exitCode;
            // A trace is read from a file; it talks to no controller.
            if (args.name == "trace") {
                if (parts.size() > 1) throw InputError("trace cannot be joined with 'then'");
                return traceCommand(args.file, args.traceSession, args.traceStatus, o.json);
            }
            steps.push_back(prepare(o, args));
        }
    } catch (const std::invalid_argument& e) {
        std::cerr << "tovelctl: " << e.what() << "\n";
        return kExitInput;
    } catch (const InputError& e) {
        std::cerr << "tovelctl: " << e.what() << "\n";
        return kExitInput;
    }

    try {
        Client client = tovelctl::connectRetrying(o.host, o.port, o.timeoutMs, o.connectTimeoutMs);
        for (unsigned round = 0; o.repeat == 0 || round < o.repeat; ++round) {
            if (round > 0) host::Sleep(o.intervalMs);
            for (const Step& step : steps) step(o, client);
        }
    } catch (const tovelclient::ClientError& e) {
        std::cerr << "tovelctl: " << e.what() << "\n";
        return kExitConnection;
    }
    return 0;
}
