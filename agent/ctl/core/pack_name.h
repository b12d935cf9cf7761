/*
 * How the plug-in reads the names in the rule directory, stated from outside: for those who make,
 * drop and watch packs. docs/operations.md tells it in words.
 */
#ifndef KZE_AGENT_CTL_CORE_PACK_NAME_H
#define KZE_AGENT_CTL_CORE_PACK_NAME_H

#include <optional>
#include <string>
#include <vector>

#include "agent/common/rule_file.h"

namespace kze {

constexpr char rule_directory[] = "@/../hlthreat_rule";
constexpr char ioa_pack_name[] = "ioa_linux_en.tgz";
constexpr char md_pack_name[] = "md_linux.tgz";
constexpr char ioa_rule_file_name[] = "linux_kzedbd.cfg";
constexpr char md_rule_file_name[] = "linux_kzemsi.ptn";

/* Of IOC rules, ordered by the first number, then the second. */
struct ioc_version {
    int first = 0;
    int second = 0;
};

inline bool operator<(const ioc_version &a, const ioc_version &b) {
    return a.first != b.first ? a.first < b.first : a.second < b.second;
}
inline bool operator==(const ioc_version &a, const ioc_version &b) {
    return a.first == b.first && a.second == b.second;
}

/* "5.1" */
std::string version_text(const ioc_version &version);
/* As the plug-in reads the engine's answer; nothing without a dot. */
std::optional<ioc_version> engine_ioc_version(const std::string &text);

enum class pack_place { none, ioc, ioa_arrival, ioa_backup, md_arrival, md_backup };

/* What a name is taken for. An IOC pack may fit one form, the other, both or none. */
struct pack_name {
    std::string name;
    pack_place place = pack_place::none;
    std::optional<ioc_version> full;
    std::optional<ioc_version> incremental;

    /* Whether the plug-in ever does anything with it. */
    bool taken() const {
        return place != pack_place::none && (place != pack_place::ioc || full || incremental);
    }
};

pack_name read_pack_name(const std::string &name);

/* The capability whose switch decides on it; nothing for a name that isn't a pack's. */
std::optional<rule_kind> pack_kind(const pack_name &pack);

/* "full 5.0", "incremental 5.1", "IOA", "MD backup", "no pack"; for a person. */
std::string pack_form_text(const pack_name &pack);

/* What a person who gives this name to a pack should know; empty when it is what it looks like. */
std::vector<std::string> pack_name_warnings(const std::string &name);

/* "ioc_full_5.0", "ioc_inc_[4.9-5.0]": what a pack and its rule file are called. The parts must be
 * free of "-", "]", ".", "_" other than in versions, and `from` of the letters f, u and l. */
std::string ioc_full_base_name(const std::string &version);
std::string ioc_incremental_base_name(const std::string &from, const std::string &version);

enum class pack_verdict { ignored, goes, too_old, obsolete, passed_over };

/* "ignored", "goes", "too old", "obsolete", "passed over" */
const char *verdict_text(pack_verdict verdict);

struct pack_judgement {
    pack_name pack;
    pack_verdict verdict = pack_verdict::ignored;
    unsigned int order = 0; /* among the IOC packs that go, from 1 */
    std::string reason;
};

/*
 * What the plug-in will do at its next look, for names in the directory's order. Without the
 * engine's IOC version no pack counts as too old. The order of the result is that of the names.
 */
std::vector<pack_judgement> judge_packs(const std::vector<std::string> &names,
                                        const std::optional<ioc_version> &engine);

}  // namespace kze

#endif
