#include "record/recording.h"

#include <cmath>
#include <cstring>
#include <sstream>

#include "record/edf_layout.h"
#include "record/memory_files.h"
#include "record/simulated_headset.h"
#include "support/testing.h"

namespace {

using namespace velmora::record;
using test::EdfFile;
using test::MemoryFiles;
using test::SimulatedHeadset;

constexpr std::int64_t kSecond = 1'000'000'000;
// 2024-03-05 22:30:00.25 UTC, the next day in this place.
constexpr Start kStart{500'000'000, 1'709'677'800'250'000'000, 2 * 3600};

/// A recording into memory.
struct Session {
    explicit Session(Options wanted, int headsets = 1) : options(std::move(wanted)) {
        if (options.target.base.empty())
            options.target.base = "take";
        std::vector<Headset> list;
        for (int i = 0; i < headsets; ++i)
            list.push_back({i, "A1B2C3D4E5F" + std::to_string(i), "headset"});
        recording = std::make_unique<Recording>(options, list, kStart, files, "1.2", "0.1.0",
                                                [this](const std::string& text) { notices.push_back(text); });
    }

    void play(const std::vector<velmora_record>& records) {
        for (const velmora_record& record : records) {
            // As a program does that waits for a tenth of a second at most.
            for (files.now = std::max(files.now, record.time - 60 * kSecond); files.now < record.time;) {
                files.now = std::min(files.now + kSecond / 10, record.time);
                recording->tick(files.now);
            }
            recording->take({&record, 1});
        }
    }
    EdfFile edf(const std::string& name = "take.edf") { return EdfFile::readBytes(files.content(name).value()); }
    /// The file of a recording that then ends.
    EdfFile whole(const std::vector<velmora_record>& records) {
        play(records);
        recording->finish();
        return edf();
    }

    Options options;
    MemoryFiles files;
    std::vector<std::string> notices;
    std::unique_ptr<Recording> recording;
};

void sortByTime(std::vector<velmora_record>& records) {
    std::stable_sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return a.time < b.time; });
}

bool has(const EdfFile& file, const std::string& text, double onset = -1) {
    return std::any_of(file.annotations.begin(), file.annotations.end(), [&](const auto& annotation) {
        return annotation.text == text && (onset < 0 || std::abs(annotation.onset - onset) < 0.01);
    });
}

TEST(Recording, EverySampleStandsInItsPlaceAndEveryLossIsMarked) {
    struct Case {
        const char* name;
        int channels;
        bool multi;
        double rate, loss, seconds;
    };
    for (const Case& c :
         {Case{"whole", 8, false, 500, 0, 8}, Case{"1 % lost", 8, false, 500, 0.01, 20},
          Case{"one channel, slow", 1, false, 50, 0.2, 60}, Case{"half lost of 16", 16, false, 500, 0.5, 30},
          Case{"half lost of 16, fast", 16, false, 2000, 0.5, 12},
          Case{"several channels in a packet", 15, true, 500, 0.5, 20}, Case{"odd rate", 3, false, 333.3, 0.1, 12},
          Case{"most lost", 4, false, 250, 0.9, 60}, Case{"short", 2, false, 1000, 0, 0.5},
          Case{"three seconds", 2, false, 250, 0.1, 3}}) {
        SCOPED_TRACE(c.name);
        SimulatedHeadset headset{
            .channels = c.channels, .multi = c.multi, .rate = c.rate, .seconds = c.seconds, .lossShare = c.loss};
        const auto records = headset.records();
        Options options;
        options.rate = c.rate;
        const EdfFile file = Session(options).whole(records);
        EXPECT_EQ(static_cast<int>(file.signals.size()), c.channels);
        const auto first = std::ranges::min_element(records, {}, &velmora_record::sample);
        EXPECT_EQ(test::difference(file, records, c.rate, first->sample), "");
        EXPECT_LE(file.recordSeconds, 1);
    }
}

