/* Following the rule directory and the logs: what becomes of each pack. */
#ifndef KZE_AGENT_CTL_PACK_WATCHER_H
#define KZE_AGENT_CTL_PACK_WATCHER_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "agent/ctl/log_files.h"
#include "agent/packs/pack_fate.h"
#include "agent/packs/pack_name.h"

namespace kze::ctl {

struct timed_event {
    std::string time; /* local, as the logs write it */
    pack_event event;
};

/* Follows the rule directory, the relay's log and the host's. One thread at a time. */
class pack_watcher {
  public:
    /* Begins with what the relay's log tells behind a mark. */
    explicit pack_watcher(log_mark after);
    /* Leaves out what happened before. */
    static pack_watcher from_now();

    /* What has happened since the last look. */
    std::vector<timed_event> look();
    /* Whether no pack is left that the plug-in would ever take. */
    bool is_empty() const { return packs_there_ == 0; }

  private:
    pack_watcher(log_mark after, std::string host_from);

    struct record {
        std::string time;
        std::string text;
        bool is_relays = false;
    };

    void read(log_reader &reader, bool is_relays, std::vector<record> &into) const;
    std::vector<timed_event> logged();
    std::vector<timed_event> arrived(const std::map<std::string, ino_t> &before);
    std::vector<timed_event> vanished(const std::map<std::string, ino_t> &before);
    std::string place_in_order(const std::string &name) const;
    void note(const pack_event &event);
    bool is_for_nobody(const pack_event &event) const;
    void add_version(pack_event &event) const;

    log_reader relay_;
    log_reader host_;
    const std::string host_from_; /* later records count, local time */
    pack_log log_;
    std::map<std::string, ino_t> there_;
    std::map<std::string, pack_judgement> judged_; /* what is there */
    std::size_t packs_there_ = 0;
    std::set<std::string> ended_;   /* the log tells their end; they need not be gone yet */
    std::set<std::string> backups_; /* names given by the plug-in, no news */
    bool is_first_look_ = true;
};

}  // namespace kze::ctl

#endif
