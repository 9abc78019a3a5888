#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "json.h"
#include "release_tool.h"

namespace release {

namespace {

using Entry = std::unique_ptr<archive_entry, void (*)(archive_entry*)>;

std::string why() { return std::strerror(errno); }

std::string real_path(const std::string& path) {
    std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), std::free);
    return real ? std::string(real.get()) : std::string();
}

std::string error_of(archive* a) {
    const char* text = archive_error_string(a);
    return text ? text : "unknown error";
}

struct OpenFile {
    int fd;
    ~OpenFile() {
        if (fd >= 0) close(fd);
    }
};

bool inside(const std::string& path, const std::string& root) { return path == root || path.rfind(root + "/", 0) == 0; }

class Packer {
public:
    Packer(const std::string& root, archive* a)
        : root_(root), root_real_(real_path(root)), top_(base_name(root)), a_(a) {}

    // rel: the path below the bundle folder, empty for the folder itself.
    void add(const std::string& rel) {
        std::string path = rel.empty() ? root_ : root_ + "/" + rel;
        std::string name = rel.empty() ? top_ : top_ + "/" + rel;
        if (!valid_utf8(name)) throw Failure(path + ": the name is not UTF-8, which the archive's readers expect");
        struct stat st;
        // The bundle itself may be reached through a link; nothing inside it is followed.
        if ((rel.empty() ? stat(path.c_str(), &st) : lstat(path.c_str(), &st)) != 0)
            throw Failure("cannot read " + path + ": " + why());
        Entry e(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname_utf8(e.get(), name.c_str());
        // Write access for group or others never ships: the app would not unpack it as such.
        archive_entry_set_perm(e.get(), st.st_mode & 0755);
        archive_entry_set_mtime(e.get(), st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
        if (S_ISDIR(st.st_mode)) {
            archive_entry_set_filetype(e.get(), AE_IFDIR);
            header(e.get(), path);
            for (const std::string& child : children(path)) add(rel.empty() ? child : rel + "/" + child);
        } else if (S_ISREG(st.st_mode)) {
            archive_entry_set_filetype(e.get(), AE_IFREG);
            archive_entry_set_size(e.get(), st.st_size);
            header(e.get(), path);
            copy_contents(path, st);
        } else if (S_ISLNK(st.st_mode)) {
            std::string target = link_target(path, rel);
            archive_entry_set_filetype(e.get(), AE_IFLNK);
            archive_entry_set_symlink_utf8(e.get(), target.c_str());
            header(e.get(), path);
        } else {
            throw Failure(path + " is neither a file, a folder nor a link; a release holds nothing else");
        }
    }

private:
    void header(archive_entry* e, const std::string& path) {
        if (archive_write_header(a_, e) != ARCHIVE_OK) throw Failure("cannot add " + path + ": " + error_of(a_));
    }

    static std::vector<std::string> children(const std::string& path) {
        std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path.c_str()), closedir);
        if (!dir) throw Failure("cannot read " + path + ": " + why());
        std::vector<std::string> names;
        while (dirent* d = readdir(dir.get()))
            if (std::strcmp(d->d_name, ".") != 0 && std::strcmp(d->d_name, "..") != 0) names.emplace_back(d->d_name);
        std::sort(names.begin(), names.end());  // the same bundle always makes the same archive
        return names;
    }

    void copy_contents(const std::string& path, const struct stat& listed) {
        OpenFile file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
        if (file.fd < 0) throw Failure("cannot read " + path + ": " + why());
        struct stat st;
        if (fstat(file.fd, &st) != 0 || st.st_ino != listed.st_ino || st.st_dev != listed.st_dev)
            throw Failure(path + " changed while it was being packed; pack again");
        std::vector<char> buf(256 * 1024);
        int64_t left = listed.st_size;
        while (left > 0) {
            ssize_t n = read(file.fd, buf.data(), size_t(std::min<int64_t>(left, int64_t(buf.size()))));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw Failure("cannot read " + path + ": " + why());
            if (n == 0) throw Failure(path + " changed while it was being packed; pack again");
            if (archive_write_data(a_, buf.data(), size_t(n)) != n)
                throw Failure("cannot add " + path + ": " + error_of(a_));
            left -= n;
        }
    }

