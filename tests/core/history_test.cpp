// Document histories on drives written by the deck simulator and by hand: reading, restoring,
// the log's odd lines, and names, links and FIFOs on a drive that try to lead elsewhere.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "documents.h"
#include "qm_core_internal.h"
#include "temp_dir.h"

namespace fs = std::filesystem;
const char kStamp[] = "2025-03-03 14:05:09", kRefs[] = "head\t7\nbase\t0\t1\n\nsync\tdeck\n";

struct History {
    int32_t err = 1;  // declared first: the open below writes it
    qm_history* h = nullptr;
    History(const std::string& root, const std::string& doc) : h(qm_history_open(root.c_str(), doc.c_str(), &err)) {}
    ~History() { qm_history_close(h); }
    std::vector<qm_version_entry> entries() const {
        std::vector<qm_version_entry> out(size_t(qm_history_count(h)));
        for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(qm_history_get(h, int32_t(i), &out[i]), 0);
        return out;
    }
    std::string read(int32_t id) const {  // the text, or "rc" and the result
        std::string text(QM_TEXT_LIMIT + 1, '\0');
        int32_t n = qm_version_read(h, id, reinterpret_cast<uint8_t*>(text.data()), int32_t(text.size()));
        return n < 0 ? "rc " + std::to_string(n) : text.substr(0, size_t(n));
    }
    void refused(int32_t id) const {
        EXPECT_EQ(read(id), "rc -2") << "read of " << id;
        EXPECT_EQ(qm_qmv_revert(h, id, kStamp), QM_EIO) << "restore of " << id;
    }
};

std::string read_doc(const std::string& root, const std::string& doc) {
    std::string text(QM_TEXT_LIMIT + 1, '\0');
    int32_t n = qm_doc_read(root.c_str(), doc.c_str(), reinterpret_cast<uint8_t*>(text.data()), int32_t(text.size()));
    return n < 0 ? "rc " + std::to_string(n) : text.substr(0, size_t(n));
}
std::set<std::string> docs(const std::string& root) {
    std::vector<char> buf(1 << 16);
    int32_t n = qm_qmv_docs(root.c_str(), buf.data(), int32_t(buf.size()));
    std::set<std::string> names;
    for (const char *p = buf.data(), *nl; (nl = std::strchr(p, '\n')); p = nl + 1) names.emplace(p, nl);
    EXPECT_EQ(int32_t(names.size()), n);
    return names;
}
std::string hash_of(const std::string& t) {
    char b[17];
    std::snprintf(b, sizeof b, "%016llx", static_cast<unsigned long long>(fnv1a64(t.data(), t.size())));
    return b;
}

std::map<std::string, std::string> tree(const std::string& root) {
    std::map<std::string, std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(root))
        out[e.path().string()] = e.is_regular_file() ? slurp(e.path().string()) : "<other>";
    return out;
}
// The paths whose content differs between two trees, or that only one of them has.
std::string changed_paths(const std::map<std::string, std::string>& a, const std::map<std::string, std::string>& b) {
    std::string out;
    for (const auto& [path, data] : a)
        if (!b.count(path) || b.at(path) != data) out += path + " ";
    for (const auto& [path, data] : b)
        if (!a.count(path)) out += path + " ";
    return out;
}

TEST(LogLines, OddFieldCountsCutFieldsCrlfAndSizeLimits) {
    TempDir dir;
    const std::string branch(40, 'b'), file(70, 'f'), when(30, 'w'), tag(80, 'g');
    spit(dir / ".qmv/a.txt/history.log",
         "QMV\t1\n1\t0\tmain\ta\t0\t3\tv1.txt\t2025-03-01 09:00:00\tfirst draft\ttenth field\n"
         "90\t1\tmain\ta\t0\t0\tgone.txt\ndraft\t1\tmain\tt\t0\t0\tx.txt\t2025-03-01 10:00:00\tnot a version\n"
         "2\t1\tmain\ta\t0\t3\tv2.txt\t2025-03-01 11:00:00\r\n"
         "12\t-3\t" + branch + "\tTail\tffff\t99999999999\t" + file + "\t" + when + "\t" + tag + "\r\n");  // too long
    std::vector<qm_version_entry> e = History(dir.path(), "a.txt").entries();
    ASSERT_EQ(e.size(), 3u) << "a line of seven fields or with a word for its number is skipped";
    EXPECT_EQ(std::string(e[0].tag) + "|" + e[1].when + "|" + e[1].tag, "first draft|2025-03-01 11:00:00|")
        << "a tenth field is ignored; eight fields: no tag, and no CR";
    EXPECT_EQ(std::vector<int64_t>({e[0].length, e[2].id, e[2].parent, e[2].kind, e[2].length}),
              std::vector<int64_t>({3, 12, -3, 'T', UINT32_MAX})) << "an over-large length saturates";
    EXPECT_EQ(std::string(e[2].branch) + e[2].file + e[2].when + e[2].tag,
              branch.substr(0, 31) + file.substr(0, 63) + when.substr(0, 23) + tag.substr(0, 63));  // cut, no CR
    for (int size : {QM_TEXT_LIMIT, QM_TEXT_LIMIT + 1}) {
        spit(dir / ".qmv/blank.txt/history.log", std::string(size_t(size), '\n'));
        EXPECT_EQ(History(dir.path(), "blank.txt").err, size > QM_TEXT_LIMIT ? QM_ENOHISTORY : 0) << "4 MiB at most";
    }
}

