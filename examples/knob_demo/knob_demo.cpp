// Turn a front-panel knob by hand, in one of two ways:
//
//   knob_demo          a knob on a simulated counter chip of its own (on a
//                      unit root of its own, a KTX panel), turned from
//                      standard input;
//   knob_demo --unit   a knob following the knob of the running unit on the
//                      unit root (TOVEL_ROOT, else ./unit): `tovelsim knob 5`
//                      moves it. Standard input: q or its end quits.
//
// Either way a listener prints every count it is told: "count N".
//
// Commands of the first way, one per line on standard input:
//   +N, -N   turn the encoder N counts up or down (N defaults to 1)
//   f        an edit field takes the focus: range 0..9, wrapping, from 0
//   r        the edit field gives the focus back
//   q        quit (so does the end of the input)
// The knob prints "count N"; the edit field, while it has the focus, "edit N".
#include <tovel/knob.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::mutex outputMutex;

class Printer : public tovel::KnobEventListener {
  public:
    explicit Printer(const char* label) : label_(label) {}
    void newValue(int count, float rate) override {
        (void)rate;
        last_ = count;
        heard_ = true;
        std::lock_guard<std::mutex> lock(outputMutex);
        std::printf("%s %d\n", label_, count);
        std::fflush(stdout);
    }
    bool heard(int count) const { return heard_ && last_ == count; }

  private:
    const char* label_;
    std::atomic<int> last_{0};
    std::atomic<bool> heard_{false};
};

// A unit file system of our own whose registry names the KTX platform, the
// one whose knob is read from the counter chip.
fs::path makeUnitRoot() {
    std::random_device random;
    const fs::path root = fs::temp_directory_path() / ("knob_demo-" + std::to_string(random()));
    fs::create_directories(root);
    std::ofstream(root / "registry.reg") << "REGEDIT4\r\n\r\n"
                                         << "[HKEY_LOCAL_MACHINE\\Platform]\r\n"
                                         << "\"Name\"=\"Kestrix Platform\"\r\n";
    return root;
}

// Waits (briefly) until `listener` has been told a new count.
void settle(const tovel::Knob& knob, const Printer& listener, int before) {
    const auto deadline = std::chrono::steady_clock::now() + 2s;
    while (std::chrono::steady_clock::now() < deadline) {
        const int count = knob.getCount();
        if (count != before && listener.heard(count)) return;
        std::this_thread::sleep_for(5ms);
    }
}

// A knob on the counter chip of the unit whose root TOVEL_ROOT names: the
// unit hands the chip's count to every program on its root.
int followUnit() {
    const char* root = std::getenv("TOVEL_ROOT");
    Printer knobPrinter("count");
    tovel::Knob knob(-1000000, 1000000, 0);
    knob.addListener(&knobPrinter);
    // The knob takes its starting point from the unit half a second in.
    std::this_thread::sleep_for(1s);
    std::fprintf(stderr,
                 "following the knob of the unit at %s (platform %d); tovelsim knob N turns it\n",
                 root && *root ? root : "unit", tovel::platform());
    std::string line;
    while (std::getline(std::cin, line) && line != "q") {
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string(argv[1]) == "--unit") return followUnit();
    if (argc != 1) {
        std::fprintf(stderr, "usage: knob_demo [--unit]\n");
        return 2;
    }
    const fs::path root = makeUnitRoot();
    tovel::setUnitRoot(root.string());
    tovel::simulation::installCounterChip();
    std::fprintf(stderr, "platform %d; commands: +N, -N, f, r, q\n", tovel::platform());

    Printer knobPrinter("count");
    Printer editField("edit");
    {
        tovel::Knob knob(0, 100, 50);
        knob.addListener(&knobPrinter);
        // The knob takes its starting point from the chip half a second in.
        std::this_thread::sleep_for(1s);

        bool focused = false;
        std::string line;
        while (std::getline(std::cin, line) && line != "q") {
            if (line == "f") {
                focused = knob.takeFocus(0, 9, 1, 0, &editField, true) || focused;
            } else if (line == "r") {
                focused = focused && !knob.releaseFocus(&editField);
            } else if (!line.empty() && (line[0] == '+' || line[0] == '-')) {
                int counts = 1;
                try {
                    if (line.size() > 1) counts = std::stoi(line.substr(1));
                } catch (const std::exception&) {
                    std::fprintf(stderr, "not a number: %s\n", line.c_str());
                    continue;
                }
                const int before = knob.getCount();
                tovel::simulation::turnCounterChip(line[0] == '+' ? counts : -counts);
                settle(knob, focused ? editField : knobPrinter, before);
            } else if (!line.empty()) {
                std::fprintf(stderr, "commands: +N, -N, f, r, q\n");
            }
        }
    }
    std::error_code ignored;
    fs::remove_all(root, ignored);
    return 0;
}
