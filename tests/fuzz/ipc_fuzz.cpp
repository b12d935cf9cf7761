#include "ipc_fuzz.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/vrdipc/frame.h"

namespace {

using kze_ipc::frame_decoder;
using kze_ipc::frame_header;

constexpr std::size_t kept_memory = 256 * 1024;

void require(bool good, const char *rule) {
    if (good) {
        return;
    }
    std::fprintf(stderr, "broken: %s\n", rule);
    std::abort();
}

// Writes the frames down as the bytes they must have been.
class writing_sink : public kze_ipc::frame_sink {
  public:
    bool on_frame(const frame_header &header, const char *body) override {
        require(body != nullptr, "a body is never null");
        require(kze_ipc::body_length(header) <= kze_ipc::frame_max_body, "a body is within bounds");
        unsigned char bytes[kze_ipc::frame_header_size];
        encode_header(header, bytes);
        written.append(reinterpret_cast<const char *>(bytes), sizeof bytes);
        written.append(body, kze_ipc::body_length(header));
        return true;
    }

    std::string written;
};

struct decoded {
    std::string frames;
    bool broken;
};

// Feeds the stream in pieces of 1 to `longest` bytes.
decoded decode(const std::string &stream, std::size_t longest) {
    frame_decoder decoder;
    writing_sink sink;
    std::size_t at = 0;
    std::size_t piece = longest;
    while (at < stream.size()) {
        const std::size_t size = std::min(piece, stream.size() - at);
        // A piece of its own memory, so that a read beyond it is seen.
        const std::string part = stream.substr(at, size);
        at += size;
        const frame_decoder::outcome outcome = decoder.feed(part.data(), part.size(), sink);
        require(outcome != frame_decoder::outcome::stopped, "only the sink stops the decoder");
        if (outcome == frame_decoder::outcome::broken) {
            return {sink.written, true};
        }
        require(decoder.memory() <= std::max(kept_memory, 2 * at), "memory follows what arrived");
        require(decoder.inside_frame() == (sink.written.size() < at),
                "what isn't a frame yet is kept");
        piece = piece % longest + 1;
    }
    return {sink.written, false};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string stream(reinterpret_cast<const char *>(data) + 1, size - 1);
    const decoded whole = decode(stream, std::max<std::size_t>(stream.size(), 1));
    require(stream.compare(0, whole.frames.size(), whole.frames) == 0,
            "frames are the bytes of the stream");
    for (const std::size_t longest : {std::size_t{data[0]} + 1, std::size_t{1}}) {
        const decoded cut = decode(stream, longest);
        require(cut.frames == whole.frames && cut.broken == whole.broken,
                "the cut of the stream doesn't matter");
    }
    return 0;
}
