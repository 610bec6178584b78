// Compares a recording with the account that the virtual dongle keeps of every packet:
//   account_check FILE.edf ACCOUNT.csv ADDRESS CHANNELS [LATEST]
// Every packet that a host read as a whole has to be in the file, in order and as far from its neighbours as the
// packets lost between them fill; what is between has to be marked as bad. LATEST: seconds at the end of the account
// that may be missing, after a kill. For headsets that send single-channel packets to channels called ch0, ch1 ...
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <span>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "dongle/headset_frames.h"
#include "record/edf_file.h"

namespace {

constexpr std::int64_t kPacketSamples = 112;

struct Packet {
    int index;
    std::uint64_t number;  // of the headset's
    int connection;        // which of the headset's connections
    int channel;
    std::int64_t sent;  // nanoseconds
    bool whole;
};

std::vector<Packet> readAccount(const std::string& path, const std::string& address) {
    std::ifstream file(path);
    std::vector<Packet> packets;
    int lastCounter = 0;
    int connection = 0;
    std::string line;
    while (std::getline(file, line)) {
        std::vector<std::string> fields;
        std::istringstream text(line);
        for (std::string field; std::getline(text, field, ',');)
            fields.push_back(field);
        // headset,index,kind,number,channel,counter,produced_ns,copy,sent_ns,outcome,...
        if (fields.size() < 10 || fields[0] != address || fields[2] != "raw" || fields[7] == "2")
            continue;
        // A headset that connects again begins with counter 0 anew.
        const int channel = std::stoi(fields[4]);
        const int counter = std::stoi(fields[5]);
        connection += channel == 0 && counter == 0 && lastCounter != 255 ? 1 : 0;
        lastCounter = counter;
        packets.push_back({std::stoi(fields[1]), std::stoull(fields[3]), connection, channel,
                           fields[8].empty() ? 0 : std::stoll(fields[8]), fields[9] == "whole"});
    }
    return packets;
}

class Channel {
  public:
    Channel(const test::EdfFile& file, const test::EdfFile::Signal& signal)
        : samples_(signal.samples),
          bad_(file.marks(
              signal, static_cast<double>(samples_.size()) / static_cast<double>(file.records) / file.recordSeconds)) {}

    std::int64_t size() const { return std::ssize(samples_); }

    /// The first sample from there on that is not marked; the end if all are.
    std::int64_t firstGood(std::int64_t from) const {
        while (from < size() && bad_[static_cast<std::size_t>(from)] > 0)
            ++from;
        return from;
    }

    bool holds(const Packet& packet, int channels, std::int64_t at) const {
        if (at < 0 || at + kPacketSamples > size())
            return false;
        const std::uint64_t first = packet.number / static_cast<std::uint64_t>(channels) * kPacketSamples;
        for (std::int64_t i = 0; i < kPacketSamples; ++i) {
            const auto place = static_cast<std::size_t>(at + i);
            if (bad_[place] > 0 || samples_[place] != dongle::sampleValue(packet.index, packet.channel,
                                                                          first + static_cast<std::uint64_t>(i)))
                return false;
        }
        return true;
    }
    bool isMarked(std::int64_t from, std::int64_t to) const {
        for (; from < to; ++from) {
            if (bad_[static_cast<std::size_t>(from)] == 0 || samples_[static_cast<std::size_t>(from)] != -32768)
                return false;
        }
        return true;
    }

  private:
    const std::vector<std::int16_t> samples_;
    const std::vector<int> bad_;  // how often it is marked
};

struct Finding {
    std::int64_t found = 0, lost = 0;
    std::string problem;
};

// As if the file began with the packet `first`. Packets of which less than `must` is sure may be missing at the end.
Finding follow(const Channel& channel, std::span<const Packet> packets, int channels, std::int64_t must) {
    Finding finding;
    std::int64_t next = 0;                            // behind the last packet
    std::int64_t expected = channel.firstGood(next);  // the same, with what was lost since
    int connection = packets.front().connection;
    for (const Packet& packet : packets) {
        if (std::exchange(connection, packet.connection) != packet.connection)
            expected = channel.firstGood(next);
        if (packet.whole && !channel.holds(packet, channels, expected)) {
            if (packet.sent <= must)
                finding.problem = "packet " + std::to_string(packet.number) + " is not where it belongs";
            break;
        }
        expected += kPacketSamples;
        ++(packet.whole ? finding.found : finding.lost);
        if (!packet.whole)
            continue;
        if (!channel.isMarked(next, expected - kPacketSamples))
            finding.problem = "packet " + std::to_string(packet.number) + " follows what is neither data nor marked";
        next = expected;
    }
    if (!channel.isMarked(next, channel.size()))
        finding.problem += "the end is neither data nor marked";
    return finding;
}

int check(const test::EdfFile& file, const std::vector<Packet>& packets, int channels, double latest) {
    std::int64_t end = 0;
    for (const Packet& packet : packets)
        end = std::max(end, packet.whole ? packet.sent : 0);
    const auto must = end - std::llround(latest * 1e9);
    int problems = 0;
    Finding sum;
    for (const auto& signal : file.signals) {
        const int number = std::atoi(signal.label.c_str() + 2);
        const Channel channel(file, signal);
        std::vector<Packet> own;
        std::copy_if(packets.begin(), packets.end(), std::back_inserter(own),
                     [&](const Packet& packet) { return packet.channel == number; });
        // The signal comes round again, so that more than one packet looks like the first one: the right one is that
        // from which all others follow.
        Finding best{0, 0, "no packet of the account is in it"};
        for (std::span<const Packet> rest = own; !rest.empty() && !best.problem.empty(); rest = rest.subspan(1)) {
            if (!rest.front().whole || !channel.holds(rest.front(), channels, channel.firstGood(0)))
                continue;
            const Finding finding = follow(channel, rest, channels, must);
            if (finding.problem.empty() || finding.found > best.found)
                best = finding;
        }
        sum.found += best.found;
        sum.lost += best.lost;
        if (!best.problem.empty()) {
            std::cout << signal.label << ": " << best.problem << '\n';
            ++problems;
        }
    }
    std::cout << sum.found << " packets in place, " << sum.lost << " lost ones between them, " << problems
              << " problems\n";
    return problems == 0 && sum.found > 0 ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) try {
    if (count < 5) {
        std::cerr << "usage: account_check FILE.edf ACCOUNT.csv ADDRESS CHANNELS [LATEST]\n";
        return 2;
    }
    return check(test::EdfFile::read(arguments[1]), readAccount(arguments[2], arguments[3]), std::atoi(arguments[4]),
                 count > 5 ? std::atof(arguments[5]) : 0);
} catch (const std::exception& error) {
    std::cout << arguments[1] << ": " << error.what() << '\n';
    return 1;
}
