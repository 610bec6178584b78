// What a dongle that says nothing costs a host, through the exported functions and a serial port, for the full length:
//     full_wait_program scan|connect
// 400 reads of 50 ms, or 5,000 of 20 ms. Exit code 0 when the call failed and took at least that long.

#include <chrono>
#include <cstdio>
#include <string>

#include "sdk/VelmoraSDK.h"
#include "support/test_line.h"
#include "support/working_folder.h"

int main(int argc, char** argv) {
    using namespace std::chrono_literals;
    const bool scan = argc > 1 && std::string(argv[1]) == "scan";
    const test::WorkingFolder folder;
    const test::TestLine line = test::plugLine();
    if (SDK_Init() != 1 || SDK_ConnectPort(line.hostPort.c_str()) != 1) {
        return 2;
    }
    const auto begin = std::chrono::steady_clock::now();
    const int result = scan ? SDK_ScanDevices() : SDK_ConnectDevice("A1B2C3D4E501", 1);
    const auto took = std::chrono::steady_clock::now() - begin;
    SDK_Cleanup();
    std::printf("%s: %d after %.2f seconds\n", scan ? "scan" : "connect", result,
                std::chrono::duration<double>(took).count());
    return result == 0 && took >= (scan ? 20s - 100ms : 100s - 500ms) ? 0 : 1;
}