// A document with seven versions under root; its refs hold deck lines around a stale base line by
// default. Returns the log.
std::string version_text(int v) { return "Version " + std::to_string(v) + "\nof the notes\n"; }
std::string write_seven_versions(const std::string& root, const std::string& doc = "Notes.txt",
                                 bool final_newline = true, const std::string& refs = kRefs) {
    std::string log = "QMV\t1\n";
    for (int v = 1; v <= 7; ++v) {
        spit(root + "/.qmv/" + doc + "/v" + std::to_string(v) + ".txt", version_text(v));
        log += std::to_string(v) + "\t" + std::to_string(v - 1) + "\tmain\ta\t0\t23\tv" + std::to_string(v) +
               ".txt\t2025-03-01 09:00:00\n";
    }
    if (!final_newline) log.pop_back();
    spit(root + "/.qmv/" + doc + "/history.log", log);
    if (!refs.empty()) spit(root + "/.qmv/" + doc + "/refs", refs);
    spit(root + "/" + doc, version_text(7));
    return log;
}

// A restore adds saved point 8: version file, document, log line and refs (deck lines up to 1919 bytes).
TEST(Restore, AddsASavedPointAndRewritesDocumentLogAndRefs) {
    std::string long_refs;
    for (int i = 0; i < 30; ++i) long_refs += "deck\t" + std::string(95, char('a' + i % 26)) + "\n";  // 101 bytes
    const struct { std::string doc; bool final_newline; std::string refs, file, refs_kept; } cases[] = {
        {"Notes.txt", true, kRefs, "0008-2025-03-03 14.txt", "head\t7\nsync\tdeck\n"},
        {"Notes.txt", false, long_refs, "0008-2025-03-03 14.txt", long_refs.substr(0, 20 * 101)},
        {"Letter to Ana", true, "", "0008-2025-03-03 14.txt", ""},
        {"Paper.markdown", true, "", "0008-2025-03-03 14.markdo", ""},
        {"archive.tar.gz", true, "", "0008-2025-03-03 14.gz", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.doc + (c.final_newline ? "" : ", no final line feed"));
        TempDir dir;
        const std::string log = write_seven_versions(dir.path(), c.doc, c.final_newline, c.refs);
        const std::string folder = dir / (".qmv/" + c.doc + "/"), v3 = version_text(3);
        History hist(dir.path(), c.doc);
        for (const char* stamp : {"2025/03/03 14:05:09", "2025-03-03\t14:05:09", "2025-03-03\n14:05:09"})
            EXPECT_EQ(qm_qmv_revert(hist.h, 3, stamp), QM_EARG) << "a stamp may not name a folder nor break the log";
        ASSERT_EQ(qm_qmv_revert(hist.h, 3, kStamp), 0);
        EXPECT_EQ(slurp(folder + c.file) + "|" + slurp(dir / c.doc), v3 + "|" + v3) << "version file | document";
        EXPECT_EQ(slurp(folder + "history.log"), log + (c.final_newline ? "" : "\n") + "8\t7\tmain\tt\t" +
                  hash_of(v3) + "\t23\t" + c.file + "\t2025-03-03 14:05:09\treverted to version 3\n");
        EXPECT_EQ(slurp(folder + "refs"), c.refs_kept + "base\t" + hash_of(v3) + "\t23\n");
    }
}

