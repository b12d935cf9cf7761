/*
 * Configuration modules: the requests for them and their answers. State that outlives the worker is
 * kept at file level, since an answer finds its way by the module's name alone.
 *
 * Everything here runs on the worker thread, but for engine_upd_by_data_cb.
 */
#ifndef KZEMDLMGR_PLUGIN_KZEMM_WORK_MODULE_CONFIG_H
#define KZEMDLMGR_PLUGIN_KZEMM_WORK_MODULE_CONFIG_H

#include <memory>

#include "engine/qd_client.h"
#include "vrdaux.h"
#include "vrdipc.h"

// ---- requests (kzemm_work_module_config.cpp) ----

// Asks the configuration service at `addr` for a module. The callback gets `module` as its last
// argument, so that text must outlive the request. A request that went out gives a positive number,
// one that did not 0 or less.
int handle_cfg_msg(vrd_ipc_st *ipc, const vrd_addr_st *addr, const char *module,
                   vrd_ipc_reply_cb callback);

// The same on an endpoint and an address of its own, which are made once and kept, for callers that
// have none. The answer goes to on_engine_cfg_response.
void retry_request_cfg(char *module);

// Whether a change notification names a module: 0 when it does, else -1.
int cfg_msg_has_module(const char *data, unsigned int len, const char *key, unsigned int key_len);

// ---- answers (kzemm_work_module_config.cpp) ----

struct xmsg_deleter {
    void operator()(xmsg *message) const { xmsg_release(message); }
};
using xmsg_ptr = std::unique_ptr<xmsg, xmsg_deleter>;

// The answer to a request, from what its callback got; null when there is none.
xmsg_ptr open_cfg_answer(int result, const char *data, unsigned int len);

// A field's text, which belongs to the answer; null when it has no such field. Logs that.
const char *get_cfg_field(const xmsg_ptr &answer, const char *key);

// ---- answers with rules (kzemm_work_rule_push.cpp) ----

// The answer for "abnormal_login", "anti_bfa" or "trust_ip", by user: hands its rules to the
// engine. A vrd_ipc_reply_cb.
void on_engine_cfg_response(int result, unsigned int cmd, const char *data, unsigned int len,
                            void *user);

// The engine's verdict on rules that it took. Not looked at. On a thread of the engine client.
void engine_upd_by_data_cb(_engine_type type, int ret, void *user);

#endif
