/* libvrdipc.so: local messages between the agent's services. */
#ifndef KZEMDLMGR_PLATFORM_INCLUDE_VRDIPC_H
#define KZEMDLMGR_PLATFORM_INCLUDE_VRDIPC_H

#define VRDIPC_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/*
 * An endpoint is a named place that takes requests and one-way messages, and from which they are
 * sent. It is bound to one event loop (vrdcl_ev.h), that of the thread which creates it, or, when
 * that thread has none, that of the oldest living isolated thread. All callbacks run on the loop's
 * thread, one at a time, inside cl_event_loop_once(); what vrd_ipc_destroy() and the loop's end
 * complete is the one exception.
 *
 * A program that only asks needs no thread for it. Its main thread calls cl_ev_loop_nowait(0),
 * which gives it a loop, makes an endpoint with vrd_ipc_create_temp() and an address with
 * vrd_addr_create(), calls vrd_ipc_make_request(), and cl_event_loop_once() until its callback ran.
 *
 * Handles are looked up, never followed, and their values are not used again: a call on a destroyed
 * handle, from any thread, gives VRD_IPC_E_HANDLE. All functions may be called from any thread and
 * from callbacks. Bodies that go in are copied. `data` may be null when `size` is 0.
 *
 * Only root and the process's own effective user are talked to. Endpoints lie in "@/../run", where
 * "@" is the directory of the running program.
 */

typedef struct vrd_ipc_st vrd_ipc_st;   /* an endpoint */
typedef struct vrd_addr_st vrd_addr_st; /* a peer's address */

/* Results. All failures are below 0; vrd_ipc_strerror() has their texts. */
enum {
    VRD_IPC_OK = 0,
    VRD_IPC_E_ARGUMENT = -1,    /* a null callback, or no data with a size above 0 */
    VRD_IPC_E_HANDLE = -2,      /* no such endpoint: never made, or destroyed */
    VRD_IPC_E_ADDRESS = -3,     /* no such address: never made, destroyed, its connection has ended,
                                   or it belongs to a connection of another endpoint */
    VRD_IPC_E_TOO_LARGE = -4,   /* a body above VRD_IPC_MAX_BODY */
    VRD_IPC_E_NO_MEMORY = -5,   /* no memory, or no descriptors */
    VRD_IPC_E_NO_PEER = -6,     /* nobody has the peer's name, or doesn't take the connection */
    VRD_IPC_E_PEER_GONE = -7,   /* the connection ended */
    VRD_IPC_E_FORBIDDEN = -8,   /* the peer belongs to another user */
    VRD_IPC_E_TIMEOUT = -9,     /* no answer within the time limit */
    VRD_IPC_E_QUEUE_FULL = -10, /* VRD_IPC_MAX_QUEUED bytes wait for the peer already */
    VRD_IPC_E_NO_HANDLER = -11, /* the peer has no callback for requests */
    VRD_IPC_E_BUSY = -12,       /* the peer has too many unanswered requests of ours */
    VRD_IPC_E_NO_REQUEST = -13, /* no such request, or it was answered before */
    VRD_IPC_E_CLOSED = -14,     /* the endpoint is being destroyed, or its loop has ended */
};

enum {
    VRD_IPC_MAX_BODY = 16 * 1024 * 1024,   /* bytes of one message's body */
    VRD_IPC_MAX_QUEUED = 64 * 1024 * 1024, /* bytes that may wait for one address */
    VRD_IPC_DEFAULT_LIMIT = 60,            /* seconds; what a time limit of 0 means */
};

/*
 * A request has come. `ipc` and `addr` are the endpoint and the requester. `data` is never null,
 * has `len` bytes and no terminating 0, and is valid during the callback.
 *
 * It is answered with vrd_ipc_response(), in the callback or later, on any thread: keep `addr` and
 * `request_id` for that. `addr` belongs to the requester's connection: it stays valid until that
 * ends, after which its use gives VRD_IPC_E_ADDRESS, and is not to be destroyed. It also serves
 * vrd_ipc_send() and vrd_ipc_make_request() on this endpoint. A requester may have 16,384 requests
 * unanswered; further ones fail with VRD_IPC_E_BUSY.
 */
typedef void (*vrd_ipc_request_cb)(vrd_ipc_st *ipc, vrd_addr_st *addr, unsigned int request_id,
                                   unsigned int cmd, const char *data, unsigned int len,
                                   void *context);

/* A one-way message has come. The arguments are as above. */
typedef void (*vrd_ipc_recv_cb)(vrd_ipc_st *ipc, vrd_addr_st *addr, unsigned int cmd,
                                const char *data, unsigned int len, void *context);

/*
 * A request has ended, with `status` 0 and the answer, or with a negative `status`, the request's
 * own `cmd`, null and 0. `data` is otherwise as above. It runs once for each request that
 * vrd_ipc_make_request() took.
 */
