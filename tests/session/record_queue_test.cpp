#include "session/record_queue.h"

#include "support/testing.h"

namespace {

/// One thread fills, one takes; both fall behind the other now and then, and neither loses, repeats or tears a record.
TEST(RecordQueue, ThreadsHandOverEveryRecordOnceAndInOrder) {
    constexpr std::int64_t kRecords = 200'000;
    velmora::RecordQueue queue(64);
    const std::jthread filling([&] {
        for (std::int64_t next = 0; next < kRecords && !HasFailure();) {
            for (std::int64_t batch = next % 37; batch >= 0 && next < kRecords; --batch) {
                velmora_record* const record = next % 5 == 0 ? queue.roomForOther() : queue.roomForRaw();
                if (record == nullptr) {
                    break;
                }
                *record = {};
                record->time = record->sample = next++;
                queue.commit();
            }
            queue.publish();
        }
    });
    std::vector<velmora_record> taken(100);
    std::int64_t expected = 0;
    while (expected < kRecords) {
        const auto min = static_cast<std::size_t>(std::min(expected % 60 + 1, kRecords - expected));
        const auto deadline = kxorbeta_if::systemClock().now() + std::chrono::seconds(20);
        while (queue.size() < min) {
            ASSERT_TRUE(queue.waitFor(min, nullptr, deadline, [&] { return queue.size() >= min; })) << "left asleep";
        }
        const std::size_t count = queue.take(taken.data(), sizeof taken[0], taken.size());
        ASSERT_GE(count, min);
        for (std::size_t i = 0; i < count; ++i, ++expected) {
            ASSERT_EQ(taken[i].time, expected);
            ASSERT_EQ(taken[i].sample, expected);
        }
    }
    EXPECT_LE(queue.largest(), 64u + 256u);
}

}  // namespace
