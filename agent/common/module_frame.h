/* The frames of module messages: a header of 20 bytes and a body. */
#ifndef KZE_AGENT_COMMON_MODULE_FRAME_H
#define KZE_AGENT_COMMON_MODULE_FRAME_H

#include <cstddef>
#include <string>
#include <string_view>

#include "engine/module_header.h"

namespace kze {

constexpr std::size_t module_header_size = sizeof(_module_header);

enum class byte_order { big_endian, little_endian };

/* The frame of a body, uncompressed. Any thread. */
std::string module_frame(std::string_view body, unsigned int proto_type, byte_order order);

/* What is wrong with an uncompressed frame of that type; empty when nothing is. Any thread. */
std::string module_frame_problem(std::string_view frame, unsigned int proto_type, byte_order order);

}  // namespace kze

#endif
