#include "report.h"

#include <nlohmann/json.hpp>

namespace qrbthumb {

std::string FormatLine(const Outcome& o) {
    std::string line = o.ok ? "ok   " : "FAIL ";
    line += o.input + " (" + o.kind + "): ";
    line += (o.width > 0 && o.height > 0) ? std::to_string(o.width) + "x" + std::to_string(o.height)
                                          : std::string("-");
    line += ", " + std::to_string(o.frames) + (o.frames == 1 ? " frame, " : " frames, ");
    line += std::to_string(o.milliseconds) + " ms";
    if (!o.outputs.empty()) {
        line += " ->";
        for (const auto& file : o.outputs) line += " " + file;
    }
    if (!o.note.empty()) line += " - " + o.note;
    return line;
}

std::string FormatJson(const std::vector<Outcome>& outcomes) {
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const auto& o : outcomes) {
        nlohmann::ordered_json entry = {
            {"input", o.input},
            {"kind", o.kind},
            {"media", o.media},
            {"device", o.device},
            {"status", o.ok ? "ok" : "fail"},
            {"width", o.width},
            {"height", o.height},
            {"frames", o.frames},
            {"milliseconds", o.milliseconds},
            {"outputs", o.outputs},
        };
        if (!o.reason.empty()) entry["reason"] = o.reason;
        if (!o.note.empty()) entry["note"] = o.note;
        array.push_back(std::move(entry));
    }
    return array.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string FormatSummary(const std::vector<Outcome>& outcomes) {
    size_t ok = 0;
    for (const auto& o : outcomes) ok += o.ok ? 1 : 0;
    return std::to_string(outcomes.size()) + (outcomes.size() == 1 ? " input: " : " inputs: ") +
           std::to_string(ok) + " ok, " + std::to_string(outcomes.size() - ok) + " failed";
}

}  // namespace qrbthumb
