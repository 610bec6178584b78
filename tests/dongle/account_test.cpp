// The account of packets against what is on the line, on virtual time.
#include "dongle/account.h"

#include <set>

#include "dongle_test_support.h"

namespace dongle::test {

TEST(Account, NamesThePartOfAFrameThatAByteIs) {
    // Where each part begins.
    const struct {
        int index;
        FrameKind kind;
        Bytes frame;
        std::string parts;
    } cases[] = {
        {1, FrameKind::Raw, singleChannelFrame(2, {}, 7),
         "0 marker 6 index 7 separator 8 length 11 separator 12 sync 14 kind 15 channel 16 sample 240 counter 241 "
         "unused "},
        {12, FrameKind::Battery, batteryFrame(1, 2),
         "0 marker 6 index 8 separator 9 length 10 separator 11 sync 13 kind 14 content "},
        {0, FrameKind::Response, shortResponse(0xDD, 1, {}),
         "0 marker 6 index 7 separator 8 length 9 separator 10 sync 12 content "},
    };
    for (const auto& c : cases) {
        const Bytes envelope = dataEnvelope(c.index, c.frame);
        std::string parts, last;
        for (std::size_t at = 0; at < envelope.size(); ++at) {
            if (const char* const part = nameOf(partAt(envelope, c.kind, at)); part != last) {
                parts += std::to_string(at) + " " + (last = part) + " ";
            }
        }
        EXPECT_EQ(parts, c.parts);
    }
}

/// A line that takes, refuses and keeps unread what chance says, and notes which bytes a host has read.
struct Line {
    explicit Line(const FaultSettings& faults, std::uint64_t seed) : chance(seed), bench(settings(faults)) {}

    Settings settings(const FaultSettings& faults) {
        Settings all = defaultSettings(3);
        all.faults = faults;
        all.faults.seed = chance.below(1'000'000);
        all.headsets[1].packing = Packing::Multi;
        all.line.fillBytesPerSecond = 100'000;
        all.account = true;
        all.onSettled = [this](const PacketRecord& record) { records.push_back(record); };
        return all;
    }

    void carry(bool troubled) {
        bench.pass(20ms);
        for (const Write& write : bench.writes) {
            const std::size_t size = write.bytes.size();
            const std::size_t taken = troubled && chance.hits(0.1) ? chance.below(size + 1) : size;
            // In two steps, as a line takes it that is nearly full.
            const std::size_t half = chance.below(taken + 1);
            account.taken(write.pieces, 0, half, stream.size(), bench.now);
            account.taken(write.pieces, half, taken, stream.size() + half, bench.now);
            account.dropped(write.pieces, taken, DropCause::LineFull);
            stream.insert(stream.end(), write.bytes.begin(), write.bytes.begin() + static_cast<std::ptrdiff_t>(taken));
        }
        if (troubled && chance.hits(0.1)) {
            leave(chance.below(std::min<std::size_t>(stream.size() - decided, 3000) + 1));
        }
    }
    void leave(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            unread.insert(stream.size() - 1 - i);
        }
        account.portWent(decided = stream.size(), count);
    }

    Chance chance;
    std::vector<PacketRecord> records;
    Bench bench;
    Account& account = *bench.engine.account();
    Bytes stream;                  // what the line has taken
    std::set<std::size_t> unread;  // places in it
    std::size_t decided = 0;
};

/// Whether the packet's copy stands in the stream where the account says, and is whole unless it was damaged.
bool stands(const Line& line, const PacketRecord& record, const Transmission& copy) {
    const auto end = line.stream.begin() + static_cast<std::ptrdiff_t>(copy.end);
    std::string there(end - static_cast<std::ptrdiff_t>(record.size), end);
    if (copy.damagedPart == FramePart::Marker) {
        // Put right what the account says is wrong, and it must have been wrong.
        const char right = "AT+DAT"[*copy.damagedByte];
        EXPECT_NE(std::exchange(there[*copy.damagedByte], right), right);
    } else if (copy.damagedByte) {
        return true;
    }
    const auto frames = readFrames(there);
    return frames.size() == 1 && frames[0].first == record.index &&
           (record.kind != FrameKind::Raw || frames[0].second[228] == record.counter);
}

