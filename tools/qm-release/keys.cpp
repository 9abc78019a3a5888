#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "release_tool.h"

namespace release {

KeyPaths keygen(const std::string& name) {
    KeyPaths paths{name + ".key", name + ".pub"};
    // Checked first, so that a key is never written beside a public key that is not its own.
    struct stat st;
    for (const std::string& p : {paths.secret, paths.pub})
        if (lstat(p.c_str(), &st) == 0)
            throw Failure("cannot create " + p + ": it exists already, and a key is never replaced");
    SecretKey key;
    unsigned char pub[crypto_sign_PUBLICKEYBYTES];
    crypto_sign_keypair(pub, key.bytes);
    std::string secret_hex = hex(key.bytes, sizeof key.bytes) + "\n";
    try {
        write_new_file(paths.secret, secret_hex, 0600);
        sodium_memzero(secret_hex.data(), secret_hex.size());
    } catch (...) {
        sodium_memzero(secret_hex.data(), secret_hex.size());
        throw;
    }
    try {
        write_new_file(paths.pub, hex(pub, sizeof pub) + "\n", 0644);
    } catch (...) {
        unlink(paths.secret.c_str());  // half a key pair is no use to anyone
        throw;
    }
    return paths;
}

void load_secret_key(const std::string& path, SecretKey& key) {
    const std::string what = "the key " + path;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) throw Failure("cannot read " + what + ": " + std::strerror(errno));
    std::string text;
    try {
        struct stat st;
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) throw Failure("cannot read " + what + ": not a regular file");
        if (st.st_mode & 077) {
            char mode[8];
            std::snprintf(mode, sizeof mode, "%04o", unsigned(st.st_mode & 07777));
            throw Failure("the key " + path + " is open to group or others (mode " + mode +
                          "); a signing key must be private: chmod 600 " + path);
        }
        text = read_small_fd(fd, 1024, what);
    } catch (...) {
        close(fd);
        throw;
    }
    close(fd);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    size_t bin_len = 0;
    bool decoded =
        text.size() == 2 * sizeof key.bytes &&
        sodium_hex2bin(key.bytes, sizeof key.bytes, text.data(), text.size(), nullptr, &bin_len, nullptr) == 0 &&
        bin_len == sizeof key.bytes;
    sodium_memzero(text.data(), text.size());
    if (!decoded) throw Failure(what + " is not " + std::to_string(2 * sizeof key.bytes) + " hexadecimal digits");
    // The public half is stored beside the seed; a key whose halves disagree signs nothing verifiable.
    unsigned char pub[crypto_sign_PUBLICKEYBYTES];
    SecretKey again;
    crypto_sign_seed_keypair(pub, again.bytes, key.bytes);
    if (sodium_memcmp(pub, key.public_key(), sizeof pub) != 0)
        throw Failure(what + " is damaged: its two halves do not match");
}

}  // namespace release
