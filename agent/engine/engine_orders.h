/* What the engine makes of an order: its frame, and the text with which it answers. */
#ifndef KZE_AGENT_ENGINE_ENGINE_ORDERS_H
#define KZE_AGENT_ENGINE_ENGINE_ORDERS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "engine/module_header.h"

namespace kze::engine {

/* A coordinate order is a frame of a request, its numbers big-endian; the body is all that follows.
 */
constexpr std::size_t order_head_size = sizeof(_module_header);

/* The body, a view into the frame. On failure nothing, and problem says what is wrong. */
std::optional<std::string_view> body_of_order(std::string_view frame, std::string &problem);

/* A body is told as a text up to so many bytes. */
constexpr std::size_t told_text_limit = 4096;

/*
 * What the sender's bytes are recognised by: "md5", and where they are printable UTF-8 text of at
 * most told_text_limit bytes, "text".
 */
nlohmann::json recognisable(std::string_view bytes);

}  // namespace kze::engine

#endif