    // The link's target, when it stays inside the bundle wherever the bundle is unpacked.
    std::string link_target(const std::string& path, const std::string& rel) {
        std::vector<char> buf(4096);
        ssize_t n = readlink(path.c_str(), buf.data(), buf.size());
        if (n < 0) throw Failure("cannot read the link " + path + ": " + why());
        if (size_t(n) >= buf.size()) throw Failure("the link " + path + " is too long");
        std::string target(buf.data(), size_t(n));
        auto outside = [&] { return Failure("the link " + path + " points outside the bundle (" + target + ")"); };
        if (target.empty() || target.front() == '/') throw outside();
        // Lexically, from the link's own folder...
        std::vector<std::string> at;
        std::string parent = rel.find('/') == std::string::npos ? "" : dir_name(rel);
        for (std::string rest = parent + "/" + target; !rest.empty();) {
            size_t slash = rest.find('/');
            std::string part = rest.substr(0, slash);
            rest = slash == std::string::npos ? "" : rest.substr(slash + 1);
            if (part.empty() || part == ".") continue;
            if (part != "..") at.push_back(part);
            else if (at.empty()) throw outside();
            else at.pop_back();
        }
        // ...and through the links it passes on the way, which the lexical walk cannot see.
        std::string real = real_path(path);
        if (real.empty()) throw Failure("the link " + path + " points to nothing (" + target + ")");
        if (!inside(real, root_real_)) throw outside();
        if (!valid_utf8(target)) throw Failure("the link " + path + ": the target is not UTF-8");
        return target;
    }

    std::string root_, root_real_, top_;
    archive* a_;
};

std::string bundle_version(const std::string& bundle) {
    std::string path = bundle + "/bundle.json";
    auto doc = json::parse(read_small_file(path, 1024 * 1024, path));
    if (!doc) throw Failure(path + " is not JSON");
    auto version = doc->string_at("version");
    if (!version) throw Failure(path + " has no text field \"version\"");
    if (!plain_label(*version))
        throw Failure(path + ": the version \"" + *version + "\" is not letters, digits, '.', '-', '+', '_' and '~'");
    auto key = doc->string_at("update_public_key");
    unsigned char bytes[32];
    size_t len = 0;
    if (!key || key->size() != 64 || sodium_hex2bin(bytes, 32, key->data(), 64, nullptr, &len, nullptr) != 0)
        std::fprintf(stderr, "qm-release: warning: %s has no update_public_key of 64 hex digits, so this release "
                             "cannot check the one after it\n", path.c_str());
    return *version;
}

std::string without_trailing_slashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// Makes the output folder and the parents it lacks, none of them inside the bundle.
void make_out_dir(const std::string& out_dir, const std::string& bundle) {
    std::string existing = without_trailing_slashes(out_dir);
    std::vector<std::string> missing;
    struct stat st;
    while (stat(existing.c_str(), &st) != 0) {
        if (errno != ENOENT) throw Failure("cannot use " + out_dir + ": " + why());
        std::string name = base_name(existing);
        if (name == "..") throw Failure("cannot make " + out_dir + ": name it without \"..\"");
        missing.push_back(name);
        existing = without_trailing_slashes(dir_name(existing));
    }
    if (!S_ISDIR(st.st_mode)) throw Failure(existing + " is not a folder");
    if (missing.empty()) return;
    if (inside(real_path(existing), real_path(bundle)))
        throw Failure("the archive cannot be written inside the bundle it packs");
    for (auto name = missing.rbegin(); name != missing.rend(); ++name) {
        existing += "/" + *name;
        if (mkdir(existing.c_str(), 0777) != 0 && errno != EEXIST)
            throw Failure("cannot make the folder " + existing + ": " + why());
    }
}

}  // namespace

std::string pack(const std::string& bundle_dir, const std::string& out_dir) {
    std::string bundle = bundle_dir;
    while (bundle.size() > 1 && bundle.back() == '/') bundle.pop_back();
    std::string top = base_name(bundle);
    if (top.size() <= 4 || top.compare(top.size() - 4, 4, ".app") != 0)
        throw Failure(bundle_dir + " is not an app bundle: its name does not end in .app");
    struct stat st;
    if (stat(bundle.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) throw Failure(bundle_dir + " is not a folder");
    std::string version = bundle_version(bundle);
    make_out_dir(out_dir, bundle);
    // An archive growing inside the folder it packs would pack itself.
    if (inside(real_path(out_dir), real_path(bundle)))
        throw Failure("the archive cannot be written inside the bundle it packs");

    std::string path = without_trailing_slashes(out_dir) + "/QuillmateFlasher-" + version + ".zip";
    AtomicFile out(path);
    std::unique_ptr<archive, int (*)(archive*)> a(archive_write_new(), archive_write_free);
    if (archive_write_set_format_zip(a.get()) != ARCHIVE_OK ||
        archive_write_set_options(a.get(), "zip:compression=deflate,zip:hdrcharset=UTF-8") != ARCHIVE_OK ||
        archive_write_open_fd(a.get(), out.fd()) != ARCHIVE_OK)
        throw Failure("cannot start the archive: " + error_of(a.get()));
    Packer(bundle, a.get()).add("");
    if (archive_write_close(a.get()) != ARCHIVE_OK)
        throw Failure("cannot finish " + out.temp_path() + ": " + error_of(a.get()));
    out.commit();
    return path;
}

}  // namespace release
