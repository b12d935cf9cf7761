/*
 * The engine's rule files, one format for each of its capabilities: what `kzectl pack make` writes
 * and the engine reads. agent/docs/packs.md shows each of them.
 */
#ifndef KZE_AGENT_COMMON_RULE_FILE_H
#define KZE_AGENT_COMMON_RULE_FILE_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kze {

/* The values are the engine numbers of engine/qd_client.h. */
enum class rule_kind { ioc = 1, ioa = 2, md = 3 };

/* What a reader accepts; more is a problem. */
constexpr std::size_t rule_file_bytes_bound = std::size_t{16} * 1024 * 1024;
constexpr std::size_t rules_bound = 100000;
constexpr std::size_t rule_bytes_bound = 1024;

struct rule_file {
    rule_kind kind = rule_kind::ioc;
    /* IOC: "<major>.<minor>", each 0 to 2147483647. IOA and MD: a number from 0 to 4294967295.
     * Decimal digits without leading zeros. */
    std::string version;
    /* Of IOC alone: whether the rules replace those held (true) or come on top of them. */
    bool full = true;
    /* In the file's order: an indicator "<type>:<value>", a rule, or a pattern "<name>:<hex>". */
    std::vector<std::string> rules;
};

/*
 * Reads a regular file or parses a whole text of that kind. On failure the result is empty and
 * problem says where and why, as in "line 3: not a pattern: ...", with the path in front when a
 * file was read. The problem holds no control characters. Any thread.
 */
std::optional<rule_file> read_rule_file(rule_kind kind, const std::string &path,
                                        std::string &problem);
std::optional<rule_file> parse_rule_file(rule_kind kind, std::string_view text,
                                         std::string &problem);

/* Reads a regular file of at most rule_file_bytes_bound bytes; the problem as above. */
std::optional<std::string> read_rule_text(const std::string &path, std::string &problem);

/* What speaks against a version or a rule of that kind; empty when nothing does. */
std::string version_problem(rule_kind kind, const std::string &version);
std::string rule_problem(rule_kind kind, const std::string &rule);

/* The text of the file, which parse_rule_file reads as the same. The parts must be sound. */
std::string rule_file_text(const rule_file &rules);

/* "IOC", "IOA" or "MD". */
const char *rule_kind_name(rule_kind kind);

}  // namespace kze

#endif
