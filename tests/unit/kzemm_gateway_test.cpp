// The one way to the gateway: what is sent, what is refused, and who releases the data; and the
// frame that origin data travels in.

#include "datapath/kzemm_gateway.h"

#include <gmock/gmock.h>
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

#include "tests/fakes/fake_engine.h"
#include "tests/fakes/fake_gateway.h"
#include "tests/fakes/fake_log.h"
#include "tests/fakes/faults.h"
#include "tests/fakes/plugin_test.h"

using fakes::at;
using fakes::log_lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr unsigned int header_size = 20;

enum class owner {
    engine,  // the data goes back with x_client_free
    heap,    // the data goes to free
    caller,  // the data stays
};

struct type_case {
    int type;
    owner released_by;
    bool valid;
};

// All valid numbers, and some on either side of them.
const type_case types[] = {
    {0, owner::engine, false},       {1, owner::engine, true},   {2, owner::engine, true},
    {3, owner::engine, true},        {4, owner::engine, true},   {5, owner::heap, true},
    {6, owner::engine, true},        {7, owner::engine, true},   {8, owner::engine, true},
    {9, owner::engine, true},        {10, owner::caller, true},  {11, owner::engine, false},
    {255, owner::engine, false},     {-1, owner::engine, false}, {INT_MIN, owner::engine, false},
    {INT_MAX, owner::engine, false},
};

// What a test hands over, allocated as its type's rule of release asks. The leak checker of the
// address sanitizer sees what was not released, and the fake engine what came back twice.
class handed_over {
  public:
    handed_over(const type_case &tested, const std::string &text)
        : released_by(tested.released_by) {
        switch (released_by) {
            case owner::engine:
                data = fakes::engine_buffer(text);
                break;
            case owner::heap:
            case owner::caller:
                data = static_cast<char *>(malloc(text.size() + 1));
                memcpy(data, text.c_str(), text.size() + 1);
        }
    }
    ~handed_over() {
        if (released_by == owner::caller) {
            free(data);
        }
    }
    handed_over(const handed_over &) = delete;
    handed_over &operator=(const handed_over &) = delete;

    void expect_release(const std::string &text) const {
        EXPECT_EQ(fakes::engine_frees(), released_by == owner::engine ? 1U : 0U);
        EXPECT_EQ(fakes::outstanding_engine_buffers(), 0U);
        if (released_by == owner::caller) {
            EXPECT_STREQ(data, text.c_str()) << "the caller's data is intact";
        }
    }

    char *data = nullptr;

  private:
    owner released_by;
};

int send(const type_case &tested, char *data, unsigned int len) {
    return send_data_via_gw(static_cast<KZEMM_DATA_TYPE>(tested.type), data, len);
}

class kzemm_gateway_test : public plugin_test {
  protected:
    void SetUp() override {
        plugin_test::SetUp();
        load_libraries();
    }
};

class kzemm_gateway_type_test : public kzemm_gateway_test,
                                public testing::WithParamInterface<type_case> {};

INSTANTIATE_TEST_SUITE_P(type, kzemm_gateway_type_test, testing::ValuesIn(types),
                         [](const auto &each) {
                             std::string name = std::to_string(each.param.type);
                             std::replace(name.begin(), name.end(), '-', 'm');
                             return "of_" + name;
                         });

TEST_P(kzemm_gateway_type_test, is_sent_as_it_is_and_released_by_its_rule) {
    const std::string text("a\0text", 6);
    const handed_over given(GetParam(), text);
    const int result = send(GetParam(), given.data, 6);
    given.expect_release("a");
    if (!GetParam().valid) {
        EXPECT_EQ(result, -1);
        EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
        EXPECT_THAT(log_lines(),
                    ElementsAre(at(2, "type invalid, type: " + std::to_string(GetParam().type))));
        return;
    }
    EXPECT_EQ(result, 0);
    ASSERT_THAT(fakes::gateway_sends(), SizeIs(1));
    EXPECT_EQ(fakes::gateway_sends()[0].type, GetParam().type);
    EXPECT_EQ(fakes::gateway_sends()[0].data, text);
    EXPECT_THAT(log_lines(), ElementsAre(at(3, "send data to thtgw success")));
}

