// The cofinfo and mkcof programs, run as people run them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/coff/coff_test_util.h"
#include "tests/support/program_run.h"
#include "tools/coffkit/coff_writer.h"

using testing_support::TempUnitRoot;

namespace {

using testing_support::ProgramRun;
using testing_support::runProgram;

struct Row {
    int index = 0;
    std::string name, vma, size, filePos, flags, load;
};

// The rows of cofinfo's section table.
std::vector<Row> sectionRows(const std::string& output) {
    std::vector<Row> rows;
    std::istringstream lines(output);
    bool inTable = false;
    for (std::string line; std::getline(lines, line);) {
        if (line == "Sections") inTable = true;
        if (!inTable || line.empty()) {
            if (inTable && line.empty()) break;
            continue;
        }
        std::istringstream fields(line);
        Row row;
        if (!(fields >> row.index)) continue;
        fields >> row.name >> row.vma >> row.size >> row.filePos >> row.flags >> row.load;
        rows.push_back(row);
    }
    return rows;
}

std::string hex8(std::int64_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08llX", static_cast<unsigned long long>(v));
    return text;
}

TEST(Cofinfo, ListsTheSectionsOfEveryRealFile) {
    if (!cofftest::haveSharedCoffFiles())
        GTEST_SKIP() << "no shared COFF files in " << cofftest::sharedCoffDir();
    TempUnitRoot root;
    const nlohmann::json expected =
        nlohmann::json::parse(std::ifstream(cofftest::sharedCoffDir() + "expected.json"));
    for (const auto& [name, file] : expected.items()) {
        SCOPED_TRACE(name);
        const ProgramRun r = runProgram("cofinfo", {cofftest::sharedCoffDir() + name});
        EXPECT_EQ(r.exitCode, 0) << r.output;
        const std::vector<Row> rows = sectionRows(r.output);
        const auto& sections = file.at("sections");
        ASSERT_EQ(rows.size(), sections.size()) << r.output;
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const nlohmann::json& s = sections[i];
            const std::string recorded = s.at("name_in_string_table").get<bool>()
                                             ? "\"\""
                                             : s.at("name").get<std::string>().substr(0, 7);
            EXPECT_EQ(rows[i].index, s.at("index").get<std::int64_t>());
            EXPECT_EQ(rows[i].name, recorded);
            EXPECT_EQ(rows[i].vma, hex8(s.at("vaddr").get<std::int64_t>()));
            EXPECT_EQ(rows[i].size, std::to_string(s.at("size").get<std::int64_t>()));
            EXPECT_EQ(rows[i].filePos, hex8(s.at("scnptr").get<std::int64_t>()));
            EXPECT_EQ(rows[i].flags, hex8(s.at("flags").get<std::int64_t>()));
            EXPECT_EQ(rows[i].load == "sent", s.at("loaded_by_boot_loader").get<bool>());
        }
        const nlohmann::json& rule = file.at("rule_A");
        std::ostringstream summary;
        summary << "sends " << rule.at("loadable_sections").get<std::int64_t>() << " sections, "
                << rule.at("loadable_bytes").get<std::int64_t>() << " bytes in "
                << rule.at("chunks_820").get<std::int64_t>() << " chunks";
        EXPECT_NE(r.output.find(summary.str()), std::string::npos) << r.output;
        EXPECT_NE(r.output.find("Verdict: loadable"), std::string::npos);
    }
}

