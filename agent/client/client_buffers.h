/* The buffers that the client library hands out. */
#ifndef KZE_AGENT_CLIENT_CLIENT_BUFFERS_H
#define KZE_AGENT_CLIENT_CLIENT_BUFFERS_H

#include <string_view>

namespace kze::engine {

/*
 * A copy of the bytes with a 0 behind them, for free_buffer(); null without memory. Any thread, as
 * for the others.
 */
char *new_buffer(std::string_view bytes);

/* Takes a buffer back; null is allowed. */
void free_buffer(void *buffer);

/* How many buffers are out. */
int buffers_out();

}  // namespace kze::engine

#endif
