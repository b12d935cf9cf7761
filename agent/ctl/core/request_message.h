/* The messages of the plug-in's management requests: what goes there and what comes back. */
#ifndef KZE_AGENT_CTL_CORE_REQUEST_MESSAGE_H
#define KZE_AGENT_CTL_CORE_REQUEST_MESSAGE_H

#include <optional>
#include <string>
#include <string_view>

namespace kze::ctl {

/* The plug-in's endpoint. */
constexpr char request_endpoint[] = "agt_rpt";

/* What can be requested. Constant. */
struct request_kind {
    const char *name;
    unsigned int cmd;
    bool framed; /* the request is a frame: a module header and the body */
    const char *help;
};

constexpr request_kind linkage_request{"linkage", 1004, false, "Orders a linkage"};
constexpr request_kind append_request{"append", 1005, false, "Orders an append"};
constexpr request_kind hunting_request{"hunting", 1002, true, "Orders a hunting"};
constexpr request_kind ioa_request{"ioa", 102, true, "Pushes a set of custom IOA rules"};
constexpr request_kind lkganal_request{"lkganal", 1010, false, "Orders a linkage analysis"};

/* The body behind a module header: version "3200", proto_type 1, numbers big-endian. */
std::string request_frame(std::string_view body);

/* The JSON text of a rule set. Empty when one of the two isn't UTF-8. */
std::string rule_set_text(const std::string &rules_id, const std::string &rules);

/* The code in a response, or why there is none. */
struct response_code {
    std::optional<int> code;
    std::string problem;
};

/* Reads a response: a frame of proto_type 2, big-endian, around {"resp_code":N, "resp_msg":""}. */
response_code read_response(std::string_view frame);

/* "KZEMM_TRACE_OK" and so on; null for a number without a name. */
const char *response_name(int code);
/* What such a code says, for people; null for a number without a name. */
const char *response_meaning(int code);

}  // namespace kze::ctl

#endif
