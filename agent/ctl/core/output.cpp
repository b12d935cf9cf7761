#include "agent/ctl/core/output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace kze::ctl {
namespace {

const char *colour_of(look with) {
    switch (with) {
        case look::strong:
            return "1";
        case look::faint:
            return "2";
        case look::good:
            return "32";
        case look::warning:
            return "33";
        case look::bad:
            return "1;31";
        case look::accent:
            return "36";
        case look::plain:
            break;
    }
    return "";
}

/* Columns on a terminal: characters, not bytes. */
std::size_t width_of(const std::string &text) {
    std::size_t width = 0;
    for (const char c : text) {
        width += (static_cast<unsigned char>(c) & 0xC0U) != 0x80U ? 1 : 0;
    }
    return width;
}

/* Length of the well-formed UTF-8 sequence at the beginning of the text; 0 when there is none. */
std::size_t utf8_length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    const std::size_t length = first < 0x80U                     ? 1U
                               : first >= 0xC2U && first < 0xE0U ? 2U
                               : first >= 0xE0U && first < 0xF0U ? 3U
                               : first >= 0xF0U && first < 0xF5U ? 4U
                                                                 : 0U;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80U) {
            return 0;
        }
    }
    if (length < 3) {
        return length;
    }
    const unsigned char second = byte(1);
    const bool overlong = (first == 0xE0U && second < 0xA0U) || (first == 0xF0U && second < 0x90U);
    const bool surrogate = first == 0xEDU && second > 0x9FU;
    const bool too_high = first == 0xF4U && second > 0x8FU;
    return overlong || surrogate || too_high ? 0 : length;
}

/* C0, DEL and C1: what could move the cursor. */
bool is_control(std::string_view character) {
    const auto first = static_cast<unsigned char>(character[0]);
    return first < 0x20U || first == 0x7FU ||
           (character.size() == 2 && first == 0xC2U &&
            static_cast<unsigned char>(character[1]) < 0xA0U);
}

void append_escaped(std::string &out, char c) {
    switch (c) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    std::array<char, 8> text;
    std::snprintf(text.data(), text.size(), "\\x%02X", static_cast<unsigned char>(c));
    out += text.data();
}

}  // namespace

look look_of_level(std::string_view level) {
    if (level == "FATAL" || level == "ERROR") {
        return look::bad;
    }
    if (level == "WARN") {
        return look::warning;
    }
    return level == "DEBUG" ? look::faint : look::plain;
}

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        if (length != 0 && !is_control(character)) {
            out += character;
        } else {
            for (const char c : character) {
                append_escaped(out, c);
            }
        }
        text.remove_prefix(character.size());
    }
    return out;
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string human_size(std::uint64_t bytes) {
    static constexpr std::array<const char *, 4> units = {"B", "KiB", "MiB", "GiB"};
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
    return text.data();
}

std::string human_time(std::int64_t microseconds_since_epoch) {
    const auto seconds = static_cast<time_t>(microseconds_since_epoch / 1000000);
    const auto milliseconds = static_cast<int>(microseconds_since_epoch % 1000000 / 1000);
    const time_t now = time(nullptr);
    struct tm then {};
    struct tm today {};
    localtime_r(&seconds, &then);
    localtime_r(&now, &today);
    const bool same_day = then.tm_year == today.tm_year && then.tm_yday == today.tm_yday;
    std::array<char, 48> text;
    const std::size_t length =
        strftime(text.data(), text.size(), same_day ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &then);
    std::snprintf(text.data() + length, text.size() - length, ".%03d", milliseconds);
    return text.data();
}

std::string log_time(std::int64_t microseconds_since_epoch) {
    const auto seconds = static_cast<time_t>(microseconds_since_epoch / 1000000);
    struct tm parts {};
    localtime_r(&seconds, &parts);
    std::array<char, 40> text;
    const std::size_t length = strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%06d",
                  static_cast<int>(microseconds_since_epoch % 1000000));
    return text.data();
}

std::string human_duration(std::int64_t seconds) {
    std::array<char, 64> text;
    if (seconds < 60) {
        std::snprintf(text.data(), text.size(), "%lld s", static_cast<long long>(seconds));
    } else if (seconds < 3600) {
        std::snprintf(text.data(), text.size(), "%lld min %lld s",
                      static_cast<long long>(seconds / 60), static_cast<long long>(seconds % 60));
    } else {
        std::snprintf(text.data(), text.size(), "%lld h %lld min",
                      static_cast<long long>(seconds / 3600),
                      static_cast<long long>(seconds % 3600 / 60));
    }
    return text.data();
}

bool output::terminal_takes_colours() {
    const char *no_colour = std::getenv("NO_COLOR");
    const char *terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || *no_colour == '\0') &&
           terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

std::string output::paint(look with, std::string_view text) const {
    if (!colour_ || with == look::plain || text.empty()) {
        return std::string(text);
    }
    return std::string("\033[") + colour_of(with) + "m" + std::string(text) + "\033[0m";
}

void output::line(std::string_view text) const {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void output::json_line(const nlohmann::json &value) const {
    line(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void output::done(std::string_view text, nlohmann::json value) const {
    if (!json_) {
        line(text);
        return;
    }
    value["ok"] = true;
    json_line(value);
}

namespace {

std::string row_text(const std::vector<table::cell> &row, const output &to,
                     const std::vector<std::size_t> &widths) {
    std::string text;
    for (std::size_t i = 0; i < row.size(); ++i) {
        text += to.paint(row[i].with, row[i].text);
        if (i + 1 < row.size()) {
            const std::size_t width = width_of(row[i].text);
            const std::size_t wanted = i < widths.size() ? widths[i] : 0;
            text += std::string(std::max(width, wanted) - width + 2, ' ');
        }
    }
    return text;
}

}  // namespace

void table::add_heads(std::initializer_list<const char *> heads) {
    std::vector<cell> row;
    for (const char *head : heads) {
        row.push_back({head, look::strong});
    }
    add(std::move(row));
}

void table::print(const output &to, std::size_t indent) const {
    std::vector<std::size_t> widths;
    for (const auto &row : rows_) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], width_of(row[i].text));
        }
    }
    for (const auto &row : rows_) {
        to.line(std::string(indent, ' ') + row_text(row, to, widths));
    }
}

void print_row(const std::vector<table::cell> &row, const output &to,
               const std::vector<std::size_t> &widths) {
    to.line(row_text(row, to, widths));
}

}  // namespace kze::ctl
