#include <algorithm>
#include <array>
#include <memory>
#include <numeric>

#include "fuzz_support.h"
#include "session/reference_reader.h"
#include "session/time_line.h"
#include "session/traced_reader.h"

namespace {

/// Numbers the packets of all headsets and insists on what every host relies on.
class Lines {
  public:
    void place(int index, const std::uint8_t* frame, std::int64_t arrival) {
        const protocol::ChannelByte channel{frame[3]};
        const int slot = channel.single() ? channel.number() : velmora::TimeLine::kMulti;
        const int samples = channel.single() ? protocol::kSamples : protocol::kSamples / channel.number();
        const velmora::Placement placement = lines_[static_cast<std::size_t>(index)].place(
            slot, samples, frame[protocol::kCounterOffset], velmora::contentOf(frame), arrival, -1);
        if (placement.repeated) {
            return;
        }
        auto& [end, seen] = last_[static_cast<std::size_t>(index)][static_cast<std::size_t>(slot)];
        fuzz::require(placement.first == !seen);
        const std::int64_t place = end + std::int64_t{placement.lost} * samples;
        const bool takenBack = placement.damagedCounter && placement.sample < place;
        fuzz::require(!seen || takenBack || placement.sample == place);
        end = placement.sample + samples;
        seen = true;
    }

  private:
    struct Last {
        std::int64_t end = 0;
        bool seen = false;
    };
    std::array<velmora::TimeLine, protocol::kHeadsets> lines_;
    std::array<std::array<Last, velmora::TimeLine::kSlots>, protocol::kHeadsets> last_;
};

struct Reader : test::TracedReader {
    const std::unique_ptr<Lines> lines = std::make_unique<Lines>();

    void read(const test::Bytes& bytes, int ms) {
        std::copy(bytes.begin(), bytes.end(), reader->room().begin());
        reader->received(bytes.size(), ms * test::kMillisecond, false, *this);
    }
    void frame(int index, protocol::FrameKind kind, const std::uint8_t* bytes, std::int64_t arrival) {
        TracedReader::frame(index, kind, bytes, arrival);
        if (kind == protocol::FrameKind::kRaw) {
            lines->place(index, bytes, arrival);
        }
    }
};

}  // namespace

/// The first byte says whether a scan runs, the next four are the lengths of the reads and four more, in units of 10
/// ms, the times before them, which take turns; the rest is the stream.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 9) {
        return 0;
    }
    const test::Bytes input(data + 9, data + size);
    Reader reader;
    test::ReferenceReader reference;
    reader.reader->setScanning((data[0] & 1) != 0);
    reference.scanning = (data[0] & 1) != 0;
    int ms = 0;
    std::size_t turn = 0;
    for (std::size_t from = 0; from <= input.size(); ++turn) {
        const std::size_t to = std::min(from + 1 + data[1 + turn % 4], input.size());
        ms += 10 * data[5 + turn % 4];
        reader.read(test::part(input, from, to), ms);
        reference.read(test::part(input, from, to), ms);
        from = to + (to == input.size());
    }
    reader.read({}, ms + 2000);
    reference.read({}, ms + 2000);
    const velmora::ReaderCounts& counts = reader.reader->counts();
    fuzz::require(reader.trace == reference.trace);
    fuzz::require(counts.strayBytes == reference.stray && counts.damagedHeaders == reference.damagedHeaders);
    fuzz::require(std::accumulate(counts.incompleteFrames.begin(), counts.incompleteFrames.end(), std::uint64_t{0}) ==
                  reference.incomplete);
    fuzz::require(reader.reader->deadline() == velmora::StreamReader::kNever);
    return 0;
}
