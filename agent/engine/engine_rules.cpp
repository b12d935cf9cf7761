#include "agent/engine/engine_rules.h"

#include <chrono>

#include "agent/common/md5.h"
#include "agent/engine/capabilities.h"
#include "agent/engine/process_snapshot.h"

namespace kze::engine {
namespace {

using nlohmann::json;

constexpr std::string_view tkbfd_begin = "{\"tkbfd\":";
constexpr std::size_t first_line_limit = 120;

std::string first_line_of(std::string_view text) {
    std::string_view line = text.substr(0, text.find_first_of("\r\n"));
    line = line.substr(0, first_line_limit);
    bool escaped = false;
    return text_of_bytes(line, escaped);
}

}  // namespace

std::int64_t now_us() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(since).count();
}

void engine_rules::take_text(int type, std::string_view text) {
    const bool to_part = text.substr(0, tkbfd_begin.size()) == tkbfd_begin;
    hold(type, to_part ? "tkbfd" : "", std::string(text), "data");
}

void engine_rules::take_file(int type, std::string text, const std::string &path) {
    hold(type, "file", std::move(text), path);
}

void engine_rules::hold(int type, const std::string &part, std::string text,
                        const std::string &source) {
    held_text &held = texts_[{type, part}];
    held.md5 = md5_of_bytes(text).value_or("");
    held.text = std::move(text);
    held.source = source;
    held.time_us = now_us();
    ++held.count;
}

const std::string *engine_rules::find(int type, const std::string &part) const {
    const auto found = texts_.find({type, part});
    return found == texts_.end() ? nullptr : &found->second.text;
}

json engine_rules::describe() const {
    json out = json::array();
    for (const auto &[key, held] : texts_) {
        bool escaped = false;
        out.push_back({{"type", key.first},
                       {"name", rules_name(key.first)},
                       {"part", key.second},
                       {"source", text_of_bytes(held.source, escaped)},
                       {"bytes", held.text.size()},
                       {"md5", held.md5},
                       {"time_us", held.time_us},
                       {"first_line", first_line_of(held.text)},
                       {"count", held.count}});
    }
    return out;
}

}  // namespace kze::engine
