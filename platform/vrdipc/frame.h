/*
 * The bytes on an IPC connection.
 *
 * A connection is a byte stream that carries frames in both directions. A frame is a header of 20
 * bytes, five unsigned 32-bit numbers in little-endian form, and the body:
 *
 *   offset  field
 *        0  magic, 0x3143505a: the bytes "ZPC1"
 *        4  type: 1 request, 2 response, 3 message (one-way), 4 refusal
 *        8  command; of a response that of the responder, of a refusal that of the request
 *       12  request id: chosen by the requester, unique among its unanswered requests on this
 *           connection; in a message 0
 *       16  length of the body: at most 16 MiB; in a refusal it is the reason and has no body:
 *           1 no handler, 2 too many unanswered requests
 *
 * A request with command 1004, id 7 and the body "hi", and its answer with an empty body:
 *
 *   5a 50 43 31  01 00 00 00  ec 03 00 00  07 00 00 00  02 00 00 00  68 69
 *   5a 50 43 31  02 00 00 00  ec 03 00 00  07 00 00 00  00 00 00 00
 *
 * There is no checksum and no resynchronisation: whoever sends anything else is disconnected. A
 * later version needs another magic; nothing is negotiated.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDIPC_FRAME_H
#define KZEMDLMGR_PLATFORM_VRDIPC_FRAME_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kze_ipc {

constexpr std::size_t frame_header_size = 20;
constexpr std::uint32_t frame_max_body = 16U << 20;

enum class frame_type : std::uint32_t { request = 1, response = 2, message = 3, refusal = 4 };
enum class refusal_reason : std::uint32_t { no_handler = 1, busy = 2 };

struct frame_header {
    frame_type type;
    std::uint32_t cmd;
    std::uint32_t request_id;
    std::uint32_t length;  // of a refusal: the reason
};

inline std::uint32_t body_length(const frame_header &header) {
    return header.type == frame_type::refusal ? 0 : header.length;
}

void encode_header(const frame_header &header, unsigned char (&out)[frame_header_size]);

// False when the bytes are no header that the format allows; *out is then untouched.
bool decode_header(const unsigned char (&in)[frame_header_size], frame_header *out);

// Takes the frames that a decoder finds.
class frame_sink {
  public:
    virtual ~frame_sink() = default;

    // `body` is never null and valid during the call. False ends the decoding.
    virtual bool on_frame(const frame_header &header, const char *body) = 0;
};

// Cuts the arriving bytes into frames. Keeps the beginning of a frame until the rest is there, in
// memory that never exceeds twice the bytes that have arrived of it. One thread at a time.
class frame_decoder {
  public:
    enum class outcome {
        more,     // everything was used up
        stopped,  // by the sink
        broken,   // the format was violated; the decoder is of no further use
    };

    outcome feed(const char *data, std::size_t size, frame_sink &sink);

    // True when a part of a frame has arrived.
    bool inside_frame() const { return !partial.empty(); }

    // Bytes of memory held for it.
    std::size_t memory() const { return partial.capacity(); }

  private:
    outcome complete_partial(const char **data, std::size_t *size, frame_sink &sink);
    void keep(const char *data, std::size_t size, std::size_t frame_size);
    void drop_partial();

    std::vector<char> partial;  // the beginning of one frame
};

}  // namespace kze_ipc

#endif
