// How long velmora_find takes when eight ports open and say nothing: prints "find_8_silent_ports_seconds VALUE".

#include <pty.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <vector>

#include "session/dongle_finder.h"
#include "session/environment_fixture.h"

int main() {
    constexpr int kPorts = 8;
    test::FakeMachine machine;
    std::vector<int> ends;
    for (int port = 0; port < kPorts; ++port) {
        std::array<char, 128> name{};
        int master = -1;
        int slave = -1;
        if (openpty(&master, &slave, name.data(), nullptr, nullptr) != 0) {
            std::perror("openpty");
            return 1;
        }
        close(slave);
        ends.push_back(master);
        machine.plug(name.data(), "");
    }
    const velmora::Environment environment = machine.environment();
    std::vector<velmora_port> ports;
    const auto began = std::chrono::steady_clock::now();
    const bool done = velmora::findDongles(environment, false, nullptr, ports).status == VELMORA_OK;
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    for (const int end : ends) {
        close(end);
    }
    std::printf("find_8_silent_ports_seconds %.3f\n", took.count());
    return done ? 0 : 1;
}