TEST_P(kzemm_gateway_type_test, is_released_by_its_rule_when_the_gateway_refuses) {
    for (const int code : {-1, 1}) {
        fakes::reset_engine();
        fakes::reset_gateway();
        fakes::clear_journal();
        fakes::gateway_returns(code);
        const handed_over given(GetParam(), "text");
        EXPECT_EQ(send(GetParam(), given.data, 4), -1);
        given.expect_release("text");
        const std::string type = std::to_string(GetParam().type);
        if (GetParam().valid) {
            EXPECT_THAT(fakes::gateway_sends(), SizeIs(1)) << "the data is sent once";
            EXPECT_THAT(log_lines(),
                        ElementsAre(at(1, "send data to kzethtgw failed, type: " + type)));
        } else {
            EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
            EXPECT_THAT(log_lines(), ElementsAre(at(2, "type invalid, type: " + type)));
        }
    }
}

// The length is looked at before the type.
TEST_P(kzemm_gateway_type_test, is_released_by_its_rule_when_its_length_is_0) {
    const handed_over given(GetParam(), "text");
    EXPECT_EQ(send(GetParam(), given.data, 0), -1);
    given.expect_release("text");
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "param is invalid,  length: 0")));
}

TEST_P(kzemm_gateway_type_test, is_refused_without_data_and_nothing_is_released) {
    EXPECT_EQ(send(GetParam(), nullptr, 4), -1);
    EXPECT_EQ(send(GetParam(), nullptr, 0), -1);
    EXPECT_EQ(fakes::engine_frees(), 0U);
    EXPECT_THAT(fakes::gateway_sends(), IsEmpty());
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "data is null"), at(2, "data is null")));
}

// ---- convert_origin_data ----

struct free_deleter {
    void operator()(char *data) const { free(data); }
};

struct converted {
    int result = 0;
    std::string frame;
};

converted convert(const std::string &data) {
    char *frame = nullptr;
    unsigned int len = 0;
    const int result =
        convert_origin_data(data.data(), static_cast<unsigned int>(data.size()), &frame, &len);
    const std::unique_ptr<char, free_deleter> owned(frame);
    return {result, frame == nullptr ? std::string() : std::string(frame, len)};
}

// What zlib itself makes of data at its default level.
std::string deflated(const std::string &data) {
    uLongf size = compressBound(data.size());
    std::string result(size, '\0');
    EXPECT_EQ(compress(reinterpret_cast<Bytef *>(result.data()), &size,
                       reinterpret_cast<const Bytef *>(data.data()), data.size()),
              Z_OK);
    result.resize(size);
    return result;
}

std::string inflated(const std::string &stream, size_t expected_size) {
    uLongf size = expected_size;
    std::string result(expected_size, '\0');
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef *>(result.data()), &size,
                         reinterpret_cast<const Bytef *>(stream.data()), stream.size()),
              Z_OK);
    result.resize(size);
    return result;
}

std::string little_endian(size_t value) {
    std::string bytes;
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<char>(value >> 8 * i & 0xFF));
    }
    return bytes;
}

std::string origin_header(size_t raw_size) {
    return std::string("3200\0\0\2\0\2\0\0\0\0\0\0\0", 16) + little_endian(raw_size);
}

void expect_untouched_failure(const char *data, unsigned int len) {
    char untouched = 0;
    char *frame = &untouched;
    unsigned int frame_len = 77;
    EXPECT_EQ(convert_origin_data(data, len, &frame, &frame_len), -1);
    EXPECT_EQ(frame, &untouched);
    EXPECT_EQ(frame_len, 77U);
}

TEST_F(kzemm_gateway_test, frames_origin_data_byte_by_byte) {
    const std::string data = std::string(700, 'a') + std::string(300, 'b');
    const converted made = convert(data);
    EXPECT_EQ(made.result, 0);
    EXPECT_EQ(made.frame, origin_header(1000) + deflated(data));
    EXPECT_THAT(log_lines(), IsEmpty());
}

