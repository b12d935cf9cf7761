#include "ini_edit.h"

#include <algorithm>

namespace {

constexpr const char *blanks = " \t";
constexpr const char *line_ends = "\r\n";
constexpr const char *byte_order_mark = "\xEF\xBB\xBF";
constexpr size_t nowhere = std::string::npos;

std::string trimmed(const std::string &text) {
    const size_t begin = text.find_first_not_of(blanks);
    return begin == nowhere ? "" : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

// What is found out about a section while its text is walked through once.
struct Place {
    size_t insert_at = nowhere;    // behind the section's last header or key line
    size_t value_begin = nowhere;  // the value of the last line with the key, without blanks
    size_t value_end = nowhere;
};

// The text's lines are read as the parser does: a header without its "]" opens a section that has
// no name to be found by.
Place find_place(const std::string &text, size_t start, const std::string &section,
                 const std::string &key) {
    Place place;
    bool inside = section.empty();
    if (inside)
        place.insert_at = start;
    for (size_t begin = start; begin < text.size();) {
        const size_t end = std::min(text.find_first_of(line_ends, begin), text.size());
        const size_t next = std::min(text.find_first_not_of(line_ends, end), text.size());
        const size_t content = std::min(text.find_first_not_of(blanks, begin), end);
        const char first = content < end ? text[content] : ';';
        if (first == '[') {
            const size_t close = text.find(']', content);
            inside =
                close < end && trimmed(text.substr(content + 1, close - content - 1)) == section;
            if (inside)
                place.insert_at = end;
        } else if (inside && first != ';' && first != '#' && text.find('=', content) < end) {
            const size_t equals = text.find('=', content);
            place.insert_at = end;
            if (trimmed(text.substr(content, equals - content)) == key) {
                place.value_begin = std::min(text.find_first_not_of(blanks, equals + 1), end);
                place.value_end = end;
            }
        }
        begin = next;
    }
    return place;
}

}  // namespace

std::string ini_text_with(const std::string &text, const std::string &section,
                          const std::string &key, const std::string &value) {
    const size_t start = text.compare(0, 3, byte_order_mark) == 0 ? 3 : 0;
    const Place place = find_place(text, start, section, key);
    std::string result = text;
    if (place.value_begin != nowhere)
        return result.replace(place.value_begin, place.value_end - place.value_begin, value);

    const std::string line = key + " = " + value;
    const std::string line_end = text.find("\r\n") == nowhere ? "\n" : "\r\n";
    if (place.insert_at == start)
        return result.insert(start, line + line_end);
    if (place.insert_at != nowhere)
        return result.insert(place.insert_at, line_end + line);

    if (text.size() > start) {
        if (text.find_last_of(line_ends) != text.size() - 1)
            result += line_end;
        result += line_end;
    }
    return result + "[" + section + "]" + line_end + line + line_end;
}
