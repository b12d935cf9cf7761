/* libvrdaux.so: the key and value message container of the agent's services. */
#ifndef KZEMDLMGR_PLATFORM_INCLUDE_VRDAUX_H
#define KZEMDLMGR_PLATFORM_INCLUDE_VRDAUX_H

#define VRDAUX_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A message has a name, which is a text, and fields. A field is a key and a value, both bytes of
 * any content; a key stands once in a message. Packed, a message is a row of bytes (MessagePack;
 * the exact format is told in platform/vrdaux/format.h), which needs no frame: it is the whole body
 * of an IPC message. Note that VRD_IPC_MAX_BODY bounds what can be sent, not what a message can
 * hold.
 *
 * A message is one thread's at a time; different messages don't touch each other. The functions
 * that take a const message may run on several threads at once, as long as none of them adds or
 * releases. No function calls back, blocks or throws.
 */
typedef struct xmsg xmsg;

enum {
    XMSG_MAX_NAME = 65535,             /* bytes of a message's name */
    XMSG_MAX_KEY = 65535,              /* bytes of a key; 0 is a key like the others */
    XMSG_MAX_VALUE = 16 * 1024 * 1024, /* bytes of a value */
    XMSG_MAX_FIELDS = 65536,           /* fields of a message */
    XMSG_MAX_BYTES = 64 * 1024 * 1024, /* bytes of all keys and values of a message together */
};

/* What a value is, for xmsg_get(). It follows from the value's bytes alone. */
enum {
    XMSG_TYPE_TEXT = 1,  /* read as a text it is whole: it has no 0 byte but perhaps its last */
    XMSG_TYPE_BYTES = 2, /* it has a 0 byte before its last; only the length tells its end */
};

/* Results of xmsg_add(). */
enum {
    XMSG_OK = 0,
    XMSG_E_ARGUMENT = -1,  /* a null message or key, or no value with a length above 0 */
    XMSG_E_TOO_LARGE = -2, /* above one of the limits */
    XMSG_E_EXISTS = -3,    /* the message has that key already */
    XMSG_E_NO_MEMORY = -4,
};

/*
 * Makes a message without fields. `name` is a text, and copied; it says in dumps what the message
 * is. The caller owns the message, until xmsg_release(). Null for a null name, one above
 * XMSG_MAX_NAME bytes, or when there is no memory.
 */
VRDAUX_API xmsg *xmsg_new(const char *name);

/*
 * Adds a field. Both lengths are in bytes, without a terminating 0 where the caller wants none
 * sent. Key and value are copied. `value` may be null when `value_len` is 0. A key that is there
 * already keeps its value. XMSG_OK or a negative XMSG_E_ code, after which the message is as
 * before. Pointers from xmsg_get() stay valid.
 */
VRDAUX_API int xmsg_add(xmsg *msg, const char *key, unsigned short key_len, const void *value,
                        unsigned int value_len);

/* The bytes that xmsg_pack() needs: above 0, and 0 for a null message. */
VRDAUX_API int xmsg_pack_size(const xmsg *msg);

/*
 * Writes the message's bytes into `buffer`, which has `size` bytes. Gives the number of bytes
 * written, that of xmsg_pack_size(), or -1 when the message or the buffer is null or the buffer too
 * small; nothing is written then. Equal messages give equal bytes, whatever the order of the adds.
 */
VRDAUX_API int xmsg_pack(const xmsg *msg, char *buffer, unsigned int size);

/*
 * Makes a message from packed bytes, which are copied. The caller owns it, until xmsg_release().
 * Null when `data` is null, the `len` bytes are anything but exactly one whole message (cut short,
 * followed by other bytes, a key that stands twice, above one of the limits), or there is no
 * memory. The bytes may come from anyone: memory is taken for what is there, never for a length
 * they claim.
 */
VRDAUX_API xmsg *xmsg_unpack(const char *data, unsigned int len);

/*
 * The value of the field with exactly this key, or null when there is none or an argument is null.
 * A 0 byte, which doesn't belong to the value, always follows it. It belongs to the message and
 * stays valid and unchanged until xmsg_release(). `value_len_out` takes the value's length in bytes
 * and `type_out` its XMSG_TYPE_; each may be null, and is left as it was when the result is null.
 */
VRDAUX_API const char *xmsg_get(const xmsg *msg, const char *key, unsigned short key_len,
                                unsigned int *value_len_out, unsigned int *type_out);

/*
 * Dumps the message to the log at level 4: a record with its name and one for each field. Names,
 * keys and values are cut at 256 bytes and a message at 64 fields, and the record says so. 0 bytes
 * stand as \x00, and the log escapes the other control characters. Nothing for a null message,
 * while level 4 isn't written, or when there is no memory.
 */
VRDAUX_API void xmsg_debug(const xmsg *msg);

/* Releases a message with all that xmsg_get() gave of it. Null is ignored. */
VRDAUX_API void xmsg_release(xmsg *msg);

#ifdef __cplusplus
}
#endif

#endif
