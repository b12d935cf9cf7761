/* What kzectl prints: plain text with colours on a terminal, tables, JSON for programs. */
#ifndef KZE_AGENT_CTL_CORE_OUTPUT_H
#define KZE_AGENT_CTL_CORE_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace kze::ctl {

enum class look { plain, strong, faint, good, warning, bad, accent };

/* How a line of that level word looks. */
look look_of_level(std::string_view level);

/* A text that no byte of outside data can turn into more than a line: control characters and what
 * is no UTF-8 stand in it as \xNN, the usual ones as \n, \r and \t. */
std::string printable(std::string_view text);

/* Whether all of the bytes are well-formed UTF-8. */
bool is_utf8(std::string_view text);

/* "1.2 KiB" for people; 1024 bytes are a KiB. */
std::string human_size(std::uint64_t bytes);

/* "12:03:11.042", local time of today, with the date in front on another day. */
std::string human_time(std::int64_t microseconds_since_epoch);

/* As the logs write it, local: "2024-05-01 12:34:56.123456". */
std::string log_time(std::int64_t microseconds_since_epoch);

/* "3 min 12 s" */
std::string human_duration(std::int64_t seconds);

/* How this run prints. One thread at a time. */
class output {
  public:
    bool json() const { return json_; }
    void set_json(bool on) { json_ = on; }
    void set_colour(bool on) { colour_ = on; }
    /* Whether standard output takes colours: a terminal, and NO_COLOR isn't set. */
    static bool terminal_takes_colours();

    /* The text with the look's colour around it, or as it is without colours. */
    std::string paint(look with, std::string_view text) const;

    /* One line on standard output. */
    void line(std::string_view text) const;
    /* One line of JSON on standard output; bytes that are no UTF-8 are replaced. */
    void json_line(const nlohmann::json &value) const;
    /* The text for people, or the value for programs; {"ok":true} is added to an object. */
    void done(std::string_view text, nlohmann::json value = nlohmann::json::object()) const;

  private:
    bool json_ = false;
    bool colour_ = false;
};

/* Columns of equal width, two blanks apart; the last one isn't padded. One thread at a time. */
class table {
  public:
    struct cell {
        std::string text;
        look with = look::plain;
    };

    void add(std::vector<cell> row) { rows_.push_back(std::move(row)); }
    void add_heads(std::initializer_list<const char *> heads);
    bool empty() const { return rows_.empty(); }
    void print(const output &to, std::size_t indent = 0) const;

  private:
    std::vector<std::vector<cell>> rows_;
};

/* A row without a table around it, each cell at least as wide as its number in `widths` says. */
void print_row(const std::vector<table::cell> &row, const output &to,
               const std::vector<std::size_t> &widths = {});

}  // namespace kze::ctl

#endif
