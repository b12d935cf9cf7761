#include <gtest/gtest.h>
#include <sys/uio.h>

#include <string>
#include <vector>

#include "platform/vrdipc/frame.h"
#include "platform/vrdipc/pending_table.h"
#include "platform/vrdipc/send_queue.h"

namespace kze_ipc {
namespace {

std::string bytes_of(const std::vector<unsigned int> &bytes) {
    return {bytes.begin(), bytes.end()};
}

std::string encoded(const frame_header &header, const std::string &body = "") {
    unsigned char bytes[frame_header_size];
    encode_header(header, bytes);
    return std::string(reinterpret_cast<const char *>(bytes), sizeof bytes) + body;
}

// Keeps what it is given; stops after `stop_after` frames.
class recording_sink : public frame_sink {
  public:
    explicit recording_sink(std::size_t stop_after = 0) : stop_after_(stop_after) {}

    bool on_frame(const frame_header &header, const char *body) override {
        EXPECT_NE(body, nullptr);
        frames.push_back(encoded(header, std::string(body, body_length(header))));
        return frames.size() != stop_after_;
    }

    std::vector<std::string> frames;

  private:
    std::size_t stop_after_;
};

frame_decoder::outcome feed(frame_decoder &decoder, const std::string &bytes, frame_sink &sink) {
    return decoder.feed(bytes.data(), bytes.size(), sink);
}

TEST(frame, is_the_bytes_of_the_documented_example) {
    EXPECT_EQ(encoded({frame_type::request, 1004, 7, 2}, "hi"),
              bytes_of({0x5a, 0x50, 0x43, 0x31, 0x01, 0, 0, 0, 0xec, 0x03, 0,
                        0,    0x07, 0,    0,    0,    2, 0, 0, 0,    0x68, 0x69}));
    EXPECT_EQ(encoded({frame_type::response, 1004, 7, 0}),
              bytes_of({0x5a, 0x50, 0x43, 0x31, 0x02, 0, 0, 0, 0xec, 0x03,
                        0,    0,    0x07, 0,    0,    0, 0, 0, 0,    0}));
}

TEST(frame, several_in_one_piece_come_out_in_order) {
    const std::vector<std::string> frames = {
        encoded({frame_type::request, 1, 2, 3}, "abc"), encoded({frame_type::message, 4, 0, 0}),
        encoded({frame_type::response, 5, 6, 1}, "d"), encoded({frame_type::refusal, 7, 8, 2})};
    frame_decoder decoder;
    recording_sink sink;
    EXPECT_EQ(feed(decoder, frames[0] + frames[1] + frames[2] + frames[3], sink),
              frame_decoder::outcome::more);
    EXPECT_EQ(sink.frames, frames);
    EXPECT_FALSE(decoder.inside_frame());
}

TEST(frame, comes_out_the_same_however_the_stream_is_cut) {
    const std::vector<std::string> frames = {encoded({frame_type::request, 1, 2, 5}, "abcde"),
                                             encoded({frame_type::message, 4, 0, 1}, "f")};
    const std::string stream = frames[0] + frames[1];
    for (std::size_t first = 0; first <= stream.size(); ++first) {
        for (std::size_t second = first; second <= stream.size(); ++second) {
            frame_decoder decoder;
            recording_sink sink;
            feed(decoder, stream.substr(0, first), sink);
            feed(decoder, stream.substr(first, second - first), sink);
            feed(decoder, stream.substr(second), sink);
            EXPECT_EQ(sink.frames, frames) << first << ' ' << second;
        }
    }
}

TEST(frame, one_byte_at_a_time_comes_out_whole) {
    const std::string frame = encoded({frame_type::response, 9, 9, 4}, "body");
    frame_decoder decoder;
    recording_sink sink;
    for (const char byte : frame) {
        EXPECT_TRUE(sink.frames.empty());
        EXPECT_EQ(feed(decoder, std::string(1, byte), sink), frame_decoder::outcome::more);
    }
    EXPECT_EQ(sink.frames, std::vector<std::string>{frame});
}

TEST(frame, with_anything_wrong_in_its_header_breaks_the_stream) {
    std::string bad_magic = encoded({frame_type::message, 1, 0, 0});
    bad_magic[0] = 'z';
    const std::string bad[] = {
        bad_magic,
        encoded({static_cast<frame_type>(0), 1, 1, 0}),
        encoded({static_cast<frame_type>(5), 1, 1, 0}),
        encoded({frame_type::message, 1, 1, 0}),  // a message has no id
        encoded({frame_type::request, 1, 1, frame_max_body + 1}),
        encoded({frame_type::response, 1, 1, frame_max_body + 1}),
        encoded({frame_type::message, 1, 0, frame_max_body + 1}),
        encoded({frame_type::request, 1, 1, 0xffffffff}),
        encoded({frame_type::refusal, 1, 1, 0}),
        encoded({frame_type::refusal, 1, 1, 3}),
    };
    for (const std::string &header : bad) {
        frame_decoder at_once;
        recording_sink sink;
        EXPECT_EQ(feed(at_once, header, sink), frame_decoder::outcome::broken);
        frame_decoder in_two;
        EXPECT_EQ(feed(in_two, header.substr(0, 7), sink), frame_decoder::outcome::more);
        EXPECT_EQ(feed(in_two, header.substr(7), sink), frame_decoder::outcome::broken);
        EXPECT_TRUE(sink.frames.empty());
    }
}

TEST(frame, of_the_greatest_length_and_one_less_come_out) {
    for (const std::uint32_t length : {frame_max_body - 1, frame_max_body}) {
        const std::string frame =
            encoded({frame_type::message, 1, 0, length}, std::string(length, 'x'));
        frame_decoder decoder;
        recording_sink sink;
        feed(decoder, frame.substr(0, 1000000), sink);
        EXPECT_EQ(feed(decoder, frame.substr(1000000), sink), frame_decoder::outcome::more);
        ASSERT_EQ(sink.frames.size(), 1U);
        EXPECT_TRUE(sink.frames[0] == frame);
    }
}

TEST(frame, memory_follows_the_bytes_that_arrived_not_the_length_that_is_claimed) {
    frame_decoder decoder;
    recording_sink sink;
    feed(decoder, encoded({frame_type::request, 1, 1, frame_max_body}), sink);
    EXPECT_LE(decoder.memory(), 2 * frame_header_size);
    std::size_t arrived = frame_header_size;
    for (int i = 0; i < 100; ++i) {
        feed(decoder, std::string(1000, 'x'), sink);
        arrived += 1000;
        EXPECT_LE(decoder.memory(), 2 * arrived);
    }
}

TEST(frame, memory_of_a_large_message_is_given_back) {
    frame_decoder decoder;
    recording_sink sink;
    const std::string frame =
        encoded({frame_type::message, 1, 0, frame_max_body}, std::string(frame_max_body, 'x'));
    feed(decoder, frame.substr(0, 100), sink);
    feed(decoder, frame.substr(100), sink);
    ASSERT_EQ(sink.frames.size(), 1U);
    EXPECT_LE(decoder.memory(), 256U * 1024);
}

TEST(frame, sink_that_stops_gets_no_more) {
    const std::string frame = encoded({frame_type::message, 1, 0, 0});
    frame_decoder decoder;
    recording_sink sink(2);
    EXPECT_EQ(feed(decoder, frame + frame + frame, sink), frame_decoder::outcome::stopped);
    EXPECT_EQ(sink.frames.size(), 2U);
}

std::string content(send_queue &queue) {
    std::string all;
    struct iovec pieces[64];
    const std::size_t count = queue.front(pieces, 64);
    for (std::size_t i = 0; i < count; ++i) {
        all.append(static_cast<const char *>(pieces[i].iov_base), pieces[i].iov_len);
    }
    return all;
}

TEST(send_queue, gives_the_bytes_back_in_order_whatever_is_taken) {
    send_queue queue;
    std::string expected;
    for (int i = 0; i < 5000; ++i) {
        const std::string part(static_cast<std::size_t>(i % 97), static_cast<char>('a' + i % 26));
        queue.append(part.data(), part.size());
        expected += part;
    }
    EXPECT_EQ(queue.size(), expected.size());
    EXPECT_EQ(content(queue), expected);
    for (std::size_t taken = 1; !queue.empty(); taken = taken * 3 % 70001 + 1) {
        const std::size_t part = std::min(taken, queue.size());
        queue.consume(part);
        expected.erase(0, part);
        ASSERT_TRUE(content(queue) == expected);
    }
    queue.append("again", 5);
    EXPECT_EQ(content(queue), "again");
}

TEST(send_queue, takes_up_to_its_limit_and_no_byte_more) {
    send_queue queue;
    const std::string almost(send_queue::limit - 1, 'x');
    EXPECT_TRUE(queue.fits(send_queue::limit));
    EXPECT_FALSE(queue.fits(send_queue::limit + 1));
    queue.append(almost.data(), almost.size());
    EXPECT_TRUE(queue.fits(1));
    EXPECT_FALSE(queue.fits(2));
    queue.append("x", 1);
    EXPECT_TRUE(queue.fits(0));
    EXPECT_FALSE(queue.fits(1));
    queue.consume(1);
    EXPECT_TRUE(queue.fits(1));
}

TEST(pending_table, gives_each_request_an_id_that_only_its_taker_can_use) {
    pending_table table;
    pending_request request;
    request.cmd = 5;
    const std::uint32_t id = table.add(request);
    EXPECT_NE(id, 0U);
    pending_request taken;
    EXPECT_FALSE(table.take(id + 1, &taken));
    EXPECT_FALSE(table.take(0, &taken));
    EXPECT_TRUE(table.take(id, &taken));
    EXPECT_EQ(taken.cmd, 5U);
    EXPECT_FALSE(table.take(id, &taken));
    EXPECT_TRUE(table.empty());
    EXPECT_NE(table.add(request), id);
}

TEST(pending_table, keeps_an_old_request_while_many_others_come_and_go) {
    pending_table table;
    pending_request request;
    request.cmd = 1;
    const std::uint32_t old = table.add(request);
    pending_request taken;
    for (unsigned int i = 0; i < 100000; ++i) {
        request.cmd = i;
        const std::uint32_t id = table.add(request);
        ASSERT_NE(id, old);
        ASSERT_TRUE(table.take(id, &taken));
        ASSERT_EQ(taken.cmd, i);
    }
    ASSERT_NE(table.find(old), nullptr);
    EXPECT_EQ(table.find(old)->cmd, 1U);
}

TEST(pending_table, grows_with_the_requests_that_wait_at_once) {
    pending_table table;
    std::vector<std::uint32_t> ids;
    for (unsigned int i = 0; i < 10000; ++i) {
        pending_request request;
        request.cmd = i;
        request.deadline_ns = 20000 - i;
        ids.push_back(table.add(request));
    }
    EXPECT_EQ(table.earliest_deadline(), 10001U);
    for (unsigned int i = 0; i < 10000; ++i) {
        ASSERT_NE(table.find(ids[i]), nullptr);
        EXPECT_EQ(table.find(ids[i])->cmd, i);
    }
    pending_request taken;
    unsigned int count = 0;
    while (table.take_where([](const auto &request) { return request.cmd < 10; }, &taken)) {
        ASSERT_LT(taken.cmd, 10U);
        ++count;
    }
    EXPECT_EQ(count, 10U);
    while (table.take_where([](const auto &) { return true; }, &taken)) {
        ++count;
    }
    EXPECT_EQ(count, 10000U);
    EXPECT_TRUE(table.empty());
}

}  // namespace
}  // namespace kze_ipc