TEST(Recording, EqualLossesOfChannelsAreOneAnnotationThatNamesThem) {
    SimulatedHeadset headset{.channels = 4};
    headset.lost = [](int channel, std::int64_t sample) {
        return sample == 10 * 112 ? channel >= 2 : sample == 20 * 112;
    };
    Options options;
    options.labels = {"Fp1", "Fp2", "O1", "O2"};
    std::vector<std::string> lost;
    for (const auto& annotation : Session(options).whole(headset.records()).annotations) {
        if (annotation.text.rfind("BAD_lost", 0) == 0) {
            lost.push_back(annotation.text);
            EXPECT_NEAR(annotation.duration, 112.0 / 500, 1e-6);
        }
    }
    EXPECT_EQ(lost, (std::vector<std::string>{"BAD_lost O1, O2", "BAD_lost all channels"}));
}

TEST(Recording, HeaderAndEventsOfASession) {
    SimulatedHeadset headset{.channels = 2, .rate = 250, .seconds = 20, .jitter = 0};
    // Disconnected between 10 and 15 seconds.
    headset.lost = [](int, std::int64_t sample) { return sample >= 2500 && sample < 3750; };
    auto records = headset.records();
    const std::int64_t first = headset.start;
    records.push_back(test::eventRecord(VELMORA_EVENT_DISCONNECTED, 0, first + 11 * kSecond));
    records.push_back(test::eventRecord(VELMORA_EVENT_RESTARTED, -1, first + 12 * kSecond));
    records.push_back(test::eventRecord(VELMORA_EVENT_CONNECTED, 0, first + 14 * kSecond));
    for (const std::uint32_t level : {200U, 200U, 199U}) {
        velmora_record battery{};
        battery.kind = VELMORA_BATTERY;
        battery.time = first + (level == 200 ? 2 : 8) * kSecond;
        battery.values[0] = level;
        battery.values[1] = 3700;
        records.push_back(battery);
    }
    sortByTime(records);
    Options options;
    options.unit = "uV";
    options.gain = 0.1;
    Session run(options);
    run.play(records);
    run.recording->mark(first + 20 * kSecond, "eyes \xE7\x9B\xAE open\n");
    run.recording->finish();

    const EdfFile file = run.edf();
    // The first sample was made half a second after the start.
    EXPECT_EQ(file.start, "06.03.2024 00:30:00");
    const std::string bytes = run.files.content("take.edf").value();
    EXPECT_EQ(bytes.substr(88, 48), "Startdate 06-MAR-2024 X X headset_A1B2C3D4E5F0  ");
    EXPECT_NE(bytes.find("+0.75\x14\x14"), std::string::npos);
    EXPECT_EQ(file.recordSeconds, 1);
    EXPECT_EQ(file.signals[1].label, "ch1");
    EXPECT_EQ(file.signals[0].unit, "uV");
    EXPECT_EQ(file.signals[0].physicalMin, -3276.8);
    EXPECT_EQ(file.signals[0].physicalMax, 3276.7);
    EXPECT_EQ(test::difference(file, records, 250), "");
    const std::map<double, const char*> events{{-1, "BAD_gap all channels"}, {0, "UTC offset +02:00"},
                                               {2, "battery 200, 3700"},     {8, "battery 199, 3700"},
                                               {11, "headset disconnected"}, {12, "dongle restarted"},
                                               {14, "headset connected"},    {20, "eyes \xE7\x9B\xAE open "}};
    for (const auto& [onset, text] : events)
        EXPECT_TRUE(has(file, text, onset)) << text;
    EXPECT_EQ(std::count_if(file.annotations.begin(), file.annotations.end(),
                            [](const auto& a) { return a.text.rfind("battery", 0) == 0; }),
              2);
    const std::string json = run.files.content("take.json").value();
    for (const char* part : {"\"finished\": true", "\"rate\": 250", "\"rate_source\": \"usual\"", "take.edf",
                             "\"start_utc\": \"2024-03-05T22:30:00.750000Z\"", "\"library\": \"velmora 0.1.0\""})
        EXPECT_NE(json.find(part), std::string::npos) << part << " is not in " << json;
}

