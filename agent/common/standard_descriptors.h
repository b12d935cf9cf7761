/* The descriptors 0 to 2, which a caller may have closed. */
#ifndef KZE_AGENT_COMMON_STANDARD_DESCRIPTORS_H
#define KZE_AGENT_COMMON_STANDARD_DESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

namespace kze {

/*
 * Puts /dev/null where standard input, output or error is closed, so that nothing else that is
 * opened gets their numbers. To be called first in main, with one thread. False when /dev/null
 * can't be opened.
 */
inline bool fill_standard_descriptors() {
    int number = -1;
    do {
        number = ::open("/dev/null", O_RDWR);
    } while (number >= 0 && number <= STDERR_FILENO);
    if (number < 0) {
        return false;
    }
    ::close(number);
    return true;
}

}  // namespace kze

#endif
