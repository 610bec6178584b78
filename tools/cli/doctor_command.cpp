#include <algorithm>
#include <chrono>
#include <iostream>

#include "cli/commands.h"
#include "cli/doctor.h"
#include "cli/doctor_system.h"
#include "cli/failure.h"
#include "cli/terminal.h"
#include "cli/text.h"

namespace velmora::cli {
namespace {

using namespace std::chrono_literals;
using kxorbeta_if::PortInfo;
using Result = Finding::Result;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kFirstPacketTime = 3 * kSecond;

class Doctor {
  public:
    Doctor(const DoctorOptions& options, Reporter& reporter) : options_(options), reporter_(reporter) {}

    void run() {
        const auto port = findDongle();
        if (port) {
            try {
                examineLine(*port);
            } catch (const Error& error) {
                end(asFailure(error));
            } catch (const Failure& failure) {
                end(failure);
            }
        }
        if (options_.json) {
            std::cout << findingsJson(findings_) << "\n";
        }
        const auto problems = std::count_if(findings_.begin(), findings_.end(),
                                            [](const Finding& finding) { return finding.result == Result::kProblem; });
        if (problems > 0) {
            throw Failure(kNotDone, "to be mended: " + std::to_string(problems) + " (see above)");
        }
    }

  private:
    void tell(Finding finding) {
        if (!options_.json) {
            std::cout << findingText(finding, static_cast<std::size_t>(std::min(consoleOfOutput().width - 1, 100)))
                      << std::flush;
        }
        findings_.push_back(std::move(finding));
    }

    void end(const Failure& failure) {
        if (failure.code() == kInterrupted) {
            throw failure;
        }
        tell({Result::kProblem, "dongle", failure.what(), "velmora doctor   (when that is done)"});
    }

    bool wanted(const PortInfo& port, bool anyUsb) const {
        return options_.port.empty() ? port.usb.has_value() || !anyUsb : port.path == systemName(options_.port);
    }

    /// The port of a dongle, if one can be worked with.
    std::optional<std::string> findDongle() {
        const auto ports = kxorbeta_if::listPorts();
        const bool anyUsb =
            std::any_of(ports.begin(), ports.end(), [](const PortInfo& port) { return port.usb.has_value(); });
        bool any = false;
        for (const PortInfo& port : ports) {
            if (wanted(port, anyUsb)) {
                any = true;
                tell(examineAccess(port));
            }
        }
        tell(examineGrabbers(runningPrograms()));
        if (!options_.port.empty()) {
            if (!any) {
                tell({Result::kNote, "access", options_.port + " is not among the ports that the system lists"});
                return options_.port;
            }
        } else if (!any) {
            tell({Result::kProblem, "port", "this computer has no serial port", lookForDevice()});
            return std::nullopt;
        }
        std::optional<std::string> found;
        std::string problem;
        for (const Port& port : findDongles(false, problem)) {
            const bool asked = options_.port.empty() || systemName(port.path) == systemName(options_.port);
            if (!asked || port.status == VELMORA_INVALID) {
                continue;
            }
            if (port.status == VELMORA_OK) {
                tell({Result::kGood, "dongle", std::string(port.path) + ": " + port.text});
                found = found.value_or(port.path);
            } else if (port.status == VELMORA_NOT_A_DONGLE) {
                tell({Result::kNote, "dongle", std::string(port.path) + ": " + port.text});
            }
        }
        if (!found) {
            tell({Result::kProblem, "dongle", "no dongle answers", lookForDevice()});
        }
        return found;
    }

    void examineLine(const std::string& path) {
        Connection connection(path, reporter_);
        // While it is open: the library has asked the driver for little latency then.
        for (const PortInfo& port : kxorbeta_if::listPorts()) {
            if (port.path == systemName(path)) {
                tell(examineLatency(port));
            }
        }
        const bool left = connection.headsetsLeft();
        if (left) {
            tell({Result::kProblem, "headsets", "headsets of a run that did not end in order still send",
                  "velmora reset --port " + path});
        } else {
            const auto found = connection.scan();
            if (found.empty()) {
                tell({Result::kNote, "headsets",
                      "the dongle found no headset; switch one on and bring it near to have its data looked at"});
                return;
            }
            tell({Result::kGood, "headsets",
                  "the dongle found " + std::to_string(found.size()) + "; data is taken from " +
                      headsetText(found.front().address, found.front().name)});
            connection.connect({found.front()});
        }
        tell(examineData(measure(connection.dongle())));
    }

    static Measured measure(Dongle& dongle) {
        const Statistics before = dongle.statistics();
        std::int64_t end = dongle.start().time + kFirstPacketTime;
        bool first = true;
        std::vector<Record> records(256);
        for (std::int64_t now = velmora_now(); now < end; now = velmora_now()) {
            const auto rest = std::chrono::milliseconds((end - now) / 1'000'000 + 1);
            const Batch batch = dongle.read(records, 1, rest, &userStop());
            if (batch.status != VELMORA_OK && batch.status != VELMORA_TIMEOUT) {
                throw asFailure(Error(batch.status, 0, ""));
            }
            if (first && std::any_of(batch.records.begin(), batch.records.end(),
                                     [](const Record& record) { return record.kind == VELMORA_RAW; })) {
                first = false;
                end = velmora_now() + kSecond;
            }
        }
        const Statistics after = dongle.statistics();
        Measured measured;
        measured.damaged = after.damaged_headers - before.damaged_headers + after.incomplete_frames -
                           before.incomplete_frames + after.stray_bytes - before.stray_bytes;
        for (const Headset& headset : dongle.headsets()) {
            for (const velmora_channel_statistics& channel : dongle.statistics(headset.number).channels) {
                measured.packets += channel.packets;
                measured.lost += channel.lost;
                measured.dropped += channel.dropped;
            }
        }
        return measured;
    }

    const DoctorOptions& options_;
    Reporter& reporter_;
    std::vector<Finding> findings_;
};

}  // namespace

void doctorCommand(const DoctorOptions& options, Reporter& reporter) {
    Doctor(options, reporter).run();
}

}  // namespace velmora::cli
