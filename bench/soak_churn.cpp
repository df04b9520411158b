#include "bench/soak_churn.h"

#include <chrono>
#include <random>

#include "platform/line_server.h"

namespace soak {
namespace {

using namespace std::chrono_literals;

class Channel {
  public:
    Channel(const std::string& path, ChurnTally& tally) : path_(path), tally_(tally) {}
    void operator()(const std::string& command) {
        std::string reply, error;
        ++tally_.actions;
        if (!host::lineRequest(path_, command, reply, error) || reply.rfind("ok", 0) != 0)
            ++tally_.refused;
    }

  private:
    std::string path_;
    ChurnTally& tally_;
};

}  // namespace

void runChurn(const std::string& controlSocket, const std::vector<std::string>& kinds,
              const StopSignal& stop, ChurnTally& tally) {
    std::mt19937 rng(4242);
    Channel send(controlSocket, tally);
    while (stop.pause(std::chrono::milliseconds(2000 + rng() % 3000))) {
        const std::size_t index = rng() % kinds.size();
        const std::string slot = std::to_string(index + 1);
        const std::string fault = "fault " + slot + " ";
        switch (rng() % 6) {
            case 0:  // pulled, and plugged back into the same (lowest free) slot
                send("detach " + slot);
                stop.pause(std::chrono::milliseconds(300 + rng() % 1500));
                send("attach " + kinds[index]);
                break;
            case 1:
                send(fault + "fail 31 " + std::to_string(1 + rng() % 4));
                break;
            case 2:  // answers 13 after the handshake time-out until cleared
                send(fault + "hang");
                stop.pause(6s);
                send(fault + "clear");
                break;
            case 3:
                send(fault + "mixup");
                break;
            case 4:
                send(fault + "latency " + std::to_string(1 + rng() % 20));
                stop.pause(3s);
                send(fault + "clear");
                break;
            default:  // a bad status once: the board is retired and comes back
                send(fault + "state 10");
                stop.pause(std::chrono::milliseconds(200 + rng() % 1000));
                send(fault + "clear");
                break;
        }
    }
}

}  // namespace soak
