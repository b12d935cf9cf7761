/*
 * The real message container with faults, and an account of its messages. Everything works until a
 * test says otherwise; the test's own calls go the same way.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_MESSAGE_FAULTS_H
#define KZEMDLMGR_TESTS_FAKES_MESSAGE_FAULTS_H

#include <string>
#include <utility>
#include <vector>

namespace fakes {

// xmsg_new gives null for a message of this name.
void xmsg_new_fails(const std::string &name);
// xmsg_add gives this result and adds nothing; 0: works again.
void xmsg_add_fails(int result);
// xmsg_pack gives this result, which is 0 or less, and writes nothing.
void xmsg_pack_fails(int result);
// xmsg_unpack gives null.
void xmsg_unpack_fails();

// Messages that were made and not released.
int open_messages();
// How often xmsg_unpack and xmsg_debug were called. A dump writes nothing to the log.
unsigned int unpacked_messages();
unsigned int dumped_messages();
// Whether all bytes that xmsg_pack was to write to were 0 before, in every call.
bool pack_buffers_were_zero();

using message_fields = std::vector<std::pair<std::string, std::string>>;
// The bytes of a message with these fields.
std::string packed_message(const std::string &name, const message_fields &fields);

// Forgets what was recorded and asked for.
void reset_messages();

}  // namespace fakes

#endif
