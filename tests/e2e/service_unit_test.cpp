// The systemd unit in contrib/: on the unit every exit but the operator's
// close is followed by a reset, so the service restarts Tovel after each.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>

TEST(ServiceUnit, RestartsAfterEveryExitButZero) {
    std::ifstream in(TOVEL_SOURCE_DIR "/contrib/tovel.service");
    ASSERT_TRUE(in);
    std::map<std::string, std::string> settings;
    for (std::string line; std::getline(in, line);) {
        const auto eq = line.find('=');
        if (line.empty() || line[0] == '#' || eq == std::string::npos) continue;
        settings[line.substr(0, eq)] = line.substr(eq + 1);
    }
    EXPECT_EQ(settings["Restart"], "on-failure");
    EXPECT_EQ(settings.count("RestartPreventExitStatus"), 0u);
    EXPECT_EQ(settings["KillSignal"], "SIGTERM");  // the orderly close: exit 0, no restart
}
