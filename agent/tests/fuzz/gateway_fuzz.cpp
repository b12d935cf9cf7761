#include "gateway_fuzz.h"

#include <google/protobuf/stubs/logging.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include "agent/common/module_frame.h"
#include "agent/ctl/views/credible_record.h"
#include "agent/ctl/views/ioa_report.h"
#include "agent/ctl/views/records.h"
#include "agent/gateway/frame.h"
#include "engine/module_header.h"
#include "engine/qd_client.h"
#include "tests/support/wire_bytes.h"
#include "vrdbase.h"

namespace {

using kze::gateway::decode_frame;
using kze::gateway::decode_header;
using kze::gateway::frame;
using nlohmann::json;

constexpr unsigned int zlib_compressed = 2;
// What the journal gives of a record at most, but for the record itself.
constexpr size_t journal_beginning = 4096;
// A second reading of a stream has this much room.
constexpr size_t inflated_again = size_t{1} << 20;
// Up to here a length has one meaning: what it is in the other byte order is far too long.
constexpr size_t longest_input = 0xFFFF;

void require(bool good, const char *rule) {
    if (good) {
        return;
    }
    fprintf(stderr, "broken: %s\n", rule);
    abort();
}

// From memory of its own, so that a read beyond the bytes is seen.
frame decode(const std::string &bytes) {
    const std::vector<char> copy(bytes.begin(), bytes.end());
    return decode_frame({copy.data(), copy.size()});
}

std::string plain_frame(const std::string &content, bool net_order) {
    return kze::module_frame(
        content, module_request,
        net_order ? kze::byte_order::big_endian : kze::byte_order::little_endian);
}

// As the plug-in makes one of origin data, which are never empty.
std::string compressed_frame(const std::string &content) {
    uLongf size = compressBound(content.size());
    std::vector<Bytef> stream(size);
    require(compress(stream.data(), &size, reinterpret_cast<const Bytef *>(content.data()),
                     content.size()) == Z_OK,
            "what is small can be compressed");
    _module_header head =
        module_header(module_response, static_cast<uint32_t>(content.size()), false);
    head.compress_flag = module_compressed;
    std::string made(reinterpret_cast<const char *>(&head), sizeof(head));
    return made.append(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(size));
}

// ---- frames ----

void require_fields_of(const std::string &bytes, const frame &decoded) {
    const bool net = decoded.net_order;
    require(bytes.substr(6, 2) == wire::integer(decoded.compress_flag, 2, false),
            "the compress flag is the header's");
    require(bytes.substr(8, 2) == wire::integer(decoded.proto_type, 2, net),
            "the protocol type is the header's");
    require(bytes.substr(16, 4) == wire::integer(decoded.msg_len, 4, net),
            "the length is the header's");
    require(decoded.payload_size == bytes.size() - wire::header_size,
            "the payload is all that follows the header");
}

void check_beginning(const std::string &bytes, const frame &whole) {
    const std::string first = bytes.substr(0, wire::header_size);
    const std::vector<char> copy(first.begin(), first.end());
    const frame head = decode_header({copy.data(), copy.size()}, bytes.size());
    require(head.has_header == whole.has_header && head.net_order == whole.net_order &&
                head.compress_flag == whole.compress_flag && head.proto_type == whole.proto_type &&
                head.msg_len == whole.msg_len && head.payload_size == whole.payload_size,
            "the beginning tells what the whole record tells");
    require(head.content.empty(), "a header has no content");
    require(whole.compress_flag == zlib_compressed || head.problem == whole.problem,
            "a plain frame's problem shows in its header");
}

// Whether the payload is one stream of just the claimed size, as zlib itself reads it.
bool is_stream_of(const std::string &payload, size_t claimed) {
    std::vector<Bytef> room(claimed + 1);
    uLongf written = room.size();
    uLong read = payload.size();
    const int result =
        uncompress2(room.data(), &written, reinterpret_cast<const Bytef *>(payload.data()), &read);
    return result == Z_OK && written == claimed && read == payload.size();
}

void check_content(const std::string &payload, const frame &decoded) {
    if (decoded.compress_flag != zlib_compressed) {
        require(decoded.content == payload, "a plain frame's content is its payload");
        require(decoded.problem.empty() == (decoded.msg_len == payload.size()),
                "a plain frame is good when its length is that of its payload");
        return;
    }
    require(!decoded.net_order, "a compressed frame is in host order");
    require(decoded.content.size() <= decoded.msg_len, "no more is inflated than was claimed");
    require(!decoded.problem.empty() || decoded.content.size() == decoded.msg_len,
            "a good frame has what it claims");
    require(decoded.msg_len <= kze::gateway::inflate_bound || decoded.content.empty(),
            "what claims too much is not inflated");
    if (decoded.msg_len <= inflated_again) {
        require(decoded.problem.empty() == is_stream_of(payload, decoded.msg_len),
                "a compressed frame is good when it is a whole stream of the claimed size");
    }
}

void check_other_lengths(const std::string &bytes, const frame &decoded) {
    if (!decoded.problem.empty()) {
        return;
    }
    const frame cut = decode(bytes.substr(0, bytes.size() - 1));
    require(!cut.problem.empty(), "a good frame is whole");
    require(decoded.content.compare(0, cut.content.size(), cut.content) == 0,
            "of a cut frame the beginning is read");
    const frame longer = decode(bytes + 'x');
    require(!longer.problem.empty(), "nothing follows a good frame");
}

void check_frame(const std::string &bytes) {
    const frame decoded = decode(bytes);
    check_beginning(bytes, decoded);
    require(decoded.has_header ==
                (bytes.size() >= wire::header_size && bytes.compare(0, 4, "3200") == 0),
            "a frame begins with a header of the version");
    if (!decoded.has_header) {
        require(!decoded.problem.empty() && decoded.content.empty(), "what is no frame says why");
        return;
    }
    require_fields_of(bytes, decoded);
    check_content(wire::payload(bytes), decoded);
    check_other_lengths(bytes, decoded);
    const auto order =
        decoded.net_order ? kze::byte_order::big_endian : kze::byte_order::little_endian;
    require(kze::module_frame_problem(bytes, decoded.proto_type, order).empty() ==
                (decoded.problem.empty() && decoded.compress_flag == 0),
            "both readers of frames agree");
}

void require_framed(const std::string &bytes, const std::string &content, unsigned int compress,
                    unsigned int proto_type, bool net_order) {
    const frame decoded = decode(bytes);
    require(decoded.problem.empty() && decoded.content == content, "framing loses nothing");
    require(decoded.compress_flag == compress && decoded.proto_type == proto_type &&
                decoded.net_order == net_order && decoded.msg_len == content.size(),
            "a frame is read as it was made");
}

void check_round_trip(const std::string &content) {
    for (const bool net : {false, true}) {
        const auto order = net ? kze::byte_order::big_endian : kze::byte_order::little_endian;
        require_framed(plain_frame(content, net), content, 0, 1, net);
        require_framed(kze::module_frame(content, module_response, order), content, 0,
                       module_response, net);
    }
    if (!content.empty()) {
        require_framed(compressed_frame(content), content, zlib_compressed, 2, false);
    }
}

// ---- what is shown ----

// Nothing in a text that is shown moves a terminal's cursor or changes its colour.
void require_shown(const std::string &text) {
    require(kze::ctl::is_utf8(text), "what is shown is UTF-8");
    for (size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const bool high_control = byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0;
        require(byte >= 0x20 && byte != 0x7F && !high_control, "no control character is shown");
    }
}

// Throws, and so ends the program, where the value holds a text that is no UTF-8.
void require_sound(const json &value) {
    const std::string text = value.dump();
    require(json::parse(text) == value, "JSON is read as it is written");
    require(text.find('\n') == std::string::npos, "JSON is one line");
}

void check_event(const std::string &body) {
    const std::optional<json> event = kze::ctl::read_credible(body);
    if (!event) {
        return;
    }
    require_shown(kze::ctl::credible_text(*event));
    require((*event)["unknown_bytes"] <= body.size(), "no more is unknown than there is");
    for (const json &action : (*event)["actions"]) {
        const json &nodes = action["alert_nodes"];
        for (const json &process : action["processes"]) {
            const bool named =
                std::find(nodes.begin(), nodes.end(), process["node_id"]) != nodes.end();
            require(process["alert"] == named, "those that the action names are marked");
        }
    }
    const std::string unknown = wire::bytes(99, "unknown");
    std::optional<json> longer = kze::ctl::read_credible(body + unknown);
    require(longer.has_value(), "an unknown field is no harm");
    require((*longer)["unknown_bytes"] == (*event)["unknown_bytes"].get<size_t>() + unknown.size(),
            "an unknown field is counted");
    (*longer)["unknown_bytes"] = (*event)["unknown_bytes"];
    require(*longer == *event, "an unknown field changes nothing else");
}

// What a report is said to tell is what it tells.
void check_report(int type, const std::string &content) {
    const std::optional<kze::ctl::ioa_report> report = kze::ctl::read_ioa_report(type, content);
    if (!report) {
        return;
    }
    require_shown(kze::ctl::ioa_report_text(*report));
    const json told = json::parse(content);
    // By their digits: numbers of unlike signs compare as if they had none.
    require(told["agentId"].dump() == std::to_string(report->agent_id) &&
                told["rulesId"] == report->rules_id,
            "a report is told as it is");
    require(report->res.has_value() == (type == KZEMM_DATA_CTMIOA_RESULT) &&
                (!report->res || told["res"].dump() == std::to_string(*report->res)),
            "a result is told as it is");
}

// In a list, for which the journal may give no more than a record's beginning.
void check_rows(const kze::kept_record &record) {
    const size_t all = record.data.size();
    const std::set<size_t> given = {std::min(all, wire::header_size), std::min(all, size_t{80}),
                                    std::min(all, journal_beginning), all};
    for (const size_t known : given) {
        kze::kept_record entry = record;
        entry.data = record.data.substr(0, known);
        for (const kze::ctl::table::cell &cell : kze::ctl::record_row(entry)) {
            require_shown(cell.text);
        }
        require_sound(kze::ctl::record_json(entry));
    }
}

// Standard output is a text in memory meanwhile.
std::string printed(const kze::kept_record &record) {
    char *text = nullptr;
    size_t size = 0;
    FILE *const usual = stdout;
    stdout = open_memstream(&text, &size);
    require(stdout != nullptr, "there is memory for what is printed");
    kze::ctl::print_record(record, kze::ctl::output());
    fclose(stdout);
    stdout = usual;
    std::string all(text, size);
    free(text);
    return all;
}

void check_printed(const kze::kept_record &record) {
    const std::string text = printed(record);
    require(!text.empty() && text.back() == '\n', "whole lines are printed");
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        require_shown(text.substr(at, end - at));
        at = end + 1;
    }
}

