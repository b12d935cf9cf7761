#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "kzautil.h"

int kze_rand_by_time(void) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // Multiplied by an odd constant, the nanoseconds reach the high bits, which are kept.
    const unsigned long long nanoseconds =
        static_cast<unsigned long long>(now.tv_sec) * 1000000000 +
        static_cast<unsigned long long>(now.tv_nsec);
    return static_cast<int>((nanoseconds * 0x9E3779B97F4A7C15ULL) >> 33U);
}

int kze_str_snprintf(char *out, unsigned int size, const char *format, ...) {
    if (out == nullptr) {
        size = 0;
    }
    int length = -1;
    if (format != nullptr) {
        va_list arguments;
        va_start(arguments, format);
        length = vsnprintf(out, size, format, arguments);
        va_end(arguments);
    }
    if (length < 0 && size > 0) {
        *out = '\0';
    }
    return length < 0 ? -1 : length;
}

unsigned int kze_str_strlcpy(char *dest, const char *src, unsigned int size) {
    if (src == nullptr) {
        src = "";
    }
    const size_t length = strlen(src);
    if (dest != nullptr && size > 0) {
        const size_t copied = length < size ? length : size - 1;
        memcpy(dest, src, copied);
        dest[copied] = '\0';
    }
    return static_cast<unsigned int>(length);
}
