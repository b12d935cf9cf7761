/* What became of the packs, from the rule directory and from what the engine tells of its loads. */
#ifndef KZE_AGENT_CTL_CORE_PACK_FATE_H
#define KZE_AGENT_CTL_CORE_PACK_FATE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/ctl/core/pack_name.h"

namespace kze {

enum class fate {
    fresh,           /* has come into the directory */
    waiting,         /* lies there, for the reason given */
    renamed,         /* IOA, MD: got a backup's name */
    in_work,         /* the engine has taken its rules */
    applied,         /* confirmed and deleted */
    obsolete,        /* deleted before its turn: a full pack is at or above it */
    too_old,         /* deleted: the engine is at or above it */
    replaced,        /* by another file of its name, or as a backup by a new arrival */
    unpack_failed,   /* stays: tar can't read it */
    refused_kept,    /* by the engine; stays */
    refused_dropped, /* by the engine; deleted */
    not_confirmed,   /* the engine's version didn't get there; stays */
    gone,            /* nothing tells why */
};

/* For a person and in JSON, in the order of the fates. */
constexpr const char *fate_texts[] = {
    "new",
    "waiting",
    "renamed",
    "in work",
    "applied",
    "obsolete",
    "too old",
    "replaced",
    "unpack failed",
    "refused and kept",
    "refused and dropped",
    "not confirmed",
    "gone",
};
inline const char *fate_text(fate what) {
    return fate_texts[static_cast<std::size_t>(what)];
}

/* All times are microseconds since 1970. */
struct pack_event {
    std::int64_t time_us = 0;
    fate what = fate::waiting;
    rule_kind kind = rule_kind::ioc;
    std::string pack;   /* its file name, IOA and MD: as it came; empty for all of its kind */
    std::string reason; /* for a person; may be empty */
    std::optional<std::string> engine; /* its version of these rules, where it tells */
    std::optional<int> code;           /* of the engine's refusal */
};

/* A file in the rule directory. */
struct rule_directory_file {
    std::string name;
    ino_t inode = 0;
    std::int64_t modified_us = 0; /* the content */
    std::int64_t changed_us = 0;  /* the name, too: since when it lies there */
};

/* What the engine tells of one call to load a file from the rule directory. */
struct engine_load {
    std::int64_t time_us = 0; /* tells it from the others */
    rule_kind kind = rule_kind::ioc;
    std::string file;            /* its name */
    std::optional<int> code;     /* nothing: the engine gave no answer */
    std::string before;          /* the engine's version by then */
    std::string after;           /* to which it rose; empty while it hasn't */
    std::optional<int> callback; /* MD: what the engine called back with */
};

/* All that there is to see at one moment. */
struct pack_snapshot {
    std::int64_t time_us = 0;               /* from before the directory was read */
    std::vector<rule_directory_file> files; /* in the directory's order */
    bool has_engine = false;                /* it answered, after the directory was read */
    std::int64_t engine_since_us = 0;
    std::map<rule_kind, std::string> versions; /* the engine's */
    std::set<rule_kind> off;                   /* capabilities that are switched off in it */
    std::vector<engine_load> loads;            /* in the order of time */
    std::int64_t interval_us = 0;              /* between two looks of the plug-in */
};

/* Tells the packs' fates, one snapshot after the other. One thread at a time. */
class pack_follower {
  public:
    /* Why a pack of the directory can't be unpacked; empty when it can. */
    using unpack_check = std::function<std::string(const std::string &pack)>;

    /* What the engine did up to `after_us` isn't told. */
    pack_follower(std::int64_t after_us, unpack_check check)
        : after_us_(after_us), check_(std::move(check)) {}

    /* What has happened since the last one. */
    std::vector<pack_event> look(pack_snapshot now);
    /* Whether no pack is left that the plug-in would ever take. */
    bool is_empty() const;

  private:
    struct followed_load {
        engine_load load;
        std::optional<fate> end;
    };
    struct pack_file {
        rule_directory_file file;
        pack_judgement judged;
    };
    using pack_files = std::map<std::string, pack_file>;

    void tell(fate what, rule_kind kind, const std::string &pack, const std::string &reason);
    void tell_load(fate what, const engine_load &load, std::int64_t time_us);
    pack_files files_now() const;
    void follow_loads();
    std::optional<fate> end_of(const engine_load &load) const;
    std::optional<fate> end_of_ioc(const engine_load &load) const;
    std::optional<fate> end_of_ioa(const engine_load &load) const;
    std::optional<fate> end_of_md(const engine_load &load) const;
    std::string version_by(const engine_load &load) const;
    bool lies_there(const std::string &name, const engine_load &load) const;
    bool is_last(const engine_load &load) const;
    bool is_busy(rule_kind kind) const;
    const followed_load *load_of(const pack_file &pack) const;
    bool is_told_by_load(const pack_file &pack) const;
    void compare(const pack_files &before);
    void appeared(const pack_file &pack, const pack_files &before);
    void vanished(const pack_file &pack, const pack_files &before);
    std::string place_in_order(const pack_judgement &judged) const;
    void tell_hold_ups();
    void tell_left_behind();
    bool is_left_behind(const pack_file &pack) const;

    const std::int64_t after_us_;
    const unpack_check check_;
    pack_snapshot now_;
    std::vector<pack_event> events_;              /* of the look in work */
    std::map<std::int64_t, followed_load> loads_; /* by time */
    pack_files there_;
    std::map<rule_kind, std::string> hold_ups_; /* why no pack of this kind is taken, as told */
    std::set<std::string> left_behind_;         /* told of as such */
    bool is_first_look_ = true;
};

}  // namespace kze

#endif