TEST(Recording, SilentChannelsAndLateOnes) {
    SimulatedHeadset headset{.channels = 3, .seconds = 30};
    // Channel 1 falls silent for good; channel 2 appears when the channels are settled.
    headset.lost = [](int channel, std::int64_t sample) {
        return (channel == 1 && sample > 10 * 500) || (channel == 2 && sample < 12 * 500);
    };
    auto records = headset.records();
    Session run({});
    run.play(records);
    // A killed program leaves the silence marked up to the end.
    EXPECT_EQ(test::difference(run.edf(), records, 500, 0, records.back().time - kSecond), "");
    run.recording->finish();
    const EdfFile file = run.edf();
    EXPECT_EQ(file.signals.size(), 2U);
    std::erase_if(records, [](const velmora_record& record) { return record.channel == 2; });
    EXPECT_EQ(test::difference(file, records, 500), "");
    EXPECT_TRUE(has(file, "BAD_lost ch1"));
    EXPECT_TRUE(has(file, "channel 2 appears and is not recorded"));
    ASSERT_EQ(run.notices.size(), 1U);
    EXPECT_NE(run.notices[0].find("channel 2"), std::string::npos);
}

TEST(Recording, ALongGapBeginsAnotherFile) {
    SimulatedHeadset headset{.channels = 2, .rate = 250, .seconds = 640};
    headset.lost = [](int, std::int64_t sample) { return sample >= 10 * 250 && sample < 620 * 250; };
    const auto records = headset.records();
    const auto later = std::find_if(records.begin(), records.end(), [](const auto& r) { return r.sample > 600 * 250; });
    Session run({});
    const EdfFile first = run.whole(records);
    EXPECT_EQ(first.records, 11);
    EXPECT_EQ(test::difference(first, {records.begin(), later}, 250), "");
    const EdfFile second = run.edf("take-2.edf");
    EXPECT_EQ(test::difference(second, {later, records.end()}, 250, later->sample - 2 * 112), "");
    // 620.032 s to the first sample there, less two packets.
    EXPECT_EQ(second.start, "06.03.2024 00:40:19");
}

TEST(Recording, RateIsMeasuredOrAskedFor) {
    struct Case {
        double made, given, inFile;
        const char* source;
        bool asks, warns;
    };
    for (const Case& c : {Case{500.9, 0, 500, "\"usual\"", false, false}, Case{503, 0, 503, "measured", true, false},
                          Case{503, 500, 500, "given", false, true}, Case{128.2, 0, 128, "\"usual\"", false, false},
                          Case{333.3, 333.3, 333.3, "given", false, false}}) {
        SCOPED_TRACE(c.made);
        SimulatedHeadset headset{.channels = 2, .rate = c.made, .seconds = 70};
        Options options;
        options.rate = c.given;
        Session run(options);
        run.play(headset.records());
        EXPECT_EQ(!run.recording->unusualRates().empty(), c.asks);
        const HeadsetProgress progress = run.recording->progress().headsets[0];
        EXPECT_NEAR(progress.measuredRate, c.made, 0.0002 * c.made);
        run.recording->finish();
        EXPECT_EQ(run.notices.size(), c.warns ? 1U : 0U);
        const EdfFile file = run.edf();
        const double rate = static_cast<double>(file.signals[0].samples.size()) /
                            (static_cast<double>(file.records) * file.recordSeconds);
        EXPECT_NEAR(rate, c.inFile, 0.0002 * c.inFile);
        EXPECT_NE(run.files.content("take.json")->find(c.source), std::string::npos);
    }
}

TEST(Recording, SeveralHeadsetsHaveFilesOfTheirOwn) {
    Session run({}, 2);
    const SimulatedHeadset headset;
    auto records = headset.records();
    const auto others = SimulatedHeadset{.number = 1, .channels = 2, .rate = 250, .start = 4 * kSecond}.records();
    const auto strangers = SimulatedHeadset{.number = 7}.records();  // not chosen
    for (const auto* more : {&others, &strangers})
        records.insert(records.end(), more->begin(), more->end());
    sortByTime(records);
    velmora_record processed{};
    processed.kind = VELMORA_PROCESSED;
    processed.headset = 1;
    processed.time = kStart.time + 1'500'000'000;
    for (std::uint32_t i = 0; i < 8; ++i)
        processed.values[i] = i * 2'000'000;
    processed.bytes[3] = 9;
    processed.bytes[4] = 8;
    records.push_back(processed);
    run.play(records);
    run.recording->finish();
    std::erase_if(records, [](const auto& record) { return record.headset != 0; });
    EXPECT_EQ(test::difference(run.edf("take-A1B2C3D4E5F0.edf"), records, 500), "");
    EXPECT_EQ(test::difference(run.edf("take-A1B2C3D4E5F1.edf"), others, 250), "");
    EXPECT_EQ(run.files.content("take-processed.csv").value(),
              "time,headset,value1,value2,value3,value4,selector,number1,number2,number3,number4,number5,number6,"
              "number7,number8\r\n"
              "1.500000,A1B2C3D4E5F1,0,0,0,9,8,0,2000000,4000000,6000000,8000000,10000000,12000000,14000000\r\n");
}

