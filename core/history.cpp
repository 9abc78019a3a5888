// Document version histories: the log reader, version and document reads, the restore
// that adds a saved point, and the list of documents that have a history.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "drive_files.h"
#include "qm_core_internal.h"
#include "util.h"

namespace drive_files = qm::drive_files;
using qm::util::kPathMax;

struct qm_history {
    qm_version_entry* entries;
    int32_t count;
    int32_t capacity;
    char doc[256];  // one name in a folder
    char root[kPathMax];
};

namespace {

constexpr long kFileLimit = QM_TEXT_LIMIT;
constexpr int kMaxFields = 9;
constexpr size_t kRefsKeep = 2048;
constexpr size_t kRefsStop = 1919;

// A name from a drive must stay inside its folder (no separators, no "." or "..") and hold no
// control character, which would split the document list or the log's columns.
bool safe_name(const char* name) {
    if (!name[0] || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p)
        if (*p < 0x20 || *p == 0x7F || *p == '/' || *p == '\\') return false;
    return true;
}

size_t stripped_length(const char* root) {
    size_t n = std::strlen(root);
    while (n > 0 && (root[n - 1] == '/' || root[n - 1] == '\\')) --n;
    return n;
}

// Paths that do not fit are refused rather than cut, so a long name never turns into another file.
bool join2(char dst[kPathMax], const char* root, const char* name) {
    int w = std::snprintf(dst, kPathMax, "%.*s/%s", int(stripped_length(root)), root, name);
    return w >= 0 && size_t(w) < kPathMax;
}

bool join3(char dst[kPathMax], const char* root, const char* mid, const char* name) {
    int w = std::snprintf(dst, kPathMax, "%.*s/%s/%s", int(stripped_length(root)), root, mid, name);
    return w >= 0 && size_t(w) < kPathMax;
}

// The history folder and .qmv above it must be real folders, not links leading elsewhere.
bool history_folder_is_real(const char* root, const char* doc) {
    char qmv[kPathMax], folder[kPathMax];
    struct stat a, b;
    return join2(qmv, root, ".qmv") && join3(folder, root, ".qmv", doc) && lstat(qmv, &a) == 0 && S_ISDIR(a.st_mode) &&
           lstat(folder, &b) == 0 && S_ISDIR(b.st_mode);
}

bool history_path(char dst[kPathMax], const char* root, const char* doc, const char* name) {
    char mid[kPathMax];
    int w = std::snprintf(mid, sizeof mid, ".qmv/%s", doc);
    return w >= 0 && size_t(w) < sizeof mid && join3(dst, root, mid, name);
}

// Reads a regular file of at most 4 MiB into a fresh NUL-terminated buffer; links and FIFOs
// on the drive are refused.
uint8_t* read_whole(const char* path, long* len) {
    size_t size = 0;
    int fd = drive_files::open_regular(AT_FDCWD, path, size_t(kFileLimit), &size);
    if (fd < 0) return nullptr;
    uint8_t* buf = static_cast<uint8_t*>(std::malloc(size + 1));
    if (buf && !drive_files::read_exact(fd, buf, size)) {
        std::free(buf);
        buf = nullptr;
    }
    close(fd);
    if (!buf) return nullptr;
    buf[size] = 0;
    *len = long(size);
    return buf;
}

// True when the file is empty or ends with a line feed, so an appended line starts a line of its own.
bool ends_with_newline(int fd, off_t size) {
    char last = '\n';
    return size == 0 || (pread(fd, &last, 1, size - 1) == 1 && last == '\n');
}

void copy_field(char* dst, size_t width, const char* src, size_t len) {
    size_t n = len < width - 1 ? len : width - 1;
    std::memcpy(dst, src, n);
    dst[n] = 0;
}

int32_t to_int32(const char* s) {
    long long v = std::strtoll(s, nullptr, 10);
    return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : int32_t(v);
}

uint32_t to_uint32(const char* s) {
    unsigned long long v = std::strtoull(s, nullptr, 10);
    return v > UINT32_MAX ? UINT32_MAX : uint32_t(v);
}

struct Field {
    const char* p;
    size_t len;
};

// Up to nine tab-separated fields; the ninth ends at the next tab. Returns the count.
int split_fields(const char* line, size_t len, Field out[kMaxFields]) {
    int n = 0;
    size_t start = 0;
    for (size_t pos = 0; pos <= len && n < kMaxFields; ++pos) {
        if (pos < len && line[pos] != '\t') continue;
        out[n++] = Field{line + start, pos - start};
        start = pos + 1;
    }
    return n;
}

// Fills an entry from one log line; false when the line is not a version line.
bool parse_line(const char* line, size_t len, qm_version_entry* e) {
    Field f[kMaxFields];
    int n = split_fields(line, len, f);
    if (n < 8 || f[0].len == 0 || f[0].p[0] < '0' || f[0].p[0] > '9') return false;
    *e = qm_version_entry{};
    char num[24];
    copy_field(num, sizeof num, f[0].p, f[0].len);
    e->id = to_int32(num);
    copy_field(num, sizeof num, f[1].p, f[1].len);
    e->parent = to_int32(num);
    copy_field(e->branch, sizeof e->branch, f[2].p, f[2].len);
    e->kind = f[3].len ? int32_t(int8_t(f[3].p[0])) : 0;
    copy_field(num, sizeof num, f[5].p, f[5].len);
    e->length = to_uint32(num);
    copy_field(e->file, sizeof e->file, f[6].p, f[6].len);
    copy_field(e->when, sizeof e->when, f[7].p, f[7].len);
    if (n == 9) copy_field(e->tag, sizeof e->tag, f[8].p, f[8].len);
    return true;  // the hash column is left 0: nothing on this side compares fingerprints
}

bool append_entry(qm_history* h, const qm_version_entry& e) {
    if (h->count == h->capacity) {
        int32_t cap = h->capacity * 2;
        void* grown = std::realloc(h->entries, size_t(cap) * sizeof(qm_version_entry));
        if (!grown) return false;
        h->entries = static_cast<qm_version_entry*>(grown);
        h->capacity = cap;
    }
    h->entries[h->count++] = e;
    return true;
}

bool load_entries(qm_history* h, const char* text, long len) {
    const char* end = text + len;
    for (const char* line = text; line < end;) {
        const char* nl = static_cast<const char*>(std::memchr(line, '\n', size_t(end - line)));
        const char* stop = nl ? nl : end;
        size_t n = size_t(stop - line);
        if (n > 0 && line[n - 1] == '\r') --n;  // a log that went through a CRLF editor still reads
        qm_version_entry e;
        if (n > 0 && std::strncmp(line, "QMV", n < 3 ? n : 3) != 0 && parse_line(line, n, &e) && !append_entry(h, e))
            return false;
        line = stop + 1;
    }
    return true;
}

qm_history* fail_open(int32_t code, int32_t* err, qm_history* h) {
    if (h) std::free(h->entries);
    std::free(h);
    if (err) *err = code;
    return nullptr;
}

const qm_version_entry* find_version(const qm_history* h, int32_t id) {
    for (int32_t i = 0; i < h->count; ++i)
        if (h->entries[i].id == id) return &h->entries[i];
    return nullptr;
}

// The entry with the largest id, the first of equals winning.
const qm_version_entry* latest_version(const qm_history* h) {
    const qm_version_entry* best = nullptr;
    for (int32_t i = 0; i < h->count; ++i)
        if (!best || h->entries[i].id > best->id) best = &h->entries[i];
    return best;
}

// ".ext" from the last dot of the document name, at most 7 characters, else ".txt".
void version_file_name(char out[64], int32_t number, const char* stamp, const char* doc) {
    const char* dot = std::strrchr(doc, '.');
    std::snprintf(out, 64, "%04d-%.13s%.7s", number, stamp, dot ? dot : ".txt");
}

bool stamp_is_clean(const char* stamp) { return !std::strpbrk(stamp, "\t\n\r/\\"); }

// Keeps the deck's own lines (not "base"), up to about 1.9 KiB, whole lines only.
size_t kept_refs_lines(const char* old, long len, char out[kRefsKeep]) {
    size_t kept = 0;
    const char* end = old + len;
    for (const char* line = old; line < end && kept <= kRefsStop;) {
        const char* nl = static_cast<const char*>(std::memchr(line, '\n', size_t(end - line)));
        const char* stop = nl ? nl : end;
        size_t n = size_t(stop - line);
        bool keep = n > 0 && !(n >= 5 && std::memcmp(line, "base\t", 5) == 0);
        if (keep && kept + n + 1 > kRefsKeep) break;
        if (keep) {
            std::memcpy(out + kept, line, n);
            out[kept + n] = '\n';
            kept += n + 1;
        }
        line = stop + 1;
    }
    return kept;
}

// The refs file as it will be after the restore: the deck's lines kept, then the new base line.
size_t new_refs(const char* path, uint64_t hash, size_t len, char out[kRefsKeep + 64]) {
    size_t n = 0;
    long old_len = 0;
    if (uint8_t* old = read_whole(path, &old_len)) {
        n = kept_refs_lines(reinterpret_cast<const char*>(old), old_len, out);
        std::free(old);
    }
    int w = std::snprintf(out + n, 64, "base\t%016llx\t%lu\n", static_cast<unsigned long long>(hash),
                          static_cast<unsigned long>(len));
    return n + size_t(w);
}

// Whether path is free for a regular file or holds one; a link, folder or FIFO standing there
// is never replaced. mode receives the file's permissions, or the default for a new file.
bool regular_or_absent(const char* path, mode_t* mode) {
    struct stat st;
    *mode = 0644;
    if (lstat(path, &st) != 0) return errno == ENOENT;
    *mode = st.st_mode & 07777;
    return S_ISREG(st.st_mode);
}

bool folder_of(char dst[kPathMax], const char* path) {
    const char* slash = std::strrchr(path, '/');
    if (!slash) return false;
    std::snprintf(dst, kPathMax, "%.*s", int(slash == path ? 1 : slash - path), path);
    return true;
}

// Makes a rename or a new name in the folder reach the drive. Best effort: some file systems
// refuse to flush a folder, and the files themselves are flushed already.
void flush_folder(const char* path) {
    char folder[kPathMax];
    if (!folder_of(folder, path)) return;
    int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

bool write_flushed(int fd, const void* data, size_t len, mode_t mode) {
    fchmod(fd, mode);  // may be refused where the file system has no permissions; harmless
    bool ok = drive_files::write_all(fd, data, len) && fsync(fd) == 0;
    return close(fd) == 0 && ok;
}

// A file written in full under a dot name beside its final place, waiting to be renamed over it.
struct Pending {
    char temp[kPathMax] = "";
    bool write(const char* target, const void* data, size_t len, mode_t mode) {
        char folder[kPathMax];
        int w = folder_of(folder, target) ? std::snprintf(temp, sizeof temp, "%s/.qm-restore-XXXXXX", folder) : -1;
        int fd = w >= 0 && size_t(w) < sizeof temp ? mkostemp(temp, O_CLOEXEC) : -1;
        if (fd < 0) {
            temp[0] = 0;
            return false;
        }
        return write_flushed(fd, data, len, mode);
    }
    bool rename_to(const char* target) {
        if (rename(temp, target) != 0) return false;
        temp[0] = 0;
        flush_folder(target);
        return true;
    }
    ~Pending() {
        if (temp[0]) unlink(temp);
    }
};

// Appends one whole line to the log and flushes it; on any failure the log is cut back to
// old_size, so no half line stays.
bool append_flushed(int fd, off_t old_size, const char* line, size_t len) {
    if (drive_files::write_all(fd, line, len) && fsync(fd) == 0) return true;
    if (ftruncate(fd, old_size) == 0) fsync(fd);
    return false;
}

bool names_a_version(const qm_history* h, const char* file) {
    for (int32_t i = 0; i < h->count; ++i)
        if (std::strcmp(h->entries[i].file, file) == 0) return true;
    return false;
}

// Adds the saved point so that a failure (a full or read-only drive, a document that cannot be
// replaced) leaves the document and every file of its history as they were: everything that
// takes room on the drive is written and flushed first, then the log line is appended (and cut
// back on failure), then the document is replaced by a rename. A drive pulled out part way
// leaves at worst a file that no log line names. Only refs follows the point of no return; if
// its rename fails the restore still stands, and the stale base line only makes the deck take
// one more snapshot.
int32_t add_saved_point(const qm_history* h, int32_t restored, const char* stamp, const uint8_t* text, size_t len) {
    const qm_version_entry* latest = latest_version(h);
    if (latest->id == INT32_MAX) return QM_EIO;
    int32_t number = (latest->id < 0 ? 0 : latest->id) + 1;
    char file[64], version_path[kPathMax], doc_path[kPathMax], log_path[kPathMax], refs_path[kPathMax];
    version_file_name(file, number, stamp, h->doc);
    if (!history_path(version_path, h->root, h->doc, file) || !join2(doc_path, h->root, h->doc) ||
        !history_path(log_path, h->root, h->doc, "history.log") || !history_path(refs_path, h->root, h->doc, "refs"))
        return QM_EIO;
    mode_t doc_mode, refs_mode, version_mode;
    if (names_a_version(h, file) || !regular_or_absent(doc_path, &doc_mode) ||
        !regular_or_absent(refs_path, &refs_mode) || !regular_or_absent(version_path, &version_mode))
        return QM_EIO;

    uint64_t hash = fnv1a64(text, len);
    char refs[kRefsKeep + 64];
    size_t refs_len = new_refs(refs_path, hash, len, refs);
    int log = drive_files::open_regular_for_writing(log_path, O_RDWR | O_APPEND, 0);
    struct stat log_st;
    if (log < 0 || fstat(log, &log_st) != 0) {
        if (log >= 0) close(log);
        return QM_EIO;
    }
    char line[320];
    char tag[64];
    std::snprintf(tag, sizeof tag, "reverted to version %d", restored);
    int line_len =
        std::snprintf(line, sizeof line, "%s%d\t%d\t%s\t%c\t%016llx\t%lu\t%s\t%.23s\t%s\n",
                      ends_with_newline(log, log_st.st_size) ? "" : "\n", number, latest->id,
                      latest->branch[0] ? latest->branch : "main", 't', static_cast<unsigned long long>(hash),
                      static_cast<unsigned long>(len), file, stamp, tag);

    // A file already bearing the new name is one that no log line names (checked above), left by
    // an interrupted restore, and is replaced.
    int version = drive_files::open_regular_for_writing(version_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    bool version_made = version >= 0;
    Pending doc_temp, refs_temp;
    bool ok = version_made && write_flushed(version, text, len, 0644) &&
              doc_temp.write(doc_path, text, len, doc_mode) && refs_temp.write(refs_path, refs, refs_len, refs_mode);
    if (ok) flush_folder(version_path);  // the version file's name reaches the drive before a log line names it
    ok = ok && append_flushed(log, log_st.st_size, line, size_t(line_len));
    if (ok && !doc_temp.rename_to(doc_path)) {
        if (ftruncate(log, log_st.st_size) == 0) fsync(log);
        ok = false;
    }
    close(log);
    if (!ok) {
        if (version_made) unlink(version_path);
        return QM_EIO;
    }
    refs_temp.rename_to(refs_path);
    return QM_OK;
}

}  // namespace

extern "C" qm_history* qm_history_open(const char* root, const char* doc, int32_t* err) {
    if (!root || !doc || !safe_name(doc)) return fail_open(QM_EARG, err, nullptr);
    if (std::strlen(doc) >= sizeof qm_history::doc || std::strlen(root) >= sizeof qm_history::root)
        return fail_open(QM_EARG, err, nullptr);
    char path[kPathMax];
    if (!history_path(path, root, doc, "history.log")) return fail_open(QM_EARG, err, nullptr);  // too deep to reach
    long len = 0;
    uint8_t* text = history_folder_is_real(root, doc) ? read_whole(path, &len) : nullptr;
    if (!text) return fail_open(QM_ENOHISTORY, err, nullptr);

    qm_history* h = static_cast<qm_history*>(std::calloc(1, sizeof(qm_history)));
    if (h) h->entries = static_cast<qm_version_entry*>(std::malloc(32 * sizeof(qm_version_entry)));
    if (!h || !h->entries) {
        std::free(text);
        return fail_open(QM_EIO, err, h);
    }
    h->capacity = 32;
    std::strcpy(h->doc, doc);
    std::strcpy(h->root, root);
    bool loaded = load_entries(h, reinterpret_cast<const char*>(text), len);
    std::free(text);
    if (!loaded) return fail_open(QM_EIO, err, h);
    if (err) *err = QM_OK;
    return h;
}

extern "C" void qm_history_close(qm_history* h) {
    if (!h) return;
    std::free(h->entries);
    std::free(h);
}

extern "C" int32_t qm_history_count(const qm_history* h) { return h ? h->count : 0; }

extern "C" int32_t qm_history_get(const qm_history* h, int32_t index, qm_version_entry* out) {
    if (!h || !out || index < 0 || index >= h->count) return QM_EARG;
    *out = h->entries[index];
    return QM_OK;
}

// Copies what fits of a whole file and returns its full length.
static int32_t read_into(const char* path, uint8_t* buf, int32_t cap) {
    long len = 0;
    uint8_t* data = read_whole(path, &len);
    if (!data) return QM_EIO;
    size_t n = size_t(len) < size_t(cap - 1) ? size_t(len) : size_t(cap - 1);
    std::memcpy(buf, data, n);
    buf[n] = 0;
    std::free(data);
    return int32_t(len);
}

extern "C" int32_t qm_version_read(const qm_history* h, int32_t id, uint8_t* buf, int32_t cap) {
    if (!h || !buf || cap < 1) return QM_EARG;
    const qm_version_entry* e = find_version(h, id);
    if (!e) return QM_EARG;
    char path[kPathMax];
    if (!safe_name(e->file) || !history_path(path, h->root, h->doc, e->file)) return QM_EIO;
    return read_into(path, buf, cap);
}

extern "C" int32_t qm_doc_read(const char* root, const char* doc, uint8_t* buf, int32_t cap) {
    if (!root || !doc || !buf || cap < 1 || !safe_name(doc)) return QM_EARG;
    char path[kPathMax];
    if (!join2(path, root, doc)) return QM_EIO;
    return read_into(path, buf, cap);
}

extern "C" int32_t qm_qmv_revert(qm_history* h, int32_t id, const char* stamp) {
    if (!h || !stamp || !stamp_is_clean(stamp)) return QM_EARG;
    uint8_t* text = static_cast<uint8_t*>(std::malloc(size_t(QM_TEXT_LIMIT) + 1));
    if (!text) return QM_EIO;
    int32_t len = qm_version_read(h, id, text, QM_TEXT_LIMIT + 1);
    if (len >= 0 && !history_folder_is_real(h->root, h->doc)) len = QM_EIO;  // swapped for a link since opening
    int32_t rc = len < 0 ? len : add_saved_point(h, id, stamp, text, size_t(len));
    std::free(text);
    return rc;
}

extern "C" int32_t qm_qmv_docs(const char* root, char* out, int32_t cap) {
    if (!root || !out || cap < 1) return QM_EARG;
    out[0] = 0;
    char dir_path[kPathMax];
    if (!join2(dir_path, root, ".qmv")) return QM_EARG;  // a drive this deep has histories we cannot reach
    DIR* dir = opendir(dir_path);
    if (!dir) return 0;
    int32_t count = 0;
    size_t used = 0;
    while (struct dirent* d = readdir(dir)) {
        if (d->d_name[0] == '.' || !safe_name(d->d_name)) continue;
        char full[kPathMax];
        struct stat st;
        if (!join2(full, dir_path, d->d_name) || lstat(full, &st) != 0 || !S_ISDIR(st.st_mode)) continue;
        size_t n = std::strlen(d->d_name);
        if (used + n + 1 >= size_t(cap)) break;  // a name that does not fit ends the list
        std::memcpy(out + used, d->d_name, n);
        out[used + n] = '\n';
        used += n + 1;
        out[used] = 0;
        ++count;
    }
    closedir(dir);
    return count;
}
