/*
 * Auto disposal of credible events: the event goes to the gateway, marked, and the processes it
 * names go to the local disposal service as one request.
 *
 * No state outlives a delivery but the context of a request in flight; any thread may call. A
 * delivery runs on a thread of the engine client, the reply to a request where the IPC layer runs
 * its replies. A request that the IPC layer refuses, its endpoint being closed, gets no reply, and
 * its memory stays behind. Where memory runs out, the step that needed it fails as it does for any
 * other reason.
 */
#ifndef KZEMDLMGR_DATAPATH_KZEMM_DISPOSE_H
#define KZEMDLMGR_DATAPATH_KZEMM_DISPOSE_H

#include <string>

#include "new/kzerespdsppl_re.pb.h"
#include "plugin/kzemm_data_conv.h"
#include "trace.pb.h"
#include "vrdipc.h"

using kzav_trace::KZAV_DISPOSAL_STATE;
using kzav_trace::kzav_trace_info;

// A request to the disposal service until its last reply, which releases it. Endpoint and address
// are the worker's.
struct auto_dispose_ipc_ctx {
    vrd_ipc_st *ipc;
    vrd_addr_st *addr;
    char *data;  // the framed request, from malloc; owned
    unsigned int len;
    unsigned int retry;  // tries beyond the first
};

// Handles one event, a frame in host order, which stays the caller's. True when it went to the
// gateway, and to the service where its scene's switch is on; false when less than that was done,
// at worst nothing.
bool do_auto_dispose(char *data, unsigned int len, vrd_ipc_st *ipc, vrd_addr_st *addr);

// Whether the message is a credible event with a rule of some scene.
bool check_auto_dispose_data_valid(kzav_trace_info &info);
// Whether the switch of the event's scene is on.
bool check_auto_dispose_enable(kzav_trace_info &info);
// Sets the event's state and tells the bytes of the whole message, which is then to be serialized
// with the sizes that it keeps. False when no buffer of the message library can hold them.
bool set_data_dispose_state(kzav_trace_info &info, KZAV_DISPOSAL_STATE state, size_t &size);
// Sends the event, marked as being disposed of, under a copy of this header. What the gateway says
// to it doesn't count.
bool send_event_to_thtgw(kzav_trace_info &info, const _module_header *header);
// Sends the request made of the event under a copy of this header. True when it was built and
// handed to the IPC layer; it is tried four times at most.
bool send_event_to_autodsp(const kzav_trace_info &info, const _module_header *header,
                           vrd_ipc_st *ipc, vrd_addr_st *addr);
// Serializes the request to the disposal service into out. One that no IPC message can carry isn't
// built: it grows with the product of nodes and processes, so that a small event could ask for all
// of the host's memory.
bool build_auto_dispose_pbdata(const kzav_trace_info &info, std::string &out);
// The end of a try; ctx is the auto_dispose_ipc_ctx. A vrd_ipc_reply_cb.
void on_auto_dispose_cb(int err, unsigned int cmd, const char *data, unsigned int len, void *ctx);

#endif
