// qm-release's commands as functions: each returns what it wrote, or throws Failure with the
// one line the user sees after "qm-release: ".
#pragma once
#include <sodium.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace release {

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- files -------------------------------------------------------------------------------

// A file written under a dot name beside its final path and renamed over it by commit(), so a
// run that fails halfway leaves nothing behind. Readable by everyone (umask permitting): the
// service reads what this tool writes.
class AtomicFile {
public:
    explicit AtomicFile(const std::string& final_path);
    ~AtomicFile();  // removes the temporary file unless committed
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    int fd() const { return fd_; }
    const std::string& temp_path() const { return temp_; }
    void write(const void* data, size_t n);
    void commit();  // flushes to disk, then renames into place

private:
    std::string final_, temp_;
    int fd_ = -1;
    bool committed_ = false;
};

// Writes data to a file that must not exist yet, created with mode from its first byte.
void write_new_file(const std::string& path, const std::string& data, unsigned mode);
// A whole regular file of at most limit bytes; what names it ("the key K") goes into errors.
std::string read_small_file(const std::string& path, size_t limit, const std::string& what);
std::string read_small_fd(int fd, size_t limit, const std::string& what);

std::string hex(const unsigned char* bytes, size_t n);
bool valid_utf8(const std::string& text);
std::string base_name(const std::string& path);
std::string dir_name(const std::string& path);

// ---- keys --------------------------------------------------------------------------------

struct SecretKey {
    unsigned char bytes[crypto_sign_SECRETKEYBYTES];  // seed, then the public key
    ~SecretKey() { sodium_memzero(bytes, sizeof bytes); }
    const unsigned char* public_key() const { return bytes + crypto_sign_SECRETKEYBYTES - crypto_sign_PUBLICKEYBYTES; }
};

struct KeyPaths {
    std::string secret, pub;
};
// NAME.key (128 hex digits and a newline, mode 0600) and NAME.pub (64 hex digits and a newline).
KeyPaths keygen(const std::string& name);
// Refuses a key file that group or others may read, like ssh does.
void load_secret_key(const std::string& path, SecretKey& key);

// ---- pack --------------------------------------------------------------------------------

// Zips BUNDLE.app into out_dir/QuillmateFlasher-<version>.zip; returns the archive's path.
std::string pack(const std::string& bundle_dir, const std::string& out_dir);

// ---- sign --------------------------------------------------------------------------------

struct SignOptions {
    std::string key, archive, platform, channel, url, out;
    std::optional<std::string> version, notes_file;
    bool mandatory = false;
};
// Writes the release description; returns its path.
std::string sign(const SignOptions& o);

// The version an archive's name "QuillmateFlasher-<version>.zip" carries, if it does.
std::optional<std::string> version_from_archive_name(const std::string& file_name);
// A version, platform or channel the tool puts into file names and the signed message.
bool plain_label(const std::string& s);

}  // namespace release