std::string from_hexadecimal(const std::string &digits) {
    std::string bytes;
    for (size_t at = 0; at < digits.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

void require_content(const json &value, const std::string &content) {
    const size_t ways = value.count("text") + value.count("hex") + value.count("processes");
    require(ways == 1, "the content is told in one way");
    require(!value.contains("text") || value["text"] == content, "a text is the content");
    require(!value.contains("hex") || from_hexadecimal(value["hex"]) == content,
            "digits are the content");
    require(!value.contains("processes") || !value["processes"].empty(), "a list has processes");
}

}  // namespace

// The log, which is written to in good cases only.
extern "C" int error_output_check(int /* level */) {
    return 0;
}
extern "C" void error_output(int /* level */, const char * /* source_file */, int /* line */,
                             const char * /* format */, ...) {
    require(false, "nothing is logged as fatal");
}

json read_record(int type, const std::string &bytes) {
    static google::protobuf::LogSilencer silent;
    check_frame(bytes);
    check_round_trip(bytes);
    check_event(wire::payload(bytes));
    check_report(type, wire::payload(bytes));
    kze::kept_record record;
    record.data = bytes;
    record.id = 1;
    record.kind = type;
    record.size = static_cast<int64_t>(bytes.size());
    check_rows(record);
    check_printed(record);
    const json value = kze::ctl::whole_record_json(record);
    require_sound(value);
    const std::string content = kze::ctl::record_content(record);
    require(content == bytes || content == decode(bytes).content, "nothing else is a content");
    require_content(value, content);
    return value;
}

std::string record_bytes(const uint8_t *data, size_t size) {
    const std::string rest(reinterpret_cast<const char *>(data) + 1, size - 1);
    switch (data[0] >> 4 & 3) {
        case 1:
            return plain_frame(rest, false);
        case 2:
            return plain_frame(rest, true);
        case 3:
            return rest.empty() ? rest : compressed_frame(rest);
        default:
            return rest;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > longest_input) {
        return 0;
    }
    read_record(data[0] & 0x0F, record_bytes(data, size));
    return 0;
}
