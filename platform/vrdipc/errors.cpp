#include "vrdipc.h"

const char *vrd_ipc_strerror(int code) {
    switch (code) {
        case VRD_IPC_OK:
            return "success";
        case VRD_IPC_E_ARGUMENT:
            return "invalid argument";
        case VRD_IPC_E_HANDLE:
            return "no such endpoint";
        case VRD_IPC_E_ADDRESS:
            return "no such address";
        case VRD_IPC_E_TOO_LARGE:
            return "message too large";
        case VRD_IPC_E_NO_MEMORY:
            return "out of memory or descriptors";
        case VRD_IPC_E_NO_PEER:
            return "peer not there";
        case VRD_IPC_E_PEER_GONE:
            return "peer went away";
        case VRD_IPC_E_FORBIDDEN:
            return "peer of another user";
        case VRD_IPC_E_TIMEOUT:
            return "no answer in time";
        case VRD_IPC_E_QUEUE_FULL:
            return "too much waits for the peer";
        case VRD_IPC_E_NO_HANDLER:
            return "peer takes no requests";
        case VRD_IPC_E_BUSY:
            return "peer has too many unanswered requests";
        case VRD_IPC_E_NO_REQUEST:
            return "no such request";
        case VRD_IPC_E_CLOSED:
            return "endpoint closed";
        default:
            return "unknown error";
    }
}
