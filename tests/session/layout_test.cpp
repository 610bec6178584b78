#include "velmora/velmora.h"

#include "support/testing.h"

// Hosts are compiled against these numbers, and read records with tables of offsets of their own: they hold on every
// platform. Pointers are 8 bytes.

namespace {

struct Member {
    const char* name;
    std::size_t offset, end, expectedOffset;
};

template <typename Struct>
void expectLayout(const char* name, std::size_t size, std::initializer_list<Member> members) {
    std::size_t end = 0;
    for (const Member& member : members) {
        EXPECT_EQ(member.offset, member.expectedOffset) << name << "." << member.name;
        EXPECT_EQ(member.offset, end) << "padding or an unknown member before " << name << "." << member.name;
        end = member.end;
    }
    EXPECT_EQ(sizeof(Struct), size) << name;
    EXPECT_EQ(end, size) << "padding or an unknown member at the end of " << name;
}

#define M(name, offset) \
    { #name, offsetof(S, name), offsetof(S, name) + sizeof(S::name), offset }
#define LAYOUT(Struct, size, ...)                      \
    {                                                  \
        using S = Struct;                              \
        expectLayout<S>(#Struct, size, {__VA_ARGS__}); \
    }

TEST(Layout, StructsHaveTheSameShapeEverywhere) {
    LAYOUT(velmora_error, 512, M(size, 0), M(status, 4), M(system_code, 8), M(reserved, 12), M(text, 16))
    LAYOUT(velmora_port, 768, M(path, 0), M(description, 256), M(usb_serial, 384), M(usb_vendor, 512),
           M(usb_product, 514), M(flags, 516), M(status, 520), M(system_code, 524), M(text, 528))
    LAYOUT(velmora_find_options, 32, M(size, 0), M(flags, 4), M(reserved, 8))
    LAYOUT(velmora_open_options, 48, M(size, 0), M(flags, 4), M(queue_capacity, 8), M(command_gap_ms, 12), M(log, 16),
           M(log_context, 24), M(reserved, 32))
    LAYOUT(velmora_found, 80, M(address, 0), M(name, 16), M(option, 72), M(headset, 76))
    LAYOUT(velmora_scan_options, 40, M(size, 0), M(flags, 4), M(on_found, 8), M(context, 16), M(reserved, 24))
    LAYOUT(velmora_wanted, 32, M(address, 0), M(option, 16), M(status, 20), M(headset, 24), M(index, 28))
    LAYOUT(velmora_headset, 88, M(address, 0), M(name, 16), M(number, 72), M(index, 76), M(connected, 80),
           M(reserved, 84))
    LAYOUT(velmora_record, 320, M(kind, 0), M(flags, 2), M(headset, 4), M(index, 6), M(time, 8), M(sample, 16),
           M(lost, 24), M(dropped, 28), M(channel, 32), M(channels, 34), M(count, 36), M(counter, 38), M(code, 39),
           M(bytes, 40), M(values, 56), M(samples, 88), M(reserved, 312))
    LAYOUT(velmora_statistics, 120, M(size, 0), M(reserved, 4), M(bytes, 8), M(stray_bytes, 16), M(damaged_headers, 24),
           M(incomplete_frames, 32), M(texts, 40), M(raw, 48), M(processed, 56), M(battery, 64), M(responses, 72),
           M(events, 80), M(queue_capacity, 88), M(queue_largest, 96), M(queue_dropped, 104), M(commands, 112))
    LAYOUT(velmora_channel_statistics, 48, M(packets, 0), M(lost, 8), M(repeated, 16), M(damaged_counters, 24),
           M(dropped, 32), M(rate, 40))
    LAYOUT(velmora_headset_statistics, 824, M(size, 0), M(headset, 4), M(channels, 8))
}

}  // namespace