TEST(Recording, CsvHasALineForEachInstantAndNothingForLostSamples) {
    SimulatedHeadset headset{.channels = 2, .rate = 250, .seconds = 7, .jitter = 0};
    headset.lost = [](int channel, std::int64_t sample) { return channel == 1 && sample == 112; };
    Options options;
    options.target = Target::parse("take.csv");
    options.labels = {"left, \"front\"", "right"};
    Session run(options);
    run.play(headset.records());
    run.recording->mark(headset.start + kSecond, "a, b");
    run.recording->finish();
    std::string expected = "time,sample,\"left, \"\"front\"\"\",right\r\n";
    for (std::int64_t i = 0; i < 15 * 112; ++i) {
        char front[64];
        std::snprintf(front, sizeof front, "%.6f,%lld,%d,", static_cast<double>(i) / 250, static_cast<long long>(i),
                      SimulatedHeadset::value(0, i));
        expected += front;
        if (i < 112 || i >= 224)
            expected += std::to_string(SimulatedHeadset::value(1, i));
        expected += "\r\n";
    }
    EXPECT_EQ(run.files.content("take.csv").value(), expected);
    EXPECT_EQ(run.files.content("take-events.csv").value(),
              "onset,duration,text\r\n0.448000,0.448000,BAD_lost right\r\n1.000000,,\"a, b\"\r\n");
}

// The records that a file counts, for readers that refuse one with more.
std::string counted(std::string file) {
    std::istringstream header(file.substr(184, 8) + ' ' + file.substr(236, 8));
    std::size_t headerSize = 0;
    std::size_t count = 0;
    header >> headerSize >> count;
    std::size_t samples = 0;  // of all signals in a record
    const std::size_t signals = headerSize / 256 - 1;
    for (std::size_t i = 0; i < signals; ++i)
        samples += std::stoul(file.substr(256 + 216 * signals + 8 * i, 8));
    EXPECT_GE(file.size(), headerSize + count * 2 * samples);
    file.resize(headerSize + count * 2 * samples);
    return file;
}

// What a program leaves that is killed in front of any of its operations.
TEST(Recording, KilledAtAnyMomentCostsTheLastSecond) {
    SimulatedHeadset headset{.channels = 6, .seconds = 16, .lossShare = 0.2};
    headset.lost = [](int, std::int64_t sample) { return sample > 4000 && sample < 5200; };
    const auto records = headset.records();
    Session run({});
    run.whole(records);
    std::size_t opened = 0;
    const auto& operations = run.files.operations;
    for (std::size_t i = 0; i < operations.size(); ++i) {
        SCOPED_TRACE("operation " + std::to_string(i));
        const auto content = run.files.contentAfter("take.edf", i);
        if (!content) {
            EXPECT_LT(operations[i].time, headset.start + 2 * kSecond);
            continue;
        }
        const EdfFile file = EdfFile::readBytes(counted(*content));
        if (counted(*content) != *content)  // between the two writes that make it grow
            continue;
        ASSERT_EQ(test::difference(file, records, 500, 0, operations[i].time - kSecond), "");
        ++opened;
    }
    EXPECT_GT(opened, 20U);
}

TEST(Recording, AFullDiskLeavesFilesThatOpen) {
    // Begun anew while its rate is being measured, and appended to from then on.
    SimulatedHeadset headset{.channels = 4, .seconds = 60, .lossShare = 0.1};
    const auto records = headset.records();
    std::size_t opened = 0;
    for (std::uint64_t capacity = 6'000; capacity < 290'000; capacity += 19'777) {
        SCOPED_TRACE(capacity);
        Session run({});
        run.files.capacity = capacity;
        std::int64_t failed = 0;
        try {
            run.play(records);
        } catch (const FileError& error) {
            EXPECT_EQ(error.reason(), FileError::Reason::NoSpace);
            failed = run.files.now;
        }
        ASSERT_NE(failed, 0);
        EXPECT_THROW(run.recording->finish(), FileError);
        EXPECT_NO_THROW(run.recording->finish());
        if (const auto content = run.files.content("take.edf")) {
            const EdfFile file = EdfFile::readBytes(*content);
            EXPECT_EQ(test::difference(file, records, 500, 0, failed - 3 * kSecond), "");
            ++opened;
        }
    }
    EXPECT_GT(opened, 10U);
}

