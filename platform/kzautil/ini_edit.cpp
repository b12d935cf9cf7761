#include "platform/kzautil/ini_edit.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

constexpr const char *blanks = " \t";
constexpr const char *line_ends = "\r\n";
constexpr const char *white_space = " \t\r\n";
constexpr const char *byte_order_mark = "\xEF\xBB\xBF";
constexpr size_t nowhere = std::string::npos;

std::string trimmed(const std::string &text) {
    const size_t begin = text.find_first_not_of(blanks);
    return begin == nowhere ? "" : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

bool is_quoted(std::string_view text) {
    return text.size() >= 2 && text.front() == '"' && text.back() == '"';
}

std::string_view without_quotes(std::string_view text) {
    return text.substr(1, text.size() - 2);
}

bool needs_quotes(std::string_view value) {
    while (is_quoted(value)) {
        value = without_quotes(value);
    }
    return !value.empty() &&
           (strchr(blanks, value.front()) != nullptr || strchr(blanks, value.back()) != nullptr);
}

// Walks once through a text and finds where a section's key stands, or would. The text is read as
// the parser does, down to its oddities: a header's name may begin on a later line, and a header
// without its "]" opens a section that has no name to be found by. One thread at a time.
class key_search {
  public:
    key_search(const std::string &whole, size_t start, std::string in_section, std::string of_key)
        : text(whole),
          section(std::move(in_section)),
          key(std::move(of_key)),
          inside(section.empty()) {
        if (inside) {
            insert_at = start;
        }
        for (size_t at = start; (at = text.find_first_not_of(white_space, at)) != nowhere;) {
            at = text[at] == '[' ? pass_header(at) : pass_line(at);
        }
    }

    size_t insert_at = nowhere;    // behind the section's last header or key line
    size_t value_begin = nowhere;  // the value of the last line with the key, without blanks
    size_t value_end = nowhere;

  private:
    size_t line_end(size_t at) const {
        return std::min(text.find_first_of(line_ends, at), text.size());
    }

    size_t pass_header(size_t at) {
        inside = false;
        const size_t name = text.find_first_not_of(white_space, at + 1);
        const size_t end = name == nowhere ? nowhere : text.find_first_of("]\r\n", name);
        if (end == nowhere) {
            return text.size();
        }
        if (text[end] != ']') {
            return end;
        }
        const size_t next = line_end(end);
        inside = trimmed(text.substr(name, end - name)) == section;
        if (inside) {
            insert_at = next;
        }
        return next;
    }

    size_t pass_line(size_t at) {
        const size_t end = line_end(at);
        const size_t equals = std::min(text.find('=', at), end);
        if (!inside || text[at] == ';' || text[at] == '#' || equals == end) {
            return end;
        }
        insert_at = end;
        if (trimmed(text.substr(at, equals - at)) == key) {
            value_begin = std::min(text.find_first_not_of(blanks, equals + 1), end);
            value_end = end;
        }
        return end;
    }

    const std::string &text;
    const std::string section;
    const std::string key;
    bool inside;
};

}  // namespace

std::string ini_text_with(const std::string &text, const std::string &section,
                          const std::string &key, const std::string &value) {
    const size_t start = text.compare(0, 3, byte_order_mark) == 0 ? 3 : 0;
    const key_search place(text, start, section, key);
    std::string result = text;
    if (place.value_begin != nowhere) {
        return result.replace(place.value_begin, place.value_end - place.value_begin, value);
    }

    const std::string line = key + " = " + value;
    const std::string line_end = text.find("\r\n") == nowhere ? "\n" : "\r\n";
    if (place.insert_at == start) {
        return result.insert(start, line + line_end);
    }
    if (place.insert_at != nowhere) {
        return result.insert(place.insert_at, line_end + line);
    }

    if (text.size() > start) {
        if (text.find_last_of(line_ends) != text.size() - 1) {
            result += line_end;
        }
        result += line_end;
    }
    return result + "[" + section + "]" + line_end + line + line_end;
}

std::string ini_written(const std::string &value) {
    return needs_quotes(value) ? '"' + value + '"' : value;
}

std::string ini_value(const std::string &written) {
    return is_quoted(written) && needs_quotes(written) ? std::string(without_quotes(written))
                                                       : written;
}
