#include "upgrade/kzemm_ioc_list.h"

#include <algorithm>
#include <utility>

#include "kzautil.h"

namespace {

constexpr size_t usual_name_size = 32;  // with the terminating zero

}  // namespace

ioc_st ioc_list::operator[](size_t position) const {
    const entry &from = entries[position];
    ioc_st record;
    kze_str_strlcpy(record.name, names.c_str() + from.name_at, sizeof(record.name));
    record.major = from.version.major;
    record.minor = from.version.minor;
    return record;
}

void ioc_list::reserve(size_t packs) {
    entries.reserve(packs);
    names.reserve(packs * usual_name_size);
}

void ioc_list::append(std::string_view name, const ioc_version &version) {
    const size_t name_at = names.size();
    names.append(name);
    names.push_back('\0');
    entries.push_back({version, name_at});
}

void ioc_list::sort() {
    std::sort(entries.begin(), entries.end(), [](const entry &left, const entry &right) {
        return std::pair(left.version, left.name_at) < std::pair(right.version, right.name_at);
    });
}
