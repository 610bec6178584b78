// A host that loads the library and leaves it in an unusual way: lifetime_program LIBRARY CASE.
// A process of its own for each case, because what is looked at is how the process and the library end. Exit code 0
// when all was as it should be.

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include "dongle/dongle_runner.h"
#include "sdk/VelmoraSDK.h"
#include "support/eventually.h"
#include "support/shared_library.h"
#include "support/test_line.h"
#include "support/working_folder.h"

namespace {

using namespace std::chrono_literals;

#define CHECK(condition)                                                                 \
    do {                                                                                 \
        if (!(condition)) {                                                              \
            std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            std::exit(1);                                                                \
        }                                                                                \
    } while (false)

std::atomic<long> packets{0}, lastEvent{0};

void onRaw(int, int, int*, int) {
    ++packets;
}
void onEvent(unsigned code, unsigned) {
    lastEvent = code;
}

struct Sdk {
    explicit Sdk(const std::string& path) : library(path) {}

    template <typename Function>
    Function* get(const char* name) const {
        return library.function<Function>(name);
    }
    int call(const char* name) const { return get<int()>(name)(); }
    int connectPort(const std::string& port) const { return get<int(const char*)>("SDK_ConnectPort")(port.c_str()); }

    test::SharedLibrary library;
};

/// The host, its dongle, and data flowing.
struct Streaming {
    explicit Streaming(const std::string& path) : sdk(path), line(test::plugLine()) {
        dongle::Settings settings = dongle::defaultSettings(1);
        settings.headsets[0].sampleRate = 2000;
        settings.replies.connectDuration = settings.replies.streamDelay = 10ms;
        dongle = std::make_unique<dongle::Runner>(settings, std::move(line.dongleEnd));
        CHECK(sdk.call("SDK_Init") == 1);
        sdk.get<void(RawDataCallback)>("SDK_SetRawDataCallback")(onRaw);
        sdk.get<void(EventCallback)>("SDK_SetEventCallback")(onEvent);
        CHECK(sdk.connectPort(line.hostPort) == 1);
        CHECK(sdk.get<int(const char*, int)>("SDK_ConnectDevice")("A1B2C3D4E501", 1) == 1);
        CHECK(sdk.call("SDK_StartDataCollection") == 1);
        waitForData();
    }

    static void waitForData() {
        const long before = packets;
        CHECK(test::eventually([&] { return packets > before + 20; }));
    }

    Sdk sdk;
    test::TestLine line;
    std::unique_ptr<dongle::Runner> dongle;
};

void reload(const std::string& path) {
    const test::WorkingFolder folder;
    const test::TestLine line = test::plugLine();
    for (int i = 0; i < 50; ++i) {
        Sdk sdk(path);
        CHECK(sdk.call("SDK_Init") == 1);
        CHECK(sdk.connectPort(line.hostPort) == 1);  // the port was given back, though nobody closed it
        CHECK(sdk.connectPort(line.hostPort) == 0);
        CHECK(std::string(sdk.get<const char*()>("SDK_CheckPort")()).empty());
        sdk.library.unload();
        CHECK(!test::SharedLibrary::loaded(path));
    }
    CHECK(folder.count("kxsdk.log", "KXSDK init.") == 50);
}

void unloadWhileLinked(const std::string& path) {
    Streaming streaming(path);
    streaming.sdk.library.unload();
    CHECK(test::SharedLibrary::loaded(path));
    Streaming::waitForData();  // the thread's code is still there
    // A host that comes back finds the same library, and holds it while it is inside.
    Sdk again(path);
    again.get<void()>("SDK_Cleanup")();
    again.library.unload();
    CHECK(test::eventually([&] { return !test::SharedLibrary::loaded(path); }));
}

#ifndef _WIN32
/// A host's own state goes away here: nobody may call it any more.
void afterTheLibrary() {
    std::this_thread::sleep_for(20ms);  // a call in flight may end
    const long before = packets;
    std::this_thread::sleep_for(200ms);
    if (packets != before) {
        std::fprintf(stderr, "the host was called after its end began\n");
        std::_Exit(1);
    }
}
#endif

void leaveWhileStreaming(const std::string& path) {
#ifndef _WIN32
    CHECK(std::atexit(afterTheLibrary) == 0);  // the handlers of an end run in reverse: after the library's
#endif
    static Streaming* const never = new Streaming(path);  // the dongle, too, goes on to the very end
    Streaming::waitForData();
    std::exit(never == nullptr ? 1 : 0);
}

void restart(const std::string& path) {
    Streaming streaming(path);
    streaming.dongle->with([](dongle::Engine& engine) { engine.restart(); });
    const long before = lastEvent;
    CHECK(before == 4);
    // The link thread is stuck for good now. What a host does next must still come back.
    CHECK(test::eventually([&] { return streaming.dongle->with([](auto& e) { return !e.connected(1); }); }));
    long seen = packets;
    CHECK(test::eventually([&] {
        std::this_thread::sleep_for(500ms);
        return std::exchange(seen, packets.load()) == packets;
    }));
    CHECK(streaming.sdk.call("SDK_StopDataCollection") == 1);
    CHECK(streaming.sdk.call("SDK_StartDataCollection") == 1);
    streaming.sdk.get<void()>("SDK_DisconnectPort")();
    streaming.sdk.get<void()>("SDK_Cleanup")();
    CHECK(lastEvent == before);
    std::exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, void (*)(const std::string&)> cases = {{"reload", reload},
                                                                       {"unload_while_linked", unloadWhileLinked},
                                                                       {"leave_while_streaming", leaveWhileStreaming},
                                                                       {"restart", restart}};
    const auto chosen = argc == 3 ? cases.find(argv[2]) : cases.end();
    if (chosen == cases.end()) {
        std::fprintf(stderr, "usage: lifetime_program LIBRARY CASE\n");
        return 2;
    }
    chosen->second(argv[1]);
    return 0;
}
