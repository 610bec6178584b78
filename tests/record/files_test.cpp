#include <iterator>

#include "record/edf_reader.h"
#include "record/local_time.h"
#include "record/output_file.h"
#include "record/recording.h"
#include "record/simulated_headset.h"
#include "support/testing.h"
#include "support/working_folder.h"

namespace {

using namespace velmora::record;
namespace fs = std::filesystem;

// "recordings of March", in Japanese.
const std::string kFolder = "\xE4\xB8\x89\xE6\x9C\x88\xE3\x81\xAE\xE8\xA8\x98\xE9\x8C\xB2";

constexpr Start kBegin{0, 1'709'677'800'000'000'000, 0};

fs::path native(const std::string& path) {
    return std::u8string(path.begin(), path.end());
}

std::string content(const std::string& path) {
    std::ifstream file(native(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

FileError::Reason reasonOf(auto&& act) {
    try {
        act();
    } catch (const FileError& error) {
        EXPECT_GT(std::string(error.what()).size(), 20U);
        return error.reason();
    }
    ADD_FAILURE() << "it should fail";
    return FileError::Reason::Failed;
}

TEST(Files, WriteInPlaceReplaceAndCutInAnyFolder) {
    const test::WorkingFolder here;
    fs::create_directory(native(kFolder));
    const std::string path = kFolder + "/\xE7\x9B\xAE.edf";
    const auto file = systemFiles().create(path, std::string("first"), IfExists::Refuse);
    EXPECT_EQ(content(path), "first");
    file->write(2, std::string("XYZ45"));
    EXPECT_EQ(content(path), "fiXYZ45");
    file->truncate(3);
    EXPECT_EQ(content(path), "fiX");
    file->replace(std::string("whole"));
    file->write(5, std::string("!"));
    file->sync();
    file->close();
    EXPECT_EQ(content(path), "whole!");
    systemFiles().check(kFolder + "/other.edf", IfExists::Refuse);
    EXPECT_EQ(std::distance(fs::directory_iterator(native(kFolder)), {}), 1) << "a file beside was left";
    EXPECT_GT(freeBytes(path), 0U);
}

TEST(Files, ExistingOnesAreKeptAndTwoRunsNeverShareOne) {
    const test::WorkingFolder here;
    using Reason = FileError::Reason;
    const auto make = [](const std::string& text, IfExists ifExists) {
        return systemFiles().create("a.edf", text, ifExists);
    };
    auto first = make("one", IfExists::Refuse);
    EXPECT_EQ(reasonOf([&] { make("two", IfExists::Refuse); }), Reason::InUse);
    EXPECT_EQ(reasonOf([&] { make("two", IfExists::Overwrite); }), Reason::InUse);
    EXPECT_EQ(reasonOf([&] { systemFiles().check("a.edf", IfExists::Overwrite); }), Reason::InUse);
    first->replace(std::string("again"));
    EXPECT_EQ(reasonOf([&] { make("two", IfExists::Overwrite); }), Reason::InUse);
    first.reset();
    EXPECT_EQ(reasonOf([&] { make("two", IfExists::Refuse); }), Reason::Exists);
    EXPECT_EQ(reasonOf([&] { systemFiles().check("a.edf", IfExists::Refuse); }), Reason::Exists);
    EXPECT_EQ(content("a.edf"), "again");
    const auto second = make("two", IfExists::Overwrite);
    EXPECT_EQ(content("a.edf"), "two");
    EXPECT_EQ(reasonOf([&] { systemFiles().create("no/a.edf", {}, IfExists::Refuse); }), Reason::NoFolder);
    EXPECT_EQ(reasonOf([&] { systemFiles().check("no/a.edf", IfExists::Refuse); }), Reason::NoFolder);
    fs::create_directory("folder.edf");
    EXPECT_EQ(reasonOf([&] { systemFiles().create("folder.edf", {}, IfExists::Overwrite); }), Reason::Failed);
}

TEST(Files, ARecordingInThemIsReadAsFarAsItGoes) {
    const test::WorkingFolder here;
    fs::create_directory(native(kFolder));
    const auto records = test::SimulatedHeadset{.channels = 2, .seconds = 6, .lossShare = 0.1}.records();
    Options options;
    options.target = Target::parse(kFolder + "/take.edf");
    const std::vector<Headset> headsets{{0, "A1B2C3D4E5F6", "x"}};
    const auto ignore = [](const std::string&) {};
    Recording recording(options, headsets, kBegin, systemFiles(), "1", "0", ignore);
    EXPECT_EQ(reasonOf([&] { Recording(options, headsets, kBegin, systemFiles(), "1", "0", ignore); }),
              FileError::Reason::InUse);
    for (const velmora_record& record : records) {
        recording.tick(record.time);
        recording.take({&record, 1});
    }
    recording.finish();
    EXPECT_EQ(reasonOf([&] { Recording(options, headsets, kBegin, systemFiles(), "1", "0", ignore); }),
              FileError::Reason::Exists);
    const std::string good = content(kFolder + "/take.edf");
    const auto file = test::EdfFile::readBytes(good);
    EXPECT_EQ(test::difference(file, records, 500), "");

    // Our own reader says the same.
    EdfReader reader(kFolder + "/take.edf");
    ASSERT_EQ(reader.signals().size(), file.signals.size());
    ASSERT_EQ(reader.annotations().size(), file.annotations.size());
    for (std::size_t i = 0; i < file.annotations.size(); ++i) {
        EXPECT_NEAR(reader.annotations()[i].onset, file.annotations[i].onset, 1e-6);
        EXPECT_EQ(reader.annotations()[i].text, file.annotations[i].text);
    }
    const auto samples = reader.record(3);
    EXPECT_EQ(samples[500 + 7], file.signals[1].samples[1507]);

    // Damaged files are refused, or read as far as they go.
    const auto read = [](const std::string& bytes) {
        std::ofstream("bad.edf", std::ios::binary) << bytes;
        EdfReader bad("bad.edf");
        for (std::uint64_t i = 0; i < bad.records(); ++i)
            (void)bad.record(i);
        (void)bad.annotations();
        return bad.records();
    };
    EXPECT_EQ(read(good), 6U);
    EXPECT_EQ(read(good.substr(0, good.size() - 1)), 5U);
    EXPECT_EQ(read(good + "rest"), 6U);
    EXPECT_THROW(EdfReader("none.edf"), EdfError);
    for (std::size_t size = 0; size < 1024; size += 31)
        EXPECT_THROW(read(good.substr(0, size)), EdfError) << size;
    // Single bytes damaged: an answer, whatever it is.
    for (std::size_t at = 160; at < 1400; at += 5) {
        for (const char byte : {'-', '9', '\x14'}) {
            std::string bad = good;
            bad[at] = byte;
            try {
                EXPECT_LE(read(bad), good.size());
            } catch (const EdfError&) {
            }
        }
    }
}

}  // namespace