TEST(Recording, NamesAndOptionsThatCannotBe) {
    EXPECT_EQ(Target::parse("a/b.EDF").base, "a/b");
    EXPECT_EQ(Target::parse("a.csv").format, Format::Csv);
    EXPECT_EQ(Target::parse("v1.2").base, "v1.2");
    for (const char* name : {"", "-", "folder/", "folder\\", ".edf", "folder/.csv"})
        EXPECT_THROW(Target::parse(name), std::invalid_argument) << name;

    const auto check = [](auto&& change) {
        Options options;
        change(options);
        checkOptions(options);
    };
    EXPECT_NO_THROW(check([](Options& o) { o.labels = {"Fp1", "a label of 16 c"}; }));
    EXPECT_THROW(check([](Options& o) { o.labels = {"a label of 17 cha"}; }), std::invalid_argument);
    EXPECT_THROW(check([](Options& o) { o.labels = {"Fp1", "Fp1"}; }), std::invalid_argument);
    EXPECT_THROW(check([](Options& o) { o.labels = {"\xC3\xA4"}; }), std::invalid_argument);
    EXPECT_THROW(check([](Options& o) { o.unit = "\xC2\xB5V"; }), std::invalid_argument);
    for (const double gain : {0.0, 1e-12, 1e9})
        EXPECT_THROW(check([&](Options& o) { o.gain = gain; }), std::invalid_argument) << gain;
    for (const double rate : {0.5, double{NAN}})
        EXPECT_THROW(check([&](Options& o) { o.rate = rate; }), std::invalid_argument) << rate;
}

// The header has eight characters for each number, and a record 61,440 bytes.
TEST(EdfLayout, NumbersFitAndSayTheRate) {
    std::vector<double> rates{1, 1.5, 50, 128, 333.3, 499.5, 512, 997, 1000.0 / 3, 2048, 9973, 10'000, 44'100, 100'000};
    std::mt19937 random(3);
    for (int i = 0; i < 100; ++i)
        rates.push_back(std::uniform_real_distribution<double>(1, 20'000)(random));
    for (const double rate : rates) {
        for (const std::size_t channels : {std::size_t{1}, std::size_t{8}, std::size_t{16}}) {
            SCOPED_TRACE(std::to_string(rate) + " Hz, " + std::to_string(channels) + " channels");
            const EdfLayout layout = edfLayout(rate, channels);
            EXPECT_GE(layout.samples, 1);
            EXPECT_LE(layout.recordSeconds.size(), 8U);
            EXPECT_EQ(std::llround(std::stod(layout.recordSeconds) * 1e7), layout.recordTicks);
            EXPECT_LE(layout.recordTicks, 10'000'000);
            EXPECT_LE(layout.recordBytes, 61'440U);
            EXPECT_EQ(layout.recordBytes,
                      2 * channels * static_cast<std::size_t>(layout.samples) + layout.annotationBytes);
            EXPECT_LE(std::abs(layout.rate() / rate - 1), rate < 20 ? 2e-6 : 1e-5);
            if (rate == std::floor(rate) && rate * static_cast<double>(channels) < 25'000) {
                EXPECT_EQ(layout.recordSeconds, "1");
            }
        }
    }
}

TEST(EdfLayout, RangeSaysTheGain) {
    for (const double gain : {1.0, 0.1, 0.02235174, 0.0000987654, 3.3, 123.456, 305.0}) {
        SCOPED_TRACE(gain);
        const EdfRange range = edfRange(gain);
        EXPECT_LE(range.minText.size(), 8U);
        EXPECT_LE(range.maxText.size(), 8U);
        EXPECT_EQ(std::stod(range.minText), range.min);
        EXPECT_NEAR(range.gain(), gain, gain * 1e-4);
    }
}

}  // namespace
