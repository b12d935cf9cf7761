/*
 * IOC packs by name and version, and the order in which they are applied.
 */
#ifndef KZEMDLMGR_UPGRADE_KZEMM_IOC_LIST_H
#define KZEMDLMGR_UPGRADE_KZEMM_IOC_LIST_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// One IOC pack, or the version of the engine. Versions are ordered by major, then minor.
struct ioc_st {
    char name[1024] = {};  // of the pack, without its last extension; empty for the engine
    int major = 0;
    int minor = 0;
};

// The order of all versions.
struct ioc_version {
    int major = 0;
    int minor = 0;
};
inline bool operator<(const ioc_version &left, const ioc_version &right) {
    return left.major != right.major ? left.major < right.major : left.minor < right.minor;
}

/*
 * A list of ioc_st. It keeps what a record is made of, tens of bytes a pack, and makes the record
 * of a kilobyte when it is asked for: with whole records kept, a directory of 100,000 packs costs
 * 100 MB, whose first touch alone takes several times as long as all of the ordering.
 *
 * Threads: one at a time.
 */
class ioc_list {
  public:
    bool empty() const { return entries.empty(); }
    size_t size() const { return entries.size(); }

    // The record at a position below size(); of a longer name its first 1,023 bytes.
    ioc_st operator[](size_t position) const;
    // Makes room for that many packs with names of a usual length, so that adding them moves
    // nothing. Throws std::bad_alloc with the list as it was.
    void reserve(size_t packs);
    // Adds a pack at the end. The name is copied and holds no zero byte. Throws std::bad_alloc
    // with the list as it was.
    void append(std::string_view name, const ioc_version &version);
    // Puts the packs into rising order of their versions; those of one version stay in the order
    // in which they were added. Allocates nothing.
    void sort();

  private:
    struct entry {
        ioc_version version;
        size_t name_at;  // in names
    };

    std::vector<entry> entries;
    std::string names;  // of all packs in the order they were added, each with its terminating zero
};

#endif