typedef void (*vrd_ipc_reply_cb)(int status, unsigned int cmd, const char *data, unsigned int len,
                                 void *context);

/*
 * Creates the endpoint `name`: 1 to 64 of the characters A-Z a-z 0-9 _ - . without a dot in front.
 * `flags` is kept and has no meaning yet. Makes "@/../run" if it is missing. The caller owns the
 * handle, until vrd_ipc_destroy(). Null, with the reason in the log, when the name is bad or a
 * living endpoint has it, when there is no loop, or the socket can't be made. The directory must
 * belong to root or our own effective user: one of our own is given the mode 0700, one of root's
 * that others may write to is refused. What a dead process left behind under that name is replaced.
 */
VRDIPC_API vrd_ipc_st *vrd_ipc_create(const char *name, int flags);

/*
 * The same with a name of its own each time, of which `name` is the beginning. Nobody can address
 * it by that name, and it leaves no file: peers reach it through the address they see in their
 * callbacks.
 */
VRDIPC_API vrd_ipc_st *vrd_ipc_create_temp(const char *name, int flags);

/*
 * Closes an endpoint. Its pending requests, and those made meanwhile (by these callbacks or by
 * other threads), are completed with VRD_IPC_E_CLOSED on the calling thread before it returns. Of
 * those made meanwhile 65,536 are taken; then vrd_ipc_make_request() refuses, so that it ends. What
 * waits for slow peers is dropped. Afterwards no callback of the endpoint runs, except one that
 * destroys its own endpoint. Another thread waits for a callback that is just running, so it must
 * not hold what that callback waits for. When one thread destroys an endpoint that another one is
 * destroying already, it waits for the other, unless it is inside a callback of the endpoint: then
 * it returns at once, and the other completes what is pending. Null and destroyed handles are
 * ignored. In a forked child the parent's endpoints are left to the parent: the handle is given up,
 * and nothing else happens.
 */
VRDIPC_API void vrd_ipc_destroy(vrd_ipc_st *ipc);

/*
 * Makes an address of the endpoint `name` of any process; whether there is one shows when it is
 * used. All addresses of one name are alike, and requests outlive the address they were made with.
 * `a` and `b` are kept and have no meaning yet. The caller owns the handle, until
 * vrd_addr_destroy(). Null when the name is bad.
 */
VRDIPC_API vrd_addr_st *vrd_addr_create(const char *name, int a, int b);

/* Releases an address. Null, destroyed handles and addresses that came from a callback are
 * ignored. */
VRDIPC_API void vrd_addr_destroy(vrd_addr_st *addr);

/*
 * Sets the callback for requests, in place of the one before; null removes it. Without one,
 * requests fail with VRD_IPC_E_NO_HANDLER at the requester's end. `context` stays the caller's. 0,
 * VRD_IPC_E_HANDLE or VRD_IPC_E_CLOSED.
 */
VRDIPC_API int vrd_ipc_on_request(vrd_ipc_st *ipc, vrd_ipc_request_cb callback, void *context);

/* Sets the callback for one-way messages in the same way. Without one they are dropped. */
VRDIPC_API int vrd_ipc_msg_recv(vrd_ipc_st *ipc, vrd_ipc_recv_cb callback, void *context);

/*
 * Answers the request `request_id` of `addr`, once. 0 when the answer is on its way, or a negative
 * code. After VRD_IPC_E_TOO_LARGE and VRD_IPC_E_QUEUE_FULL the request is still to be answered.
 */
VRDIPC_API int vrd_ipc_response(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int request_id,
                                unsigned int cmd, const char *data, unsigned int size);

/*
 * Sends a request. With the result 0, `callback` runs exactly once, never from inside this call:
 * when the answer comes, when `time_limit` seconds have passed (0: VRD_IPC_DEFAULT_LIMIT), or when
 * the request can't be sent or answered, VRD_IPC_E_TOO_LARGE, VRD_IPC_E_NO_PEER and
 * VRD_IPC_E_QUEUE_FULL among the reasons. With a negative result it never runs: the handle, the
 * address or an argument is wrong, there is no memory, or the endpoint is closed.
 */
VRDIPC_API int vrd_ipc_make_request(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd,
                                    const char *data, unsigned int size, vrd_ipc_reply_cb callback,
                                    void *context, unsigned int time_limit);

/* Sends a one-way message. 0 when it is on its way, which is no promise that it arrives, or a
 * negative code. */
VRDIPC_API int vrd_ipc_send(vrd_ipc_st *ipc, const vrd_addr_st *addr, unsigned int cmd,
                            const char *data, unsigned int size);

/* The text of a result, never null. It is constant and not to be freed. */
VRDIPC_API const char *vrd_ipc_strerror(int code);

#ifdef __cplusplus
}
#endif

#endif
