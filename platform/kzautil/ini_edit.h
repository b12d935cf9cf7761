/*
 * Changing one value in the text of an ini file, and how a value is written in it. Functions
 * without state: safe from any thread.
 */
#ifndef KZEMDLMGR_PLATFORM_KZAUTIL_INI_EDIT_H
#define KZEMDLMGR_PLATFORM_KZAUTIL_INI_EDIT_H

#include <string>

// `text` with "key = value" in the section: in place of the last line of that key, else behind the
// section's last line, else in a section of its own at the end. All other bytes stay as they are.
// Whether the names and the value can be read back is for the caller to check.
std::string ini_text_with(const std::string &text, const std::string &section,
                          const std::string &key, const std::string &value);

// A value as it is written: in quotes when blanks begin or end it, or when it looks like a value
// that was put in quotes for that; else as it is.
std::string ini_written(const std::string &value);
// The value of what is written: without the quotes that ini_written puts around it, no others.
std::string ini_value(const std::string &written);

#endif
