/* What the engine makes of an order: its frame, and the text with which it answers. */
#ifndef KZE_AGENT_ENGINE_ORDERS_H
#define KZE_AGENT_ENGINE_ORDERS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace kze::engine {

/*
 * A coordinate order is a frame: a head of 20 bytes, its numbers big-endian, and the body behind
 * it.
 *
 *   offset 0   version, the characters "3200"
 *   offset 8   protocol, 2 bytes, 1
 *   offset 16  length of the body, 4 bytes, which is all that follows
 */
constexpr std::size_t order_head_size = 20;

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
