/* What became of the packs in the rule directory, told from what the plug-in logs about them. */
#ifndef KZE_AGENT_PACKS_PACK_FATE_H
#define KZE_AGENT_PACKS_PACK_FATE_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/packs/rule_file.h"

namespace kze {

enum class fate {
    fresh,           /* has come into the directory */
    waiting,         /* lies there, for the reason given */
    renamed,         /* IOA, MD: got a backup's name */
    in_work,         /* unpacked, or handed to the engine */
    applied,         /* confirmed and deleted */
    obsolete,        /* deleted before its turn: a full pack is at or above it */
    too_old,         /* deleted: the engine is at or above it */
    replaced,        /* by another file of its name, or as a backup by a new arrival */
    unpack_failed,   /* stays */
    refused_kept,    /* by the engine; stays */
    refused_dropped, /* by the engine; deleted */
    not_confirmed,   /* the engine's version didn't get there; stays */
    gone,            /* somebody else took it away */
};

constexpr fate all_fates[] = {
    fate::fresh,         fate::waiting,      fate::renamed,         fate::in_work,
    fate::applied,       fate::obsolete,     fate::too_old,         fate::replaced,
    fate::unpack_failed, fate::refused_kept, fate::refused_dropped, fate::not_confirmed,
    fate::gone,
};

/* "new", "waiting", ... "refused and kept" */
const char *fate_text(fate what);

/* Whether a pack of that name isn't in the directory any more, or not the same one. */
bool is_end(fate what);

struct pack_event {
    fate what = fate::waiting;
    rule_kind kind = rule_kind::ioc;
    std::string pack;                  /* its file name; empty for whatever waits of this kind */
    std::string reason;                /* for a person; may be empty */
    std::optional<std::string> engine; /* its version of these rules now, where the log tells */
    std::optional<int> code;           /* of the engine's refusal */
};

/*
 * Reads the records of the relay's log and, for the end of MD updates, of the host's, in the order
 * of time. One thread at a time.
 */
class pack_log {
  public:
    /* The text of one record of the relay's thread. */
    std::vector<pack_event> relay_record(const std::string &text);
    /* The text of one record of any other thread. */
    std::vector<pack_event> host_record(const std::string &text);

    /* Milliseconds between two looks at the directory; 0 before the log tells. */
    unsigned int period_ms() const { return period_ms_; }

  private:
    bool pass_record(const std::string &text);
    bool ioc_record(const std::string &text);
    bool arrival_record(const std::string &text);
    bool ioa_record(const std::string &text);
    bool md_record(const std::string &text);
    bool unpack_record(const std::string &text);
    void switches(const std::string &text);
    void deleted(const std::string &path);
    void refused(int code);
    void tell(fate what, const std::string &pack, const std::string &reason);

    std::vector<pack_event> events_; /* of the record in work */
    rule_kind kind_ = rule_kind::ioc;
    std::string pack_;              /* in work */
    std::string waiting_backup_;    /* found in the directory */
    std::set<std::string> settled_; /* in this pass: their deletion is no news */
    std::map<rule_kind, bool> on_;  /* the switches at the last look */
    std::string ioc_engine_;        /* the engine's versions as last told */
    std::string ioa_engine_;
    bool is_handed_ = false;  /* the IOA pack in work; the engine has taken it */
    bool replaces_ = false;   /* a new arrival is about to replace the backup */
    std::string md_pending_;  /* handed over, and the engine hasn't called back */
    bool md_dropped_ = false; /* its tenth failure was just told */
    unsigned int period_ms_ = 0;
};

}  // namespace kze

#endif
