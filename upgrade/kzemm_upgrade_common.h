/*
 * What the source files of the upgrade relay share: paths, the deletion of files, the answers of
 * the engine.
 */
#ifndef KZEMDLMGR_UPGRADE_KZEMM_UPGRADE_COMMON_H
#define KZEMDLMGR_UPGRADE_KZEMM_UPGRADE_COMMON_H

// Any path of the relay; a longer one is cut.
using upgrade_path = char[1024];

// The directory where the packs lie and are unpacked.
constexpr char rule_directory[] = "@/../hlthreat_rule/";

// How an update is waited for: five minutes in all.
constexpr int poll_attempts = 60;
constexpr unsigned int poll_pause_us = 5000000;

// What s_md_last_result is beside 0 and the engine's own results.
constexpr int md_update_pending = -16;
constexpr int md_wrong_engine = -5;
constexpr int md_call_failed = -1;

// Expands a leading "@".
void expand_path(upgrade_path &out, const char *path);
// "directory/name", whatever the directory ends in.
void join_path(upgrade_path &out, const char *directory, const char *name);
// Deletes a file that is there. A failure only costs a log line.
void delete_if_present(const char *path);

// Whether this code of an update call tells that the engine can't take it now, so that the pack is
// worth keeping.
constexpr bool is_refused_for_now(int code) {
    return code == -8 || code == -14;
}

#endif
