#include <cerrno>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include "kzautil.h"
#include "platform/common/small_file.h"
#include "platform/kzautil/ini_edit.h"
#include "platform/kzautil/replacement.h"

namespace {

constexpr size_t max_size = 1024UL * 1024;

using parsed_ini = CSimpleIniCaseA;

// One thread at a time. The text is what is saved; the parser, which forgets part of the comments,
// only reads it.
struct ini_document {
    std::string text;
    std::unique_ptr<parsed_ini> values;
};

// From then on the parser gives what was set.
void take_quotes_off(parsed_ini &values) {
    parsed_ini::TNamesDepend sections;
    values.GetAllSections(sections);
    for (const auto &section : sections) {
        parsed_ini::TNamesDepend keys;
        values.GetAllKeys(section.pItem, keys);
        for (const auto &key : keys) {
            const std::string written = values.GetValue(section.pItem, key.pItem, "");
            const std::string value = ini_value(written);
            if (value != written && values.SetValue(section.pItem, key.pItem, value.c_str()) < 0) {
                throw std::bad_alloc();
            }
        }
    }
}

// Null for what is no text or doesn't fit into a document.
std::unique_ptr<parsed_ini> parse(const std::string &text) {
    auto values = std::make_unique<parsed_ini>();
    const bool good = text.size() <= max_size && text.find('\0') == std::string::npos &&
                      values->LoadData(text) >= 0;
    if (!good) {
        return nullptr;
    }
    take_quotes_off(*values);
    return values;
}

bool has_control(const std::string &text) {
    for (const char c : text) {
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F) {
            return true;
        }
    }
    return false;
}

int set_value(ini_document &document, const std::string &section, const std::string &key,
              const std::string &value) {
    if (has_control(section) || has_control(key) || has_control(value)) {
        return EINVAL;
    }
    std::string text = ini_text_with(document.text, section, key, ini_written(value));
    if (text.size() > max_size) {
        return EFBIG;
    }
    auto values = parse(text);
    const char *read_back =
        values == nullptr ? nullptr : values->GetValue(section.c_str(), key.c_str(), nullptr);
    if (read_back == nullptr || read_back != value) {
        return EINVAL;
    }
    document.text = std::move(text);
    document.values = std::move(values);
    return 0;
}

}  // namespace

void *kze_ini_file_load(const char *path) {
    try {
        auto document = std::make_unique<ini_document>();
        if (path != nullptr && !kze_small_file::read(path, max_size, document->text)) {
            return nullptr;
        }
        document->values = parse(document->text);
        return document->values == nullptr ? nullptr : document.release();
    } catch (const std::exception &) {
        return nullptr;
    }
}

const char *kze_ini_file_get(void *ini, const char *section, const char *key) {
    if (ini == nullptr || section == nullptr || key == nullptr) {
        return nullptr;
    }
    return static_cast<ini_document *>(ini)->values->GetValue(section, key, nullptr);
}

int kze_ini_file_set(void *ini, const char *section, const char *key, const char *value) {
    if (ini == nullptr || section == nullptr || key == nullptr || value == nullptr) {
        return EINVAL;
    }
    try {
        return set_value(*static_cast<ini_document *>(ini), section, key, value);
    } catch (const std::exception &) {
        return ENOMEM;
    }
}

int kze_ini_file_save(void *ini, const char *path, int flags) {
    if (ini == nullptr || path == nullptr || flags != 0) {
        return EINVAL;
    }
    try {
        const std::string &text = static_cast<ini_document *>(ini)->text;
        replacement file;
        int error = file.open(path, 0600);
        if (error == 0) {
            error = file.write(text.data(), text.size());
        }
        return error == 0 ? file.commit() : error;
    } catch (const std::exception &) {
        return ENOMEM;
    }
}

void kze_ini_file_free(void *ini) {
    delete static_cast<ini_document *>(ini);
}
