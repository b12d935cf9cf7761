#include "agent/ctl/views/records.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include "agent/common/json_text.h"
#include "agent/ctl/views/credible_record.h"
#include "agent/ctl/views/ioa_report.h"
#include "agent/gateway/frame.h"
#include "agent/gateway/journal.h"
#include "engine/qd_client.h"

namespace kze::ctl {
namespace {

using gateway::frame;
using nlohmann::json;

constexpr unsigned int zlib_compressed = 2;
/* Bytes of a JSON text in a row: enough to tell results of orders apart. */
constexpr std::size_t shown_json = 80;

std::string percentage(std::uint64_t part, std::uint64_t whole) {
    std::array<char, 32> text;
    std::snprintf(
        text.data(), text.size(), "%.1f %%",
        whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
    return text.data();
}

std::string type_text(int type) {
    return std::to_string(type) + " " + gateway::data_type_name(type);
}

/* Only what the plug-in makes itself carries a module header; the rest is the engine's own. */
bool is_framed(int type) {
    return type == KZEMM_DATA_ORIGIN || type == KZEMM_DATA_CTMIOA_RESULT ||
           type == KZEMM_DATA_CTMIOA_HELLO || type == KZEMM_DATA_CREDIBLE;
}

bool is_text(std::string_view bytes) {
    const bool controls = std::any_of(bytes.begin(), bytes.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte == 0x7FU || (byte < 0x20U && c != '\n' && c != '\t' && c != '\r');
    });
    return !controls && is_utf8(bytes);
}

std::string hex_of(std::string_view bytes) {
    std::string text;
    std::array<char, 8> digits;
    for (const char c : bytes) {
        std::snprintf(digits.data(), digits.size(), " %02x", static_cast<unsigned char>(c));
        text += digits.data();
    }
    return text.empty() ? text : text.substr(1);
}

/* Whether these may be the first bytes of a JSON object. */
bool looks_like_json(std::string_view bytes) {
    return bytes.size() > 1 && bytes[0] == '{' &&
           std::all_of(bytes.begin(), bytes.end(), [](char c) {
               return static_cast<unsigned char>(c) >= 0x20U || c == '\n' || c == '\t';
           });
}

/* As text where it is some; a character may be cut at its end. */
std::string quoted_beginning(const kept_record &entry) {
    const std::string_view begins(entry.data);
    const std::string_view whole =
        begins.substr(0, looks_like_json(begins) ? shown_json : gateway::frame_header_size);
    const std::string more = static_cast<std::size_t>(entry.size) > whole.size() ? " ..." : "";
    std::string_view text = whole;
    for (int cut = 0; cut < 4 && !text.empty(); ++cut) {
        if (is_text(text)) {
            return "\"" + printable(text) + "\"" + more;
        }
        text.remove_suffix(1);
    }
    return hex_of(whole) + more;
}

/* What a report about custom rules tells, as far as the record's beginning has it. */
std::optional<ioa_report> report_of(const kept_record &entry) {
    return entry.data.size() <= gateway::frame_header_size
               ? std::nullopt
               : read_ioa_report(entry.kind,
                                 std::string_view(entry.data).substr(gateway::frame_header_size));
}

/* The credible event in a record's bytes; none while only their beginning is there. */
std::optional<json> credible_of(const kept_record &entry) {
    if (entry.kind != KZEMM_DATA_CREDIBLE ||
        entry.data.size() < static_cast<std::size_t>(entry.size)) {
        return std::nullopt;
    }
    const frame decoded = gateway::decode_frame(entry.data);
    return decoded.has_header && decoded.problem.empty() ? read_credible(decoded.content)
                                                         : std::nullopt;
}

json report_json(const ioa_report &report) {
    json value = {{"agentId", report.agent_id}, {"rulesId", report.rules_id}};
    if (report.res) {
        value["res"] = *report.res;
    }
    return value;
}

std::string brief(const kept_record &entry) {
    const auto size = static_cast<std::size_t>(entry.size);
    const frame head = gateway::decode_header(entry.data, size);
    if (!is_framed(entry.kind) || !head.has_header) {
        return quoted_beginning(entry);
    }
    if (head.compress_flag == zlib_compressed) {
        return human_size(head.msg_len) + " raw, compressed to " +
               percentage(head.payload_size, head.msg_len);
    }
    if (const std::optional<json> event = credible_of(entry)) {
        return credible_text(*event);
    }
    const std::optional<ioa_report> report = report_of(entry);
    return report ? ioa_report_text(*report) : "frame of type " + std::to_string(head.proto_type);
}

json frame_json(const frame &decoded) {
    return {{"proto_type", decoded.proto_type},
            {"compress_flag", decoded.compress_flag},
            {"net_order", decoded.net_order},
            {"msg_len", decoded.msg_len},
            {"payload_size", decoded.payload_size},
            {"content_size", decoded.content.size()},
            {"problem", decoded.problem}};
}

std::string hex_line(const std::string &bytes, std::size_t from) {
    const std::size_t count = std::min<std::size_t>(16, bytes.size() - from);
    std::array<char, 96> text;
    std::snprintf(text.data(), text.size(), "%08zx ", from);
    std::string line = text.data();
    for (std::size_t i = 0; i < 16; ++i) {
        if (i < count) {
            std::snprintf(text.data(), text.size(), " %02x",
                          static_cast<unsigned char>(bytes[from + i]));
            line += text.data();
        } else {
            line += "   ";
        }
    }
    line += "  ";
    for (std::size_t i = 0; i < count; ++i) {
        const char c = bytes[from + i];
        line += c >= ' ' && c <= '~' ? c : '.';
    }
    return line;
}

/* The process list of an origin record, one object a line; nothing when it is something else. */
std::optional<std::vector<json>> processes_of(const std::string &content) {
    std::vector<json> processes;
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
        std::string problem;
        std::optional<json> process = parse_json(line, problem);
        if (!process || !process->is_object() || !process->contains("pid") ||
            !process->at("pid").is_number()) {
            return std::nullopt;
        }
        processes.push_back(std::move(*process));
    }
    if (processes.empty()) {
        return std::nullopt;
    }
    return processes;
}

std::string text_member(const json &object, const char *name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::string number_member(const json &object, const char *name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_number() ? found->dump() : std::string();
}

void print_processes(const std::vector<json> &processes, const output &out) {
    table list;
    list.add_heads({"PID", "PPID", "USER", "NAME", "MD5", "PATH"});
    for (const json &process : processes) {
        list.add({{number_member(process, "pid")},
                  {number_member(process, "ppid"), look::faint},
                  {printable(text_member(process, "user"))},
                  {printable(text_member(process, "name")), look::accent},
                  {printable(text_member(process, "md5")), look::faint},
                  {printable(text_member(process, "path"))}});
    }
    list.print(out, 2);
}

void print_bytes(const std::string &bytes, const output &out) {
    if (is_text(bytes)) {
        std::istringstream lines(bytes);
        for (std::string line; std::getline(lines, line);) {
            out.line("  " + printable(line));
        }
        return;
    }
    for (std::size_t from = 0; from < bytes.size(); from += 16) {
        out.line("  " + hex_line(bytes, from));
    }
}

std::string size_text(std::uint64_t bytes) {
    return human_size(bytes) +
           (bytes < 1024 ? std::string() : " (" + std::to_string(bytes) + " bytes)");
}

void add_frame_rows(table &head, const frame &decoded) {
    const bool compressed = decoded.compress_flag == zlib_compressed;
    head.add({{"Frame", look::faint},
              {"version 3200, proto_type " + std::to_string(decoded.proto_type) +
               ", compress_flag " + std::to_string(decoded.compress_flag) +
               (compressed ? " (zlib)" : "") + ", msg_len " + std::to_string(decoded.msg_len) +
               (decoded.net_order ? ", big-endian" : ", little-endian")}});
    if (compressed) {
        head.add({{"Raw", look::faint},
                  {size_text(decoded.content.size()) + ", compressed to " +
                   size_text(decoded.payload_size) + ", " +
                   percentage(decoded.payload_size, decoded.content.size())}});
    }
    if (!decoded.problem.empty()) {
        head.add({{"Broken", look::bad}, {printable(decoded.problem), look::bad}});
    }
}

/* The record's frame, where its type has one. */
std::optional<frame> frame_of(const kept_record &record) {
    if (!is_framed(record.kind)) {
        return std::nullopt;
    }
    frame decoded = gateway::decode_frame(record.data);
    if (!decoded.has_header) {
        return std::nullopt;
    }
    return decoded;
}

}  // namespace

kept_record with_content(record_reader &journal, const kept_record &entry) {
    if (entry.kind == KZEMM_DATA_CREDIBLE) {
        if (auto whole = journal.show(entry.id); whole && !whole->empty()) {
            return std::move(whole->front());
        }
    }
    return entry;
}

std::vector<table::cell> record_row(const kept_record &entry) {
    return {{std::to_string(entry.id), look::strong},
            {human_time(entry.time_us), look::faint},
            {type_text(entry.kind), look::accent},
            {human_size(static_cast<std::uint64_t>(entry.size))},
            {brief(entry)}};
}

json record_json(const kept_record &entry) {
    json value = {{"id", entry.id},
                  {"accepted_us", entry.time_us},
                  {"type", entry.kind},
                  {"type_name", gateway::data_type_name(entry.kind)},
                  {"size", entry.size}};
    const frame head = gateway::decode_header(entry.data, static_cast<std::size_t>(entry.size));
    if (is_framed(entry.kind) && head.has_header) {
        value["frame"] = {{"proto_type", head.proto_type},
                          {"compress_flag", head.compress_flag},
                          {"net_order", head.net_order},
                          {"msg_len", head.msg_len},
                          {"payload_size", head.payload_size}};
        if (const std::optional<ioa_report> report = report_of(entry)) {
            value["report"] = report_json(*report);
        }
        if (const std::optional<json> event = credible_of(entry)) {
            value["credible"] = *event;
        }
    }
    return value;
}

json whole_record_json(const kept_record &record) {
    json value = record_json(record);
    const std::optional<frame> decoded = frame_of(record);
    const std::string &content = decoded ? decoded->content : record.data;
    if (decoded) {
        value["frame"] = frame_json(*decoded);
    }
    if (const std::optional<json> event = credible_of(record)) {
        value["credible"] = *event;
    }
    if (const auto processes = processes_of(content);
        processes && record.kind == KZEMM_DATA_ORIGIN) {
        value["processes"] = *processes;
    } else if (is_text(content)) {
        value["text"] = content;
    } else {
        std::string hex = hex_of(content);
        hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
        value["hex"] = hex;
    }
    return value;
}

void print_record(const kept_record &record, const output &out) {
    const std::optional<frame> decoded = frame_of(record);
    const std::string &content = decoded ? decoded->content : record.data;
    const auto processes = record.kind == KZEMM_DATA_ORIGIN ? processes_of(content)
                                                            : std::optional<std::vector<json>>();
    table head;
    head.add({{"Record", look::faint}, {std::to_string(record.id), look::strong}});
    head.add({{"Taken", look::faint}, {human_time(record.time_us)}});
    head.add({{"Type", look::faint}, {type_text(record.kind), look::accent}});
    head.add({{"Size", look::faint}, {size_text(record.data.size())}});
    if (decoded) {
        add_frame_rows(head, *decoded);
    }
    if (const std::optional<ioa_report> report = read_ioa_report(record.kind, content)) {
        head.add({{"Agent", look::faint}, {std::to_string(report->agent_id)}});
        head.add({{"Custom IOA", look::faint}, {ioa_report_text(*report)}});
    }
    const std::optional<json> event = credible_of(record);
    if (event) {
        add_credible_rows(*event, head);
    }
    if (processes) {
        head.add({{"Processes", look::faint}, {std::to_string(processes->size())}});
    }
    head.print(out);
    out.line("");
    if (processes) {
        print_processes(*processes, out);
    } else if (event) {
        print_credible_actions(*event, out);
    } else {
        print_bytes(content, out);
    }
}

std::string record_content(const kept_record &record) {
    const std::optional<frame> decoded = frame_of(record);
    return decoded ? decoded->content : record.data;
}

}  // namespace kze::ctl