// A file system mounted for a test and unmounted on every way out: a tmpfs with the given options,
// or without options the path bound read-only onto itself. The process first takes a mount
// namespace of its own, so even a crash leaves nothing mounted for anyone else.
class TestMount {
public:
    TestMount(const std::string& at, const char* tmpfs_options) : at_(at) {
        static const bool own_namespace =
            unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        (void)own_namespace;  // without one, the destructor alone cleans up
        if (tmpfs_options) fs::create_directories(at);
        mounted_ = tmpfs_options ? mount("qm-test", at.c_str(), "tmpfs", 0, tmpfs_options) == 0
                                 : mount(at.c_str(), at.c_str(), nullptr, MS_BIND, nullptr) == 0;
        ok_ = mounted_ && (tmpfs_options || remount(MS_BIND | MS_RDONLY));
    }
    TestMount(const TestMount&) = delete;
    ~TestMount() {
        if (mounted_) umount2(at_.c_str(), MNT_DETACH);
    }
    bool ok() const { return ok_; }
    bool remount(unsigned long flags) { return mount(nullptr, at_.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0; }

private:
    std::string at_;
    bool mounted_ = false, ok_ = false;
};

const long kPage = sysconf(_SC_PAGESIZE);

// Fills the file system holding root, then frees `pages` pages again.
void fill_leaving(const std::string& root, int pages) {
    int fd = open((root + "/filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    const std::string block(size_t(kPage), 'f');
    off_t size = 0;
    for (ssize_t w; (w = write(fd, block.data(), block.size())) > 0;) size += w;
    ASSERT_EQ(ftruncate(fd, std::max<off_t>(0, (size + kPage - 1) / kPage - pages) * kPage), 0);
    close(fd);
}

// A restore on a drive that fills up at each of its steps, that is read-only, or whose document
// cannot be replaced: it either completes or leaves every byte of the drive as it was.
TEST(Restore, AFullOrReadOnlyDriveLeavesDocumentAndHistoryAsTheyWere) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIPPED: needs root to mount a tmpfs";
    TempDir dir;
    const std::string root = dir / "drive", folder = root + "/.qmv/Notes.txt/", v3 = version_text(3);
    // Each file written takes a page; the log is padded so that the new line takes a fresh one.
    const struct { const char* what; int free_pages; bool read_only, doc_read_only; int32_t rc; } cases[] = {
        {"no room for the version file", 0, false, false, QM_EIO},
        {"no room for the document's new text", 1, false, false, QM_EIO},
        {"no room for the new refs", 2, false, false, QM_EIO},
        {"no room for the log line", 3, false, false, QM_EIO},
        {"just enough room", 4, false, false, QM_OK},
        {"a read-only drive", 8, true, false, QM_EIO},
        {"a document that cannot be replaced", 8, false, true, QM_EIO},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TestMount drive(root, "size=256k");
        if (!drive.ok()) GTEST_SKIP() << "SKIPPED: cannot mount a tmpfs here";
        std::string log = write_seven_versions(root);
        log += std::string(size_t(kPage) - 16 - log.size(), '\n');  // blank lines, which readers skip
        spit(folder + "history.log", log);
        fill_leaving(root, c.free_pages);
        if (c.read_only) {
            ASSERT_TRUE(drive.remount(MS_RDONLY));
        }
        std::optional<TestMount> doc;
        if (c.doc_read_only) {
            ASSERT_TRUE(doc.emplace(root + "/Notes.txt", nullptr).ok());
        }
        const auto before = tree(root);
        History hist(root, "Notes.txt");
        EXPECT_EQ(qm_qmv_revert(hist.h, 3, kStamp), c.rc);
        if (c.rc != QM_OK) {
            EXPECT_EQ(changed_paths(before, tree(root)), "") << "a failed restore leaves the drive as it was";
            continue;
        }
        EXPECT_EQ(slurp(folder + "history.log"), log + "8\t7\tmain\tt\t" + hash_of(v3) +
                  "\t23\t0008-2025-03-03 14.txt\t2025-03-03 14:05:09\treverted to version 3\n");
    }
}

// A deck drive with logs and folders whose names lead elsewhere: what is within reads as the deck wrote it,
// on a drive mounted deep in the file system too. A drive too deep to reach is refused, not shown empty.
TEST(DeckHistory, VersionsReadBackAndNamesNeverLeaveTheHistoryFolder) {
    TempDir top;
    const std::string deep = top / (std::string(200, 'a') + "/" + std::string(200, 'b') + "/" + std::string(200, 'c'));
    std::string too_deep = deep;
    while (too_deep.size() < PATH_MAX) too_deep += "/" + std::string(200, 'd');
    EXPECT_EQ(qm_qmv_docs(too_deep.c_str(), std::vector<char>(64).data(), 64), QM_EARG);
    EXPECT_EQ(History(too_deep, "Novel.md").err, QM_EARG);
    fs::create_directories(deep);
    for (const std::string& root : {top.path(), deep}) {
        const fs::path dir = root;
        const deck::DocOptions o{.count = 2, .crlf = true, .hostile_name = true};
        ASSERT_EQ(deck::write_documents(root, o, 7), "");
        spit(dir / "stats.db", "the drive's statistics\n");
        EXPECT_EQ(docs(root), (std::set<std::string>{"Novel.md", "Notes.txt", "Windows notes.txt", "Borrowed.txt"}));
        for (const char* bad : {"notes\\..\\..\\Evil.txt", "../Novel.md", "a/b", ".", "..", "", "x\\y"}) {
            EXPECT_EQ(History(root, bad).err, QM_EARG) << bad;
            EXPECT_EQ(read_doc(root, bad), "rc -1") << bad;
        }
        for (const std::string& doc : docs(root)) {
            History hist(root + "//", doc);  // trailing slashes change nothing
            const std::string log = slurp(dir / (".qmv/" + doc + "/history.log"));
            std::string latest = "none";
            for (const qm_version_entry& e : hist.entries()) {
                const std::string f = e.file, text = hist.read(e.id);
                if (f.find_first_of("/\\") != std::string::npos || f == "..") { hist.refused(e.id); continue; }
                const std::string logged = std::to_string(e.id) + "\t" + std::to_string(e.parent) + "\tmain\t" +
                                           char(e.kind) + "\t" + hash_of(text) + "\t" + std::to_string(e.length) + "\t";
                EXPECT_NE(log.find(logged), std::string::npos) << "the deck logs each text's hash: " << logged;
                latest = text;
            }
            EXPECT_EQ(read_doc(root, doc), latest) << "the document is its latest version";
        }
    }
}

// Names with control characters (they would split the list and the log's columns), missing or large
// version files, links and FIFOs: none is listed, read or restored, nor written through, nor hangs.
TEST(Hostile, ControlCharactersLinksFifosMissingAndLargeFilesAreRefused) {
    alarm(60);  // a FIFO that blocked would end the test here instead of hanging it
    TempDir dir, outside;
    const std::string seven = write_seven_versions(dir.path());
    spit(outside / "secret", "the user's own file\n");
    spit(outside / "history.log", "1\t0\tmain\tt\t0\t3\tsecret\t2025-03-01 09:00:00\n");
    const std::string notes = dir / ".qmv/Notes.txt/", doc = dir / "Notes.txt";
    std::string log = seven;
    for (int c = 1; c < 128; c = c == 31 ? 127 : c + 1) {
        const std::string name = std::string("a") + char(c) + "b.txt";
        spit(dir / (".qmv/" + name + "/history.log"), seven);
        spit(dir / name, "text\n");
        EXPECT_EQ(History(dir.path(), name).err, QM_EARG) << c;
        EXPECT_EQ(read_doc(dir.path(), name), "rc -1") << c;
        if (c == '\t' || c == '\n') continue;  // a log line cannot name such a version file
        spit(notes + name, "a version\n");
        log += std::to_string(100 + c) + "\t7\tmain\tt\t0\t10\t" + name + "\t2025-03-01 09:00:00\n";
    }
    spit(notes + "history.log", log);
    for (const char* v : {"v2.txt", "v3.txt", "v4.txt"}) fs::remove(notes + v);
    for (const char* folder : {".qmv/Piped.txt", ".qmv/.hidden"}) fs::create_directories(dir / folder);
    for (const std::string& fifo : {dir / ".qmv/Piped.txt/history.log", notes + "v3.txt"})
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    fs::create_directory_symlink(outside.path(), dir / ".qmv/Linked.txt");
    fs::create_symlink(outside / "secret", notes + "v2.txt");
    spit(notes + "v5.txt", std::string(QM_TEXT_LIMIT + 1, 'x'));
    spit(dir / ".qmv/plain.txt", "not a folder");
    const auto before = tree(dir.path());
    EXPECT_EQ(docs(dir.path()), (std::set<std::string>{"Notes.txt", "Piped.txt"}));
    char out[11];  // one of the two names of nine letters and its line feed fits, not both
    EXPECT_EQ(qm_qmv_docs(dir.path().c_str(), out, sizeof out), 1);
    for (const char* name : {"Linked.txt", "Piped.txt"})  // a history folder that is a link, a log that is a FIFO
        EXPECT_EQ(History(dir.path(), name).err, QM_ENOHISTORY) << name;
    History hist(dir.path(), "Notes.txt");
    ASSERT_EQ(qm_history_count(hist.h), 7 + 32 - 2);  // all but tab and line feed
    for (const qm_version_entry& e : hist.entries())
        if (e.id > 7 || (e.id >= 2 && e.id <= 5)) hist.refused(e.id);
    EXPECT_EQ(tree(dir.path()), before) << "a refused restore writes nothing";
    for (bool fifo : {false, true}) {  // a document that is a link or a FIFO is neither read nor written
        fs::remove(doc);
        ASSERT_EQ(fifo ? mkfifo(doc.c_str(), 0600) : symlink((outside / "secret").c_str(), doc.c_str()), 0);
        EXPECT_EQ(read_doc(dir.path(), "Notes.txt"), "rc -2") << fifo;
        EXPECT_EQ(qm_qmv_revert(hist.h, 1, fifo ? "2025-03-04 14:05:09" : kStamp), QM_EIO) << fifo;
    }
    EXPECT_EQ(slurp(outside / "secret"), "the user's own file\n");
    alarm(0);
}
