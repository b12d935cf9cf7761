/*
 * The one way of engine data to the gateway. Free of state; any thread may call.
 */
#ifndef KZEMDLMGR_DATAPATH_KZEMM_GATEWAY_H
#define KZEMDLMGR_DATAPATH_KZEMM_GATEWAY_H

#include "engine/qd_client.h"

// Hands data to the gateway, once; what the gateway refuses is lost. 0 when it was taken, else -1.
// Takes over the data on every way out: origin frames go to free, credible events stay the
// caller's, anything else, also of a type that does not exist, goes back to the engine client.
int send_data_via_gw(KZEMM_DATA_TYPE type, char *data, unsigned int len);

// Compresses origin data and frames it. 0 with the frame, which the caller releases with free, or
// -1 with both out-parameters left as they were. The data stays the caller's.
int convert_origin_data(const char *data, unsigned int len, char **frame_out,
                        unsigned int *frame_len_out);

#endif
