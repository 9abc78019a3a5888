#include "release_feed.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>

#include "json.h"
#include "qm_core.h"

namespace {

bool hex_digits(const std::string& s, size_t n, bool lower_only) {
    if (s.size() != n) return false;
    for (char c : s) {
        bool ok = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (!lower_only && c >= 'A' && c <= 'F');
        if (!ok) return false;
    }
    return true;
}

bool ends_with(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

ServiceResponse json_answer(int status, std::string body) {
    ServiceResponse r;
    r.status = status;
    r.body = std::move(body);
    return r;
}

// Reads at most limit + 1 bytes, so that a longer file shows as longer than the limit.
std::optional<std::string> read_bounded(int fd, int64_t limit) {
    std::string out;
    char buf[16 * 1024];
    while (int64_t(out.size()) <= limit) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        out.append(buf, size_t(n));
    }
    return out;
}

}  // namespace

FileBody::~FileBody() { close(fd_); }

bool plain_archive_name(std::string_view name) {
    if (name.size() <= 4 || name.size() > 255 || name.front() == '.' || !ends_with(name, ".zip")) return false;
    // A control character, NUL above all, would make the name the system opens differ from the one checked.
    return std::none_of(name.begin(), name.end(),
                        [](unsigned char c) { return c == '/' || c == '\\' || c < 0x20 || c == 0x7f; });
}

std::variant<Release, std::string> read_release(std::string_view text) {
    auto doc = json::parse(text);
    if (!doc || doc->kind != json::Value::Kind::Object) return std::string("not a JSON object");
    Release r;
    std::pair<const char*, std::string*> texts[] = {{"platform", &r.platform}, {"channel", &r.channel},
                                                    {"version", &r.version},   {"notes", &r.notes},
                                                    {"filename", &r.filename}, {"url", &r.url},
                                                    {"sha256", &r.sha256},     {"signature", &r.signature}};
    for (auto& [key, field] : texts) {
        auto value = doc->string_at(key);
        if (!value) return std::string("no text field \"") + key + "\"";
        *field = *value;
    }
    if (r.platform.empty() || r.channel.empty() || r.version.empty() || r.url.empty())
        return std::string("\"platform\", \"channel\", \"version\" and \"url\" must not be empty");
    // The app keeps the download under this name: never a path.
    if (!plain_archive_name(r.filename)) return std::string("\"filename\" is not a plain file name ending in .zip");
    // The app signs over the digest exactly as served, so only the signer's lower-case form works.
    if (!hex_digits(r.sha256, 64, true)) return std::string("\"sha256\" is not 64 lower-case hexadecimal digits");
    if (!hex_digits(r.signature, 128, false)) return std::string("\"signature\" is not 128 hexadecimal digits");
    const json::Value* size = doc->find("size");
    auto bytes = size ? size->as_unsigned(INT64_MAX) : std::nullopt;
    if (!bytes) return std::string("\"size\" is not a whole number of bytes");
    r.size = int64_t(*bytes);
    const json::Value* mandatory = doc->find("mandatory");
    if (!mandatory || mandatory->kind != json::Value::Kind::Bool)
        return std::string("\"mandatory\" is not true or false");
    r.mandatory = mandatory->boolean;
    for (char& c : r.signature)
        if (c >= 'A' && c <= 'F') c = char(c - 'A' + 'a');
    return r;
}

std::string release_json(const Release& r) {
    return "{\"platform\":" + json::quote(r.platform) + ",\"channel\":" + json::quote(r.channel) +
           ",\"version\":" + json::quote(r.version) + ",\"notes\":" + json::quote(r.notes) +
           ",\"filename\":" + json::quote(r.filename) + ",\"url\":" + json::quote(r.url) +
           ",\"size\":" + std::to_string(r.size) + ",\"sha256\":" + json::quote(r.sha256) +
           ",\"signature\":" + json::quote(r.signature) + ",\"mandatory\":" + (r.mandatory ? "true" : "false") + "}";
}

std::vector<Release> ReleaseFeed::releases() {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(dir_.c_str()), closedir);
    if (!dir) throw std::runtime_error("cannot read the release folder " + dir_ + ": " + std::strerror(errno));
    std::set<std::string> names;  // sorted, so that equal versions are always decided the same way
    while (dirent* e = readdir(dir.get())) {
        std::string name = e->d_name;
        // Dot files are half-written descriptions (qm-release writes under a dot name, then renames).
        if (name.front() != '.' && ends_with(name, ".json")) names.insert(name);
    }

    std::lock_guard<std::mutex> lock(mutex_);
    std::erase_if(seen_, [&](const auto& entry) { return !names.count(entry.first); });
    std::vector<Release> out;
    for (const std::string& name : names) {
        std::string path = dir_ + "/" + name;
        struct stat st;
        if (stat(path.c_str(), &st) != 0) continue;  // gone since the listing
        int64_t mtime_ns = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
        Seen& seen = seen_[name];
        bool unchanged =
            seen.inode == uint64_t(st.st_ino) && seen.mtime_ns == mtime_ns && seen.size == int64_t(st.st_size);
        if (!unchanged) {
            seen = Seen{mtime_ns, int64_t(st.st_size), uint64_t(st.st_ino), std::nullopt};
            std::string why;
            int fd = S_ISREG(st.st_mode) ? open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1;
            std::optional<std::string> text = fd >= 0 ? read_bounded(fd, kMaxDescription) : std::nullopt;
            if (fd >= 0) close(fd);
            if (!S_ISREG(st.st_mode)) why = "not a regular file";
            else if (!text) why = std::string("cannot read it: ") + std::strerror(errno);
            else if (int64_t(text->size()) > kMaxDescription) why = "larger than 64 KiB";
            else if (auto r = read_release(*text); auto* release = std::get_if<Release>(&r)) seen.release = *release;
            else why = std::get<std::string>(r);
            if (!why.empty())
                std::fprintf(stderr, "qm-server: skipping the release description %s: %s\n", path.c_str(), why.c_str());
        }
        if (seen.release) out.push_back(*seen.release);
    }
    return out;
}

ServiceResponse ReleaseFeed::check(const std::map<std::string, std::string>& query) {
    auto value = [&](const char* key) {
        auto it = query.find(key);
        return it == query.end() ? std::string() : it->second;
    };
    std::string platform = value("platform"), channel = value("channel"), version = value("version");
    if (platform.empty() || channel.empty())
        return json_answer(400,
                           json::message("Ask with the query parameters platform, channel and version, for example "
                                         "?platform=macos&channel=stable&version=1.2.0."));
    std::optional<Release> newest;
    for (Release& r : releases()) {
        if (r.platform != platform || r.channel != channel) continue;
        if (!newest || qm_version_compare(r.version.c_str(), newest->version.c_str()) > 0) newest = std::move(r);
    }
    // The asked version back tells the app it is up to date.
    if (!newest) return json_answer(200, "{\"version\":" + json::quote(version) + "}");
    return json_answer(200, release_json(*newest));
}

ServiceResponse ReleaseFeed::archive(const std::string& name) const {
    ServiceResponse missing = json_answer(404, json::message("There is no release archive by that name."));
    if (!plain_archive_name(name)) return missing;
    // O_NOFOLLOW: a link placed in the folder never hands out a file from elsewhere.
    int fd = open((dir_ + "/" + name).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return missing;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return missing;
    }
    ServiceResponse res;
    res.content_type = "application/zip";
    res.file = std::make_shared<FileBody>(fd, int64_t(st.st_size));
    return res;
}