TEST(Account, TellsOfEveryPacketWhatHappenedToItOnTheLine) {
    const FaultSettings faults{.lose = 0.05, .repeat = 0.1, .corrupt = 0.1, .split = 0.2, .stray = 0.05};
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        Line line(faults, seed);
        for (const int index : {1, 2, 3}) {
            line.bench.engine.join(index);
        }
        for (int i = 0; i < 200; ++i) {
            line.carry(true);
            if (i == 100) {
                line.bench.engine.restart();
            }
            if (i % 100 == 50) {
                line.bench.engine.setSilent(line.chance.hits(0.5));
            }
            if (i == 110) {
                line.bench.engine.setSilent(false);
                line.bench.engine.join(2);
            }
        }
        // The last writes are made, but nobody takes them any more.
        line.bench.engine.advance(line.bench.now += 50ms);
        line.bench.engine.hangUp();
        line.leave(0);

        std::map<Account::Key, std::map<Outcome, std::uint64_t>> counted;
        std::map<std::size_t, std::uint64_t> next;
        std::size_t others = 0;
        for (const PacketRecord& record : line.records) {
            for (std::size_t copy = 0; copy < record.copies; ++copy) {
                const Transmission& one = record.sent[copy];
                EXPECT_EQ(one.taken + one.dropped, record.size);
                EXPECT_EQ(record.outcomeOf(copy) == Outcome::Dropped, one.cause != DropCause::None);
                if (record.outcomeOf(copy) == Outcome::Dropped) {
                    continue;
                }
                ASSERT_TRUE(stands(line, record, one)) << record.number << " copy " << copy;
                std::size_t unread = 0;
                for (std::size_t i = one.end - record.size; i < one.end; ++i) {
                    unread += line.unread.count(i);
                }
                EXPECT_EQ(one.unread, unread) << record.number;
            }
            if (record.kind != FrameKind::Raw) {
                ++others;
                EXPECT_TRUE(record.sent[0].damagedByte);
                continue;
            }
            EXPECT_EQ(record.number, next[record.headset]++) << "every packet once, in order";
            ++counted[{record.headset, record.channel}][record.outcome()];
        }
        PacketTotals sum = line.account.sum();
        for (const auto& [key, totals] : line.account.totals()) {
            const std::vector<std::uint64_t> found{totals.waiting, totals.lost,    totals.dropped,
                                                   totals.unread,  totals.damaged, totals.whole};
            for (std::size_t i = 0; i < found.size(); ++i) {
                EXPECT_EQ(found[i], counted[key][static_cast<Outcome>(i)]);
            }
            EXPECT_EQ(totals.sent, totals.whole + totals.damaged + totals.unread);
            EXPECT_EQ(totals.produced, totals.lost + totals.dropped + totals.sent);
        }
        for (const Headset& headset : line.bench.engine.headsets()) {
            const HeadsetCounters& own = headset.counters();
            EXPECT_EQ(own.rawProduced, own.rawSent + own.rawLost + own.rawDropped);
            sum.produced -= own.rawProduced;
        }
        EXPECT_EQ(sum.produced, 0U);
        EXPECT_EQ(sum.otherDamaged, others);
        for (const auto some : {sum.lost, sum.dropped, sum.unread, sum.damaged, sum.whole, sum.repeated}) {
            EXPECT_GT(some, 10U) << "seed " << seed;
        }
    }
}

TEST(Account, KeepsOnlyWhatIsNotDecided) {
    // A serial port never tells what was read.
    Line line({}, 1);
    line.bench.engine.join(1);
    for (int i = 0; i < 3000; ++i) {
        line.carry(false);
    }
    const PacketTotals sum = line.account.sum();
    EXPECT_EQ(sum.whole + sum.waiting, sum.produced);
    EXPECT_GT(line.records.size(), 10'000U);
    EXPECT_LT(sum.produced - line.records.size(), 5'000U);
    // Off unless asked for: a dongle can run for weeks.
    EXPECT_EQ(Engine(defaultSettings(1)).account(), nullptr);
}

TEST(Account, WritesALineForEachCopy) {
    PacketRecord record{
        .headset = 0, .index = 4, .number = 9, .channel = 2, .counter = 7, .produced = 5ns, .size = 242, .copies = 2};
    record.sent[0] = {.sent = 8ns, .end = 242, .taken = 242, .damagedByte = 15, .damagedPart = FramePart::Channel};
    record.sent[1] = {.dropped = 242, .cause = DropCause::NoHost};
    EXPECT_EQ(accountLines(record, "A1"),
              "A1,4,raw,9,2,7,5,1,8,damaged,,15,channel,242,242,0\nA1,4,raw,9,2,7,5,2,,dropped,no host,,,242,0,0\n");
    const PacketRecord lost{.index = 4, .number = 9, .channel = kAllChannels, .lost = true};
    EXPECT_EQ(accountLines(lost, "A1"), "A1,4,raw,9,all,0,0,0,,lost,,,,0,0,0\n");
}

}  // namespace dongle::test
