/*
 * Custom IOA rules: what the messages to the console are made of. How a set of rules goes to the
 * engine, and its outcome to the console, is told by the members of kzemm_task.
 */
#ifndef KZEMDLMGR_DATAPATH_KZEMM_CUSTOM_IOA_H
#define KZEMDLMGR_DATAPATH_KZEMM_CUSTOM_IOA_H

#include <string>

// The outcome of one update of the custom IOA rules.
struct _customioa_info {
    int ret;  // the engine's value at first, the console's after ctmioa_ret_trans
    std::string rule_id;
};

// Builds the text of a message about the custom IOA rules: this host's number, the result unless
// `result` is null, the identifier. 0 with a text that the caller releases with free, else -1.
int build_ctmioa_msg(const int *result, const std::string &rule_id, char **out);

#endif