TEST(Cofinfo, RefusalsExitOneWithTheReadersResultAndTheReason) {
    TempUnitRoot root;
    coffkit::CoffImageSpec spec;
    spec.sections = {coffkit::dataSection(".text", 0, coff::STYP_TEXT, {1, 2, 3})};
    spec.sections[0].sizeField = 0x7FFFFFFF;
    const auto image = coffkit::buildCoffImage(spec);
    root.writeFile(L"\\bad.cof", std::string(image.begin(), image.end()));
    const std::string bad = root.hostPath(L"\\bad.cof");
    ProgramRun r = runProgram("cofinfo", {bad});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.output.find("CommPolicy_USB: failure to read section .text!"), std::string::npos)
        << r.output;
    EXPECT_NE(r.output.find("Verdict: not loadable (reader result 148)"), std::string::npos);
    // The reader's line names no pointer; the reason does.
    EXPECT_NE(r.output.find("Reason: section .text at raw-data pointer 0x"), std::string::npos)
        << r.output;

    r = runProgram("cofinfo", {"--json", bad});
    EXPECT_EQ(r.exitCode, 1);
    const nlohmann::json json = nlohmann::json::parse(r.output);
    EXPECT_FALSE(json.at("loadable").get<bool>());
    EXPECT_EQ(json.at("readerResult").get<std::int64_t>(), kCoffSectionUnreadable);
    EXPECT_NE(json.at("reason").get<std::string>().find("section .text"), std::string::npos);
    EXPECT_EQ(json.at("sections").size(), 1u);

    r = runProgram("cofinfo", {root.path() + "/missing.cof"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(
        r.output.find("SW Error #550937: Unable to open COF file " + root.path() + "/missing.cof!"),
        std::string::npos)
        << r.output;
    EXPECT_NE(r.output.find("reader result 141"), std::string::npos) << r.output;
}

TEST(Cofinfo, FilesTheReaderCannotTakeAreRefusedBeforeReading) {
    TempUnitRoot root;
    const std::string fifo = root.path() + "/image.fifo";
    ASSERT_EQ(std::system(("mkfifo '" + fifo + "'").c_str()), 0);
    const std::string large = root.path() + "/large.cof";
    std::filesystem::resize_file((std::ofstream(large), large),
                                 0x80000000ull);  // sparse: no disk is used
    const struct {
        std::string path, reason;
    } cases[] = {{fifo, "is a FIFO, not a regular file"},
                 {root.path(), "is a directory, not a regular file"},
                 {large, "is too large for the reader: 2147483648 bytes"}};
    for (const auto& c : cases) {
        ProgramRun r = runProgram("cofinfo", {c.path});  // a FIFO would block the reader
        EXPECT_EQ(r.exitCode, 1) << c.path;
        EXPECT_NE(r.output.find("Reason: " + c.path + " " + c.reason), std::string::npos)
            << r.output;
    }
}

TEST(Mkcof, WritesAnImageCofinfoReadsBack) {
    TempUnitRoot root;
    const std::string image = root.path() + "/made.cof";
    ProgramRun r =
        runProgram("mkcof", {"-o", image, "--big-endian", "--version", "2.5", "--code-bytes",
                             "2000", "--section", ".cinit:0x100:data=hex:0102", "--section",
                             ".bss:0x2000=bss:64", "--section", ".debug_info:0:copy=pattern:7:10"});
    ASSERT_EQ(r.exitCode, 0) << r.output;
    r = runProgram("cofinfo", {image});
    EXPECT_EQ(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("header byte order  big-endian"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("DSP program version 2.5"), std::string::npos);
    // .text 2000 (3 chunks), .cinit 2, .debug_info 10, .ver 4.
    EXPECT_NE(r.output.find("sends 4 sections, 2016 bytes in 6 chunks"), std::string::npos)
        << r.output;
    const std::vector<Row> rows = sectionRows(r.output);
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows[2].name, ".bss");
    EXPECT_EQ(rows[2].load, "-");
    EXPECT_EQ(rows[3].name, "\"\"");
}

TEST(Mkcof, RefusesBadArgumentsWithoutWritingAFile) {
    TempUnitRoot root;
    const std::string image = root.path() + "/bad.cof";
    const std::vector<std::string> badArgs[] = {
        {"--section", ".text=1"}, {"--version", "x.y", "--code-bytes", "4"}, {}};
    for (std::vector<std::string> args : badArgs) {
        SCOPED_TRACE(args.empty() ? "" : args[0]);
        args.insert(args.begin(), {"-o", image});
        const ProgramRun r = runProgram("mkcof", args);
        EXPECT_NE(r.exitCode, 0);
        EXPECT_FALSE(r.output.empty());
        EXPECT_FALSE(std::filesystem::exists(image));
    }
}

}  // namespace
