#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "json.h"
#include "qm_core_internal.h"
#include "release_tool.h"

namespace release {

namespace {

const char kArchivePrefix[] = "QuillmateFlasher-";
// The service reads release descriptions up to this size.
constexpr size_t kMaxDescription = 64 * 1024;
// The app's verifier refuses longer messages.
constexpr size_t kMaxMessage = 256;

bool ends_with(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

struct Digest {
    int64_t size = 0;
    std::string sha256;
};

// Streams the archive through the core's SHA-256, the same code the app checks it with.
Digest digest_of(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) throw Failure("cannot read the archive " + path + ": " + std::strerror(errno));
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        throw Failure("cannot read the archive " + path + ": not a regular file");
    }
    sha256_ctx ctx;
    sha256_init(&ctx);
    std::vector<char> buf(1024 * 1024);
    Digest d;
    for (;;) {
        ssize_t n = read(fd, buf.data(), buf.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            std::string reason = std::strerror(errno);
            close(fd);
            throw Failure("cannot read the archive " + path + ": " + reason);
        }
        if (n == 0) break;
        sha256_update(&ctx, buf.data(), size_t(n));
        d.size += n;
    }
    close(fd);
    if (d.size != int64_t(st.st_size)) throw Failure("the archive " + path + " changed while it was read; sign again");
    uint8_t out[32];
    sha256_final(&ctx, out);
    d.sha256 = hex(out, sizeof out);
    return d;
}

bool plausible_url(const std::string& url) {
    if (url.rfind("https://", 0) != 0 && url.rfind("http://", 0) != 0) return false;
    for (unsigned char c : url)
        if (c <= ' ' || c == 0x7f) return false;
    return valid_utf8(url);
}

}  // namespace

bool plain_label(const std::string& s) {
    if (s.empty() || s.size() > 64 || s.front() == '.') return false;
    for (unsigned char c : s) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  (c && std::strchr(".-+_~", c));
        if (!ok) return false;
    }
    return true;
}

std::optional<std::string> version_from_archive_name(const std::string& file_name) {
    const std::string prefix = kArchivePrefix, suffix = ".zip";
    if (file_name.rfind(prefix, 0) != 0 || !ends_with(file_name, suffix)) return std::nullopt;
    std::string version = file_name.substr(prefix.size(), file_name.size() - prefix.size() - suffix.size());
    if (!plain_label(version)) return std::nullopt;
    return version;
}

std::string sign(const SignOptions& o) {
    const char* const label_rule = "is not 1 to 64 letters, digits, '.', '-', '+', '_' and '~'";
    if (!plain_label(o.platform)) throw Failure("the platform \"" + o.platform + "\" " + label_rule);
    if (!plain_label(o.channel)) throw Failure("the channel \"" + o.channel + "\" " + label_rule);
    if (!plausible_url(o.url))
        throw Failure("the URL \"" + o.url + "\" is not an http:// or https:// address without spaces");
    std::string file_name = base_name(o.archive);
    if (!ends_with(file_name, ".zip") || file_name.size() <= 4 || file_name.front() == '.')
        throw Failure("the archive's name " + file_name +
                      " does not end in .zip or starts with a dot; the service serves neither");
    std::string version;
    if (o.version) {
        version = *o.version;
        if (!plain_label(version)) throw Failure("the version \"" + version + "\" " + label_rule);
    } else if (auto from_name = version_from_archive_name(file_name)) {
        version = *from_name;
    } else {
        throw Failure("cannot tell the version from the archive's name " + file_name + " (" + kArchivePrefix +
                      "VERSION.zip); give it with --version");
    }

    SecretKey key;
    load_secret_key(o.key, key);
    std::string notes;
    if (o.notes_file) {
        notes = read_small_file(*o.notes_file, kMaxDescription, "the notes " + *o.notes_file);
        if (!valid_utf8(notes)) throw Failure("the notes " + *o.notes_file + " are not valid UTF-8 text");
    }
    Digest d = digest_of(o.archive);

    char message[kMaxMessage + 2];
    int made = qm_update_message(o.platform.c_str(), o.channel.c_str(), version.c_str(), d.sha256.c_str(), d.size,
                                 message, int(sizeof message));
    if (made != 0 || std::strlen(message) > kMaxMessage)
        throw Failure(
            "platform, channel and version are too long together: the app checks signed messages of at most 256 bytes");
    unsigned char signature[crypto_sign_BYTES];
    crypto_sign_detached(signature, nullptr, reinterpret_cast<const unsigned char*>(message), std::strlen(message),
                         key.bytes);
    // Checked with the app's own verifier, so a release that cannot install is never published.
    if (qm_update_verify(message, signature, key.public_key()) != 1)
        throw Failure("the signature does not pass the app's own check; nothing was written");

    std::string json = std::string("{\n") +                                          //
                       "  \"platform\": " + json::quote(o.platform) + ",\n" +        //
                       "  \"channel\": " + json::quote(o.channel) + ",\n" +          //
                       "  \"version\": " + json::quote(version) + ",\n" +            //
                       "  \"notes\": " + json::quote(notes) + ",\n" +                //
                       "  \"filename\": " + json::quote(file_name) + ",\n" +         //
                       "  \"url\": " + json::quote(o.url) + ",\n" +                  //
                       "  \"size\": " + std::to_string(d.size) + ",\n" +             //
                       "  \"sha256\": \"" + d.sha256 + "\",\n" +                     //
                       "  \"signature\": \"" + hex(signature, sizeof signature) + "\",\n" +
                       "  \"mandatory\": " + (o.mandatory ? "true" : "false") + "\n}\n";
    if (json.size() > kMaxDescription)
        throw Failure("the release description would be larger than the service reads (64 KiB); shorten the notes");

    std::string out = o.out;
    if (out.empty())
        out = dir_name(o.archive) + "/" + file_name.substr(0, file_name.size() - 4) + "-" + o.platform + "-" +
              o.channel + ".json";
    AtomicFile file(out);
    file.write(json.data(), json.size());
    file.commit();
    return out;
}

}  // namespace release
