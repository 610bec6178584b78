#include "cli/doctor.h"

#include <algorithm>

#include "cli/json.h"
#include "cli/text.h"

namespace velmora::cli {
namespace {

using kxorbeta_if::PortInfo;
using Result = Finding::Result;

/// Appends words, each on the present line if it fits there.
void appendWrapped(std::string& text, std::string_view words, std::size_t indent, std::size_t width) {
    std::size_t column = indent;
    while (!words.empty()) {
        const std::size_t end = std::min(words.find(' '), words.size());
        if (column > indent && column + 1 + end > width) {
            text += "\n" + std::string(indent, ' ');
            column = indent;
        }
        if (column > indent) {
            text += ' ';
            ++column;
        }
        text += words.substr(0, end);
        column += end;
        words.remove_prefix(std::min(end + 1, words.size()));
    }
    text += "\n";
}

}  // namespace

Finding examineAccess(const PortInfo& port) {
    const std::string name = port.path + (port.description.empty() ? "" : " (" + port.description + ")");
    if (port.access == PortInfo::Access::kDenied) {
        if (port.accessGroup.empty()) {
            return {Result::kProblem, "access", "this user may not open " + name + ", nor may any group",
                    "sudo chmod a+rw " + port.path};
        }
        return {Result::kProblem, "access",
                "this user may not open " + name + "; members of the group " + port.accessGroup + " may",
                "sudo usermod -aG " + port.accessGroup + " \"$USER\"   (then log out and in again)"};
    }
    if (!port.holders.empty()) {
        std::string who;
        std::string kill = "kill";
        for (const kxorbeta_if::PortHolder& holder : port.holders) {
            who += (who.empty() ? "" : ", ") + (holder.program.empty() ? "a program" : holder.program) + " (process " +
                   std::to_string(holder.process) + ")";
            kill += " " + std::to_string(holder.process);
        }
        return {Result::kProblem, "access", name + " is held by " + who, kill};
    }
    return {Result::kGood, "access",
            name + (port.access == PortInfo::Access::kAllowed ? " may be opened by this user" : " is there")};
}

Finding examineLatency(const PortInfo& port) {
    if (!port.latencyTimerMs) {
        return {Result::kNote, "latency",
                "the driver of " + port.path + " tells no latency timer" +
                    (port.usb ? "; where it has one (on Windows: Device Manager, the port, Port Settings, Advanced), "
                                "1 ms is wanted"
                              : "")};
    }
    const std::string text = "the driver passes bytes on after " + std::to_string(*port.latencyTimerMs) + " ms";
    if (*port.latencyTimerMs <= 1) {
        return {Result::kGood, "latency", text};
    }
    return {Result::kProblem, "latency", text + "; 1 ms is wanted",
            "echo 1 | sudo tee /sys/bus/usb-serial/devices/" + port.name + "/latency_timer"};
}

Finding examineGrabbers(std::span<const std::string> programs) {
    std::string running;
    std::string mend;
    for (const std::string_view grabber : {"ModemManager", "brltty"}) {
        if (std::find(programs.begin(), programs.end(), grabber) != programs.end()) {
            running += (running.empty() ? "" : " and ") + std::string(grabber);
            mend += (mend.empty() ? "sudo systemctl mask --now " : " ") + std::string(grabber);
        }
    }
    if (running.empty()) {
        return {Result::kGood, "grabbers", "no program runs that is known to open foreign serial ports"};
    }
    return {Result::kProblem, "grabbers",
            "programs run that open any serial port that is plugged in, and send to it: " + running, mend};
}

Finding examineData(const Measured& measured) {
    const std::string text = std::to_string(measured.packets) + " packets in a second, lost " +
                             lossText(measured.packets, measured.lost + measured.dropped) + ", damaged pieces " +
                             std::to_string(measured.damaged);
    if (measured.packets == 0) {
        return {Result::kProblem, "data", "the headset is connected, but no data came",
                "switch the headset off and on; see that it measures"};
    }
    if (measured.dropped > 0) {
        return {Result::kProblem, "data", text + "; this computer did not keep up", "end other programs"};
    }
    if (measured.lost > 0 || measured.damaged > 0) {
        return {Result::kProblem, "data", text,
                measured.lost > 0 ? "bring headset and dongle nearer to each other, away from other radios"
                                  : "use another USB port, without hub or long cable"};
    }
    return {Result::kGood, "data", text};
}

std::string findingText(const Finding& finding, std::size_t width) {
    constexpr std::size_t kIndent = 16;
    const char* const mark = finding.result == Result::kGood ? "ok" : finding.result == Result::kNote ? "note" : "MEND";
    std::string text = padded(mark, 4) + "  " + padded(finding.check, 8) + "  ";
    appendWrapped(text, finding.text, kIndent, width);
    if (!finding.mend.empty()) {
        // Not wrapped: it is to be copied.
        text += std::string(kIndent, ' ') + finding.mend + "\n";
    }
    return text;
}

std::string findingsJson(std::span<const Finding> findings) {
    Json json;
    json.beginObject().beginArray("findings");
    for (const Finding& finding : findings) {
        const char* const result = finding.result == Result::kGood   ? "ok"
                                   : finding.result == Result::kNote ? "note"
                                                                     : "problem";
        json.beginObject()
            .field("check", finding.check)
            .field("result", result)
            .field("text", finding.text)
            .field("mend", finding.mend)
            .endObject();
    }
    return json.endArray().endObject().text();
}

}  // namespace velmora::cli