// One worked example, whose every byte is written out.
TEST_F(kzemm_gateway_test, frames_one_byte_of_origin_data_as_these_29_bytes) {
    EXPECT_EQ(convert("a").frame, std::string("3200"
                                              "\0\0\x02\0"
                                              "\x02\0\0\0\0\0\0\0"
                                              "\x01\0\0\0"
                                              "\x78\x9c\x4b\x04\0\0\x62\0\x62",
                                              29));
}

TEST_F(kzemm_gateway_test, refuses_empty_origin_data) {
    expect_untouched_failure(nullptr, 4);
    expect_untouched_failure(nullptr, 0);
    const char *const data = "text";
    expect_untouched_failure(data, 0);
    char pointer[32] = {};
    snprintf(pointer, sizeof(pointer), "%p", static_cast<const void *>(data));
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "origin data empty, data: (nil), len: 4"),
                                         at(2, "origin data empty, data: (nil), len: 0"),
                                         at(2, std::string("origin data empty, data: ") + pointer +
                                                   ", len: 0")));
}

TEST_F(kzemm_gateway_test, fails_to_convert_when_the_compression_fails) {
    fakes::compress_fails(Z_BUF_ERROR);
    expect_untouched_failure("text", 4);
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "compress buffer failed with code = -5"),
                                         at(2, "zlib compress data failed")));
}

TEST_F(kzemm_gateway_test, fails_to_convert_without_a_bound) {
    fakes::compress_bound_fails();
    expect_untouched_failure("text", 4);
    EXPECT_THAT(log_lines(),
                ElementsAre(at(1, "compressBound failed"), at(2, "zlib compress data failed")));
}

TEST_F(kzemm_gateway_test, fails_to_convert_without_memory_for_the_stream) {
    const std::string bound = std::to_string(compressBound(4));
    fakes::fail_allocation(1);
    expect_untouched_failure("text", 4);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(), ElementsAre(at(1, "new " + bound + " byte for buffer failed"),
                                         at(2, "zlib compress data failed")));
}

TEST_F(kzemm_gateway_test, fails_to_convert_without_memory_for_the_frame) {
    const std::string data(1000, 'a');
    const size_t frame_size = deflated(data).size() + header_size;
    fakes::fail_allocation(2);  // behind the compressed data
    expect_untouched_failure(data.data(), 1000);
    EXPECT_TRUE(fakes::allocation_failed());
    EXPECT_THAT(log_lines(), ElementsAre(at(2, "malloc " + std::to_string(frame_size) +
                                                   " byte for send msg failed."),
                                         at(2, "add module head failed")));
}

// Data of one kind: bytes from a small or a large alphabet, in runs or not.
std::string random_data(std::mt19937 &random, size_t size) {
    const unsigned int letters = 1U << random() % 9;
    const unsigned int longest_run = 1U << random() % 12;
    std::string data;
    data.reserve(size);
    while (data.size() < size) {
        const auto letter = static_cast<char>(random() % letters);
        data.append(std::min<size_t>(random() % longest_run + 1, size - data.size()), letter);
    }
    return data;
}

void expect_round_trip(const std::string &data) {
    const converted made = convert(data);
    ASSERT_EQ(made.result, 0);
    ASSERT_GT(made.frame.size(), header_size);
    EXPECT_EQ(made.frame.substr(0, header_size), origin_header(data.size()));
    EXPECT_TRUE(inflated(made.frame.substr(header_size), data.size()) == data)
        << data.size() << " bytes came back changed";
}

TEST_F(kzemm_gateway_test, gives_back_any_data_of_1_byte_to_1_megabyte) {
    constexpr unsigned int seed = 20240501;
    constexpr size_t megabyte = 1024 * 1024;
    std::mt19937 random(seed);
    for (size_t size = 1; size <= megabyte; size *= 2) {
        SCOPED_TRACE(size);
        expect_round_trip(random_data(random, size));
        expect_round_trip(random_data(random, size - random() % ((size + 1) / 2)));
        expect_round_trip(std::string(size, '\0'));
    }
    for (int i = 0; i < 200; ++i) {
        const size_t size = random() % 4096 + 1;
        SCOPED_TRACE(size);
        expect_round_trip(random_data(random, size));
    }
}

}  // namespace
