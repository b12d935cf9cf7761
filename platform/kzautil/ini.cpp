#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <string>

#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include "kzautil.h"
#include "replacement.h"

namespace {

constexpr size_t max_size = 1024UL * 1024;

struct IniDocument {
    CSimpleIniCaseA content;
};

bool read_file(const char *path, std::string &out) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return false;
    struct stat status {};
    bool good = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    out.resize(max_size + 1);
    size_t length = 0;
    while (good && length < out.size()) {
        const ssize_t got = read(fd, &out[length], out.size() - length);
        if (got == 0)
            break;
        good = got > 0 || errno == EINTR;
        length += got > 0 ? static_cast<size_t>(got) : 0;
    }
    close(fd);
    out.resize(length);
    return good && length <= max_size;
}

bool has_control(const std::string &text) {
    for (const char c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            return true;
    return false;
}

bool is_section(const std::string &name) {
    return !name.empty() && !has_control(name) && name.find(']') == std::string::npos;
}

bool is_key(const std::string &name) {
    return !name.empty() && !has_control(name) && name.find('=') == std::string::npos &&
           std::string(";#[").find(name[0]) == std::string::npos;
}

}  // namespace

void *kze_ini_file_load(const char *path) {
    try {
        auto document = std::make_unique<IniDocument>();
        std::string data;
        if (path != nullptr && !read_file(path, data))
            return nullptr;
        if (document->content.LoadData(data) < 0)
            return nullptr;
        return document.release();
    } catch (const std::exception &) {
        return nullptr;
    }
}

const char *kze_ini_file_get(void *ini, const char *section, const char *key) {
    if (ini == nullptr || section == nullptr || key == nullptr)
        return nullptr;
    return static_cast<IniDocument *>(ini)->content.GetValue(section, key, nullptr);
}

int kze_ini_file_set(void *ini, const char *section, const char *key, const char *value) {
    if (ini == nullptr || section == nullptr || key == nullptr || value == nullptr)
        return EINVAL;
    try {
        if (!is_section(section) || !is_key(key) || has_control(value))
            return EINVAL;
        const SI_Error result =
            static_cast<IniDocument *>(ini)->content.SetValue(section, key, value);
        return result < 0 ? ENOMEM : 0;
    } catch (const std::exception &) {
        return ENOMEM;
    }
}

int kze_ini_file_save(void *ini, const char *path, int flags) {
    if (ini == nullptr || path == nullptr || flags != 0)
        return EINVAL;
    try {
        std::string data;
        if (static_cast<IniDocument *>(ini)->content.Save(data) < 0)
            return ENOMEM;
        Replacement file;
        int error = file.open(path, 0600);
        if (error == 0)
            error = file.write(data.data(), data.size());
        return error == 0 ? file.commit() : error;
    } catch (const std::exception &) {
        return ENOMEM;
    }
}

void kze_ini_file_free(void *ini) {
    delete static_cast<IniDocument *>(ini);
}
