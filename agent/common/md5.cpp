#include "agent/common/md5.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>

#include "platform/common/descriptor.h"

namespace kze {
namespace {

std::string to_hex(const unsigned char *bytes, unsigned int count) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(count * 2U);
    for (unsigned int i = 0; i < count; ++i) {
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0x0F]);
    }
    return text;
}

bool is_regular(int file) {
    struct stat info {};
    return fstat(file, &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

std::optional<std::string> md5_of_descriptor(int file) {
    if (!is_regular(file)) {
        return std::nullopt;
    }
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                    &EVP_MD_CTX_free);
    if (context == nullptr || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1) {
        return std::nullopt;
    }
    std::array<char, 64 * 1024> block;
    off_t offset = 0;
    for (;;) {
        const ssize_t got = pread(file, block.data(), block.size(), offset);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return std::nullopt;
        }
        if (got == 0) {
            break;
        }
        if (EVP_DigestUpdate(context.get(), block.data(), static_cast<size_t>(got)) != 1) {
            return std::nullopt;
        }
        offset += got;
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(context.get(), digest.data(), &size) != 1) {
        return std::nullopt;
    }
    return to_hex(digest.data(), size);
}

std::optional<std::string> md5_of_file(const std::string &path) {
    /* O_NONBLOCK: the open of a FIFO would wait for its writer. */
    const descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    return file.valid() ? md5_of_descriptor(file.get()) : std::nullopt;
}

std::optional<std::string> md5_of_bytes(std::string_view bytes) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned int size = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_md5(), nullptr) != 1) {
        return std::nullopt;
    }
    return to_hex(digest.data(), size);
}

}  // namespace kze
