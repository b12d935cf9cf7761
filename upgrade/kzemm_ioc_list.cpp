#include "upgrade/kzemm_ioc_list.h"

#include <algorithm>
#include <tuple>

#include "kzautil.h"

namespace {

constexpr size_t usual_name_size = 32;  // with the terminating zero

}  // namespace

ioc_st ioc_list::operator[](size_t position) const {
    const entry &from = entries[position];
    ioc_st record;
    kze_str_strlcpy(record.name, names.c_str() + from.name_at, sizeof(record.name));
    record.major = from.major;
    record.minor = from.minor;
    return record;
}

void ioc_list::reserve(size_t packs) {
    entries.reserve(packs);
    names.reserve(packs * usual_name_size);
}

void ioc_list::append(std::string_view name, int major, int minor) {
    const size_t name_at = names.size();
    names.append(name);
    names.push_back('\0');
    entries.push_back({major, minor, name_at});
}

void ioc_list::sort() {
    std::sort(entries.begin(), entries.end(), [](const entry &left, const entry &right) {
        return std::tie(left.major, left.minor, left.name_at) <
               std::tie(right.major, right.minor, right.name_at);
    });
}
