// Changing one value in the text of an ini file. A free function without state: safe from any
// thread.
#pragma once

#include <string>

// `text` with "key = value" in the section: in place of the last line of that key, else behind the
// section's last line, else in a section of its own at the end. All other bytes stay as they are.
// Whether the names and the value can be read back is for the caller to check.
std::string ini_text_with(const std::string &text, const std::string &section,
                          const std::string &key, const std::string &value);
