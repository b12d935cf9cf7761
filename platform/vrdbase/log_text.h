/*
 * The text of a log record. Free functions without state: safe from any thread.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDBASE_LOG_TEXT_H
#define KZEMDLMGR_PLATFORM_VRDBASE_LOG_TEXT_H

#include <cstdarg>
#include <string>

namespace kze_log_text {

// Longest text of a record, in bytes, before escaping.
inline constexpr size_t max_text = 64 * 1024;

// Formats as printf does; a text longer than max_text is cut and marked.
std::string format(const char *format, va_list arguments);

// Appends `text` with everything escaped that could end a line or steer a terminal.
void append_escaped(std::string &out, const std::string &text);

}  // namespace kze_log_text

#endif
