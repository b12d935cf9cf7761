/* How the engine was told to answer a call, as it stands in requests and in the settings' file. */
#ifndef KZE_AGENT_ENGINE_ENGINE_ANSWER_H
#define KZE_AGENT_ENGINE_ENGINE_ANSWER_H

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "agent/engine/engine_protocol.h"

namespace kze::engine {

constexpr unsigned int delay_limit_ms = 600000;
constexpr unsigned int times_limit = 1000000;

/* How one client function is to be answered. */
struct call_answer {
    int code = 0;             /* what the function returns; 0 lets the call take its course */
    std::optional<int> value; /* what its callback or out-parameter gets in place of the usual */
    bool unwritten = false;   /* the out-parameter stays as the caller has set it */
    unsigned int delay_ms = 0;
    unsigned int times = 0; /* for how many calls; 0: until it is cleared */
    bool never = false;     /* the call gets no answer at all */
    /* What comes after the call: its callback, or the event that answers a coordinate order. */
    std::optional<unsigned int> callback_delay_ms;
    bool callback_never = false;
    std::optional<int> callback_type; /* the engine type that the callback is told */
    std::optional<int> for_type;      /* only calls with this first argument */
};

/*
 * Reads the members that an answer can have, which are those of answer_to_json and "refuse".
 * Returns what speaks against one of them, or against having them together for that call; empty
 * when nothing does. `out` is complete only then.
 */
std::string read_answer(engine_call call, const nlohmann::json &from, call_answer &out);

/* {"code":n,"delay_ms":n,"times":n,"never":b} and the other members where they are set. */
nlohmann::json answer_to_json(const call_answer &from);

/* How the version of one type of rules behaves when a rule file is loaded. */
struct version_rise {
    std::optional<std::string> to; /* the version after it, which may be lower; none: the file's */
    unsigned int after_ms = 0;
    bool never = false;
    unsigned int times = 0; /* for how many loads; 0: until it is cleared */
};

/* Reads "to", "after_ms", "never" and "times", which are those of rise_to_json, as read_answer. */
std::string read_rise(const nlohmann::json &from, version_rise &out);
nlohmann::json rise_to_json(const version_rise &from);

/* What speaks against a version that the engine is to report; empty when nothing does. */
std::string check_version(const std::string &key, const std::string &version);

/* ---- reading members of an object; each returns what speaks against one, or nothing ---- */

/* Whether the member is there and isn't null. */
bool has_member(const nlohmann::json &in, const char *key);
/* An optional whole number within bounds, an optional flag, a text that must be there. */
std::string read_number(const nlohmann::json &in, const char *key, std::int64_t low,
                        std::int64_t high, std::int64_t &out);
std::string read_flag(const nlohmann::json &in, const char *key, bool &out);
std::string read_text(const nlohmann::json &in, const char *key, std::string &out);
/* Finds a member that is none of the known ones. */
std::string find_unknown(const nlohmann::json &in, std::initializer_list<const char *> known);

}  // namespace kze::engine

#endif
