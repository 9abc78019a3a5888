// The release feed: one signed description per release (JSON files written by qm-release sign)
// in a folder, answered per platform and channel, and the archives beside them served as files.
// Plain functions of a request like the rest of the service; only the streaming is the front's.
#pragma once
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "service.h"

struct Release {
    std::string platform, channel, version, notes, filename, url, sha256, signature;
    int64_t size = 0;
    bool mandatory = false;
};

// The release a description holds, or one line saying why it is not one.
std::variant<Release, std::string> read_release(std::string_view text);
// The release as the app reads it from the feed.
std::string release_json(const Release& r);
// A name the feed serves an archive under: one plain file name ending in ".zip".
bool plain_archive_name(std::string_view name);

// An open file handed to the front as a response body; closed when the last answer holding it
// goes, so a file replaced while it is sent is still sent whole.
class FileBody {
public:
    FileBody(int fd, int64_t size) : fd_(fd), size_(size) {}
    ~FileBody();
    FileBody(const FileBody&) = delete;
    FileBody& operator=(const FileBody&) = delete;
    int fd() const { return fd_; }
    int64_t size() const { return size_; }

private:
    int fd_;
    int64_t size_;
};

class ReleaseFeed {
public:
    static constexpr int64_t kMaxDescription = 64 * 1024;

    explicit ReleaseFeed(std::string dir) : dir_(std::move(dir)) {}

    // GET /api/v1/update/check with the query parameters platform, channel and version.
    ServiceResponse check(const std::map<std::string, std::string>& query);
    // GET /releases/<name>.
    ServiceResponse archive(const std::string& name) const;

    // The well-formed releases in the folder now, by file name. Throws std::runtime_error when
    // the folder cannot be read.
    std::vector<Release> releases();

private:
    struct Seen {
        int64_t mtime_ns = 0, size = 0;
        uint64_t inode = 0;
        std::optional<Release> release;  // none: malformed, reported once until the file changes
    };

    std::string dir_;
    std::mutex mutex_;
    std::map<std::string, Seen> seen_;  // by file name; re-read only when the file changed
};
