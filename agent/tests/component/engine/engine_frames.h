/* The frames in which orders reach the engine, and rule files for it. */
#ifndef KZE_AGENT_TESTS_COMPONENT_ENGINE_ENGINE_FRAMES_H
#define KZE_AGENT_TESTS_COMPONENT_ENGINE_ENGINE_FRAMES_H

#include <string>

#include "agent/common/rule_file.h"

namespace engine_test {

/* A head of 20 bytes, big-endian, and the body. */
inline std::string order_frame(const std::string &body) {
    std::string frame("3200\0\0\0\0\0\1\0\0\0\0\0\0", 16);
    for (const unsigned int shift : {24U, 16U, 8U, 0U}) {
        frame.push_back(static_cast<char>((body.size() >> shift) & 0xFFU));
    }
    return frame + body;
}

/* The text of a rule file with one rule. */
inline std::string rule_text(kze::rule_kind kind, const std::string &version) {
    kze::rule_file file;
    file.kind = kind;
    file.version = version;
    switch (kind) {
        case kze::rule_kind::ioc:
            file.rules = {"domain:bad.example"};
            break;
        case kze::rule_kind::ioa:
            file.rules = {"a rule"};
            break;
        case kze::rule_kind::md:
            file.rules = {"Name.A:4d5a"};
            break;
    }
    return kze::rule_file_text(file);
}

}  // namespace engine_test

#endif
