#include "ini_fuzz.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "kzautil.h"

namespace {

void require(bool good, const char *rule) {
    if (good)
        return;
    fprintf(stderr, "broken: %s\n", rule);
    abort();
}

// A directory that goes with the program; in memory where possible, since saving syncs.
class Directory {
  public:
    Directory() : name_(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") {
        name_ += "/kze_ini_fuzz_XXXXXX";
        require(mkdtemp(name_.data()) != nullptr, "a temporary directory can be made");
    }
    ~Directory() { std::filesystem::remove_all(name_); }
    std::string file() const { return name_ + "/fuzz.ini"; }

  private:
    std::string name_;
};

std::string value_of(void *ini, const char *section, const char *key) {
    const char *value = kze_ini_file_get(ini, section, key);
    return value == nullptr ? "(none)" : value;
}

// A header opened by the very last character takes whatever comes behind it for its name, so that
// nothing can be added.
bool swallows_what_follows(const std::string &text) {
    const size_t last = text.find_last_not_of(" \t\r\n");
    return last != std::string::npos && text[last] == '[';
}

void change(void *ini, const std::string &file) {
    const std::string other = value_of(ini, "s", "other");
    const std::string elsewhere = value_of(ini, "t", "k");
    require(kze_ini_file_set(ini, "s", "k", "first value") == 0, "a value can be set");
    require(value_of(ini, "s", "k") == "first value", "what was set is there");
    require(kze_ini_file_set(ini, "s", "k", "second") == 0, "a value can be set again");
    require(kze_ini_file_save(ini, file.c_str(), 0) == 0, "a document can be saved");
    void *saved = kze_ini_file_load(file.c_str());
    require(saved != nullptr, "what was saved can be loaded");
    require(value_of(saved, "s", "k") == "second", "what was set last is saved");
    require(value_of(saved, "s", "other") == other, "another key stays as it was");
    require(value_of(saved, "t", "k") == elsewhere, "another section stays as it was");
    kze_ini_file_free(saved);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const Directory directory;
    const std::string file = directory.file();
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::ofstream(file, std::ios::binary) << text;

    void *ini = kze_ini_file_load(file.c_str());
    require((ini != nullptr) == (text.find('\0') == std::string::npos), "any text can be loaded");
    if (ini != nullptr && !swallows_what_follows(text))
        change(ini, file);
    kze_ini_file_free(ini);
    return 0;
}
