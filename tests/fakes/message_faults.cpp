#include "tests/fakes/message_faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <set>

#include "vrdaux.h"

namespace {

struct state {
    std::set<std::string> failing_names;
    int add_result = 0;
    std::optional<int> pack_result;
    bool unpack_fails = false;
    int open = 0;
    unsigned int unpacked = 0;
    unsigned int dumped = 0;
    bool buffers_were_zero = true;
};

std::mutex s_mutex;
state s_state;

xmsg *counted(xmsg *message) {
    if (message != nullptr) {
        const std::lock_guard<std::mutex> lock(s_mutex);
        ++s_state.open;
    }
    return message;
}

}  // namespace

extern "C" {

xmsg *__real_xmsg_new(const char *name);
xmsg *__wrap_xmsg_new(const char *name);
int __real_xmsg_add(xmsg *msg, const char *key, unsigned short key_len, const void *value,
                    unsigned int value_len);
int __wrap_xmsg_add(xmsg *msg, const char *key, unsigned short key_len, const void *value,
                    unsigned int value_len);
int __real_xmsg_pack(const xmsg *msg, char *buffer, unsigned int size);
int __wrap_xmsg_pack(const xmsg *msg, char *buffer, unsigned int size);
xmsg *__real_xmsg_unpack(const char *data, unsigned int len);
xmsg *__wrap_xmsg_unpack(const char *data, unsigned int len);
void __wrap_xmsg_debug(const xmsg *msg);
void __real_xmsg_release(xmsg *msg);
void __wrap_xmsg_release(xmsg *msg);

xmsg *__wrap_xmsg_new(const char *name) {
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        if (s_state.failing_names.count(name) != 0) {
            return nullptr;
        }
    }
    return counted(__real_xmsg_new(name));
}

int __wrap_xmsg_add(xmsg *msg, const char *key, unsigned short key_len, const void *value,
                    unsigned int value_len) {
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        if (s_state.add_result != 0) {
            return s_state.add_result;
        }
    }
    return __real_xmsg_add(msg, key, key_len, value, value_len);
}

int __wrap_xmsg_pack(const xmsg *msg, char *buffer, unsigned int size) {
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_state.buffers_were_zero &=
            std::all_of(buffer, buffer + size, [](char each) { return each == 0; });
        if (s_state.pack_result.has_value()) {
            return *s_state.pack_result;
        }
    }
    return __real_xmsg_pack(msg, buffer, size);
}

xmsg *__wrap_xmsg_unpack(const char *data, unsigned int len) {
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        ++s_state.unpacked;
        if (s_state.unpack_fails) {
            return nullptr;
        }
    }
    return counted(__real_xmsg_unpack(data, len));
}

void __wrap_xmsg_debug(const xmsg *msg) {
    EXPECT_NE(msg, nullptr);
    const std::lock_guard<std::mutex> lock(s_mutex);
    ++s_state.dumped;
}

void __wrap_xmsg_release(xmsg *msg) {
    if (msg != nullptr) {
        const std::lock_guard<std::mutex> lock(s_mutex);
        --s_state.open;
    }
    __real_xmsg_release(msg);
}

}  // extern "C"

namespace fakes {

void xmsg_new_fails(const std::string &name) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.failing_names.insert(name);
}

void xmsg_add_fails(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.add_result = result;
}

void xmsg_pack_fails(int result) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.pack_result = result;
}

void xmsg_unpack_fails() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state.unpack_fails = true;
}

int open_messages() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.open;
}

unsigned int unpacked_messages() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.unpacked;
}

unsigned int dumped_messages() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.dumped;
}

bool pack_buffers_were_zero() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_state.buffers_were_zero;
}

std::string packed_message(const std::string &name, const message_fields &fields) {
    xmsg *const message = __real_xmsg_new(name.c_str());
    for (const auto &[key, value] : fields) {
        EXPECT_EQ(__real_xmsg_add(message, key.data(), static_cast<unsigned short>(key.size()),
                                  value.data(), static_cast<unsigned int>(value.size())),
                  0);
    }
    std::string bytes(static_cast<size_t>(xmsg_pack_size(message)), '\0');
    EXPECT_EQ(__real_xmsg_pack(message, bytes.data(), static_cast<unsigned int>(bytes.size())),
              static_cast<int>(bytes.size()));
    __real_xmsg_release(message);
    return bytes;
}

void reset_messages() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_state = state();
}

}  // namespace fakes
