// Document histories on drives written by the deck simulator and by hand: reading, restoring,
// the log's odd lines, and names, links and FIFOs on a drive that try to lead elsewhere.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "documents.h"
#include "qm_core.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;
const char kStamp[] = "2025-03-03 14:05:09";

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
    // (result, text): the text as far as it was read.
    std::pair<int32_t, std::string> read(int32_t id) const {
        std::string text(QM_TEXT_LIMIT + 1, '\0');
        int32_t n = qm_version_read(h, id, reinterpret_cast<uint8_t*>(text.data()), int32_t(text.size()));
        return {n, n < 0 ? "" : text.substr(0, size_t(n))};
    }
};

std::string read_doc(const std::string& root, const std::string& doc) {
    std::string text(QM_TEXT_LIMIT + 1, '\0');
    int32_t n = qm_doc_read(root.c_str(), doc.c_str(), reinterpret_cast<uint8_t*>(text.data()), int32_t(text.size()));
    return n < 0 ? "rc " + std::to_string(n) : text.substr(0, size_t(n));
}

std::vector<std::string> docs_of(const std::string& root) {
    std::vector<char> buf(1 << 16);
    int32_t n = qm_qmv_docs(root.c_str(), buf.data(), int32_t(buf.size()));
    std::vector<std::string> names;
    std::istringstream in(buf.data());
    for (std::string line; std::getline(in, line);) names.push_back(line);
    EXPECT_EQ(int32_t(names.size()), n);
    return names;
}

std::string hex16(uint64_t v) {
    char b[17];
    std::snprintf(b, sizeof b, "%016" PRIx64, v);
    return b;
}

// Every file under root with its contents.
std::map<std::string, std::string> tree(const std::string& root) {
    std::map<std::string, std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(root))
        out[e.path().string()] = e.is_regular_file() ? slurp(e.path().string()) : "<other>";
    return out;
}

std::string deck_drive(const TempDir& dir, deck::DocOptions o) { return deck::write_documents(dir.path(), o, 7); }

TEST(DeckHistory, EveryVersionReadsBackWithTheLoggedHashAndLength) {
    TempDir dir;
    deck::DocOptions o;
    o.count = 5;
    o.crlf = true;
    ASSERT_EQ(deck_drive(dir, o), "");
    std::vector<std::string> names = docs_of(dir.path());
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
              (std::set<std::string>{"Novel.md", "Notes.txt", "Letter to Ana", "Outline 3.md", "Poem 4.txt",
                                     "Windows notes.txt"}));
    std::set<int> kinds;
    for (const std::string& doc : names) {
        History hist(dir.path() + "//", doc);  // trailing slashes change nothing
        ASSERT_NE(hist.h, nullptr) << doc;
        const std::string log = slurp(dir / (".qmv/" + doc + "/history.log"));
        std::vector<qm_version_entry> entries = hist.entries();
        ASSERT_GE(entries.size(), 3u) << doc;
        std::string latest;
        for (const qm_version_entry& e : entries) {
            auto [rc, text] = hist.read(e.id);
            ASSERT_GE(rc, 0) << doc << " v" << e.id;
            EXPECT_EQ(e.length, text.size());
            std::string logged = std::to_string(e.id) + "\t" + std::to_string(e.parent) + "\tmain\t" + char(e.kind) +
                                 "\t" + hex16(fnv1a64(text.data(), text.size())) + "\t";
            EXPECT_NE(log.find(logged), std::string::npos) << "the deck logs the text's hash: " << logged;
            EXPECT_EQ(e.hash, 0u) << "the reader leaves the hash alone";
            kinds.insert(e.kind);
            latest = text;
        }
        EXPECT_EQ(read_doc(dir.path(), doc), latest) << "the document is its latest version";
        EXPECT_EQ(latest.find('\r') != std::string::npos, doc == "Windows notes.txt");
    }
    EXPECT_TRUE(kinds.count('t') && kinds.count('x') && kinds.size() >= 3) << "saved, changed-elsewhere and automatic";
}

TEST(LogLines, OddFieldCountsHeadersLimitsAndOverlongFields) {
    TempDir dir;
    deck::DocOptions o;
    o.count = 0;
    o.log_fields = true;
    ASSERT_EQ(deck_drive(dir, o), "");
    History odd(dir.path(), "Odd log.md");
    std::vector<qm_version_entry> e = odd.entries();
    ASSERT_GE(e.size(), 3u);
    for (size_t i = 0; i < e.size(); ++i) EXPECT_EQ(e[i].id, int(i + 1)) << "7-field and non-numeric lines skipped";
    EXPECT_EQ(std::string(e.front().tag), "first draft") << "a tenth field is ignored";
    EXPECT_EQ(std::string(e.back().tag), "") << "eight fields: no tag";

    spit(dir / ".qmv/a.txt/history.log", "QMV\t1\n\n");
    EXPECT_EQ(History(dir.path(), "a.txt").entries().size(), 0u);
    EXPECT_EQ(History(dir.path(), "nothing.txt").err, QM_ENOHISTORY);
    spit(dir / ".qmv/big.txt/history.log", std::string(QM_TEXT_LIMIT + 1, '\n'));
    EXPECT_EQ(History(dir.path(), "big.txt").err, QM_ENOHISTORY);
    spit(dir / ".qmv/edge.txt/history.log", std::string(QM_TEXT_LIMIT, '\n'));
    EXPECT_EQ(History(dir.path(), "edge.txt").err, 0) << "exactly 4 MiB is allowed";

    std::string branch(40, 'b'), file(70, 'f'), when(30, 'w'), tag(80, 'g');
    spit(dir / ".qmv/long.txt/history.log",
         "12\t-3\t" + branch + "\tTail\tffff\t99999999999\t" + file + "\t" + when + "\t" + tag + "\r\n");
    std::vector<qm_version_entry> one = History(dir.path(), "long.txt").entries();
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0].id, 12);
    EXPECT_EQ(one[0].parent, -3);
    EXPECT_EQ(one[0].kind, 'T');
    EXPECT_EQ(one[0].length, UINT32_MAX) << "an over-large length saturates";
    EXPECT_EQ(std::string(one[0].branch) + one[0].file + one[0].when + one[0].tag,
              branch.substr(0, 31) + file.substr(0, 63) + when.substr(0, 23) + tag.substr(0, 63))
        << "fields are cut to their widths, and a CRLF line end is not part of the tag";
}

TEST(DeckHistory, MissingAndOversizedVersionsRefuseToReadOrRestore) {
    TempDir dir;
    deck::DocOptions o;
    o.count = 0;
    o.missing_version = o.big_version = true;
    ASSERT_EQ(deck_drive(dir, o), "");
    auto before = tree(dir.path());
    {
        History lost(dir.path(), "Lost page.txt");
        EXPECT_EQ(lost.read(2).first, QM_EIO);
        EXPECT_GE(lost.read(1).first, 0);
        EXPECT_EQ(qm_qmv_revert(lost.h, 2, kStamp), QM_EIO);
        EXPECT_EQ(qm_qmv_revert(lost.h, 77, kStamp), QM_EARG) << "no such version";

        History big(dir.path(), "Pasted log.txt");
        EXPECT_GT(big.entries()[0].length, uint32_t(QM_TEXT_LIMIT));
        EXPECT_EQ(big.read(1).first, QM_EIO);
        EXPECT_GE(big.read(2).first, 0);
        EXPECT_EQ(qm_qmv_revert(big.h, 1, kStamp), QM_EIO);
    }
    EXPECT_EQ(tree(dir.path()), before) << "a refused restore writes nothing";
}

// A document with seven versions, its refs holding deck lines around a stale base line.
struct SevenVersions {
    TempDir dir;
    std::vector<std::string> texts;
    std::string log = "QMV\t1\n";
    explicit SevenVersions(const std::string& doc = "Notes.txt", const std::string& refs = "head\t7\nbase\t0\t1\n\nsync\tdeck\n",
                           bool final_newline = true) {
        for (int v = 1; v <= 7; ++v) {
            texts.push_back("Version " + std::to_string(v) + "\nof the notes\n");
            std::string file = "v" + std::to_string(v) + ".txt";
            spit(dir / (".qmv/" + doc + "/" + file), texts.back());
            log += std::to_string(v) + "\t" + std::to_string(v - 1) + "\tmain\ta\t" + hex16(0) + "\t14\t" + file +
                   "\t2025-03-01 09:00:00\n";
        }
        if (!final_newline) log.pop_back();
        spit(dir / (".qmv/" + doc + "/history.log"), log);
        spit(dir / (".qmv/" + doc + "/refs"), refs);
        spit(dir / doc, texts.back());
    }
};

TEST(Restore, AddsASavedPointAndRewritesDocumentLogAndRefs) {
    for (bool final_newline : {true, false}) {
        SCOPED_TRACE(final_newline);
        SevenVersions d("Notes.txt", "head\t7\nbase\t0\t1\n\nsync\tdeck\n", final_newline);
        const std::string v3 = d.texts[2], hash = hex16(fnv1a64(v3.data(), v3.size()));
        History hist(d.dir.path(), "Notes.txt");
        ASSERT_EQ(qm_qmv_revert(hist.h, 3, kStamp), 0);

        EXPECT_EQ(slurp(d.dir / ".qmv/Notes.txt/0008-2025-03-03 14.txt"), v3);
        EXPECT_EQ(slurp(d.dir / "Notes.txt"), v3);
        EXPECT_EQ(slurp(d.dir / ".qmv/Notes.txt/history.log"),
                  d.log + (final_newline ? "" : "\n") + "8\t7\tmain\tt\t" + hash + "\t" + std::to_string(v3.size()) +
                      "\t0008-2025-03-03 14.txt\t2025-03-03 14:05:09\treverted to version 3\n");
        EXPECT_EQ(slurp(d.dir / ".qmv/Notes.txt/refs"),
                  "head\t7\nsync\tdeck\nbase\t" + hash + "\t" + std::to_string(v3.size()) + "\n");
        EXPECT_EQ(qm_history_count(hist.h), 7) << "the handle is a snapshot";

        History again(d.dir.path(), "Notes.txt");
        ASSERT_EQ(qm_history_count(again.h), 8);
        EXPECT_EQ(again.read(8).second, v3);
        EXPECT_EQ(again.entries().back().kind, 't');
        EXPECT_EQ(again.entries().back().parent, 7);
    }
}

TEST(Restore, FileNameExtensionsMissingRefsAndLongRefs) {
    for (auto [doc, name] : {std::pair{"Letter to Ana", "0008-2025-12-31 23.txt"},
                             std::pair{"Paper.markdown", "0008-2025-12-31 23.markdo"},
                             std::pair{"archive.tar.gz", "0008-2025-12-31 23.gz"}}) {
        SevenVersions d(doc);
        fs::remove(d.dir / (std::string(".qmv/") + doc + "/refs"));
        History hist(d.dir.path(), doc);
        ASSERT_EQ(qm_qmv_revert(hist.h, 1, "2025-12-31 23:59:59"), 0) << doc;
        EXPECT_EQ(slurp(d.dir / (std::string(".qmv/") + doc + "/" + name)), d.texts[0]) << doc;
        EXPECT_EQ(slurp(d.dir / (std::string(".qmv/") + doc + "/refs")).substr(0, 5), "base\t");
    }
    std::string refs;
    for (int i = 0; i < 30; ++i) refs += "deck\t" + std::string(95, char('a' + i % 26)) + "\n";  // 101 bytes a line
    SevenVersions d("Notes.txt", refs);
    History hist(d.dir.path(), "Notes.txt");
    ASSERT_EQ(qm_qmv_revert(hist.h, 2, kStamp), 0);
    std::string now = slurp(d.dir / ".qmv/Notes.txt/refs");
    EXPECT_EQ(now.substr(0, 20 * 101), refs.substr(0, 20 * 101)) << "gathering stops past 1919 bytes";
    EXPECT_EQ(now.substr(20 * 101, 5), "base\t");
}

TEST(Hostile, NamesFromTheDriveNeverLeaveTheHistoryFolder) {
    TempDir dir;
    deck::DocOptions o;
    o.count = 1;
    o.hostile_name = true;
    ASSERT_EQ(deck_drive(dir, o), "");
    spit(dir / "stats.db", "the drive's statistics\n");
    const auto before = tree(dir.path());

    std::vector<std::string> names = docs_of(dir.path());
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), (std::set<std::string>{"Novel.md", "Borrowed.txt"}))
        << "the folder named with backslashes is not listed";
    EXPECT_EQ(History(dir.path(), "notes\\..\\..\\Evil.txt").err, QM_EARG);
    for (const char* bad : {"../Novel.md", "a/b", ".", "..", "", "x\\y"}) {
        EXPECT_EQ(History(dir.path(), bad).err, QM_EARG) << bad;
        EXPECT_EQ(read_doc(dir.path(), bad), "rc -1") << bad;
    }

    History hist(dir.path(), "Borrowed.txt");
    ASSERT_NE(hist.h, nullptr);
    int refused = 0;
    for (const qm_version_entry& e : hist.entries()) {
        std::string f = e.file;
        if (f.find_first_of("/\\") == std::string::npos && f != "..") continue;
        ++refused;
        EXPECT_EQ(hist.read(e.id).first, QM_EIO) << f;
        EXPECT_EQ(qm_qmv_revert(hist.h, e.id, kStamp), QM_EIO) << f;
    }
    EXPECT_EQ(refused, 5);
    for (const char* stamp : {"2025/03/03 14:05:09", "2025-03-03\t14:05:09", "2025-03-03\n14:05:09"})
        EXPECT_EQ(qm_qmv_revert(hist.h, 1, stamp), QM_EARG) << "a stamp may not name a folder nor break the log";
    EXPECT_EQ(tree(dir.path()), before) << "nothing was written anywhere";

    ASSERT_EQ(qm_qmv_revert(hist.h, 1, kStamp), 0);
    for (const auto& [path, content] : tree(dir.path())) {
        bool inside = path.rfind(dir / ".qmv/Borrowed.txt/", 0) == 0 || path == dir / "Borrowed.txt";
        EXPECT_TRUE(inside || before.at(path) == content) << path;
    }
}

// Line breaks and tabs in a name would split the document list and the log's columns.
TEST(Hostile, EveryControlCharacterInANameIsRefused) {
    SevenVersions d;
    std::string log = d.log;
    for (int c = 1; c < 128; c = c == 31 ? 127 : c + 1) {
        SCOPED_TRACE(c);
        const std::string name = std::string("a") + char(c) + "b.txt";
        fs::create_directories(d.dir / (".qmv/" + name));
        spit(d.dir / (".qmv/" + name + "/history.log"), d.log);
        spit(d.dir / name, "text\n");
        EXPECT_EQ(History(d.dir.path(), name).err, QM_EARG);
        EXPECT_EQ(read_doc(d.dir.path(), name), "rc -1");
        if (c == '\t' || c == '\n') continue;  // a log line cannot name such a version file
        spit(d.dir / (".qmv/Notes.txt/" + name), "a version\n");
        log += std::to_string(100 + c) + "\t7\tmain\tt\t0\t10\t" + name + "\t2025-03-01 09:00:00\n";
    }
    EXPECT_EQ(docs_of(d.dir.path()), std::vector<std::string>{"Notes.txt"});
    spit(d.dir / ".qmv/Notes.txt/history.log", log);
    const auto before = tree(d.dir.path());
    History hist(d.dir.path(), "Notes.txt");
    ASSERT_EQ(qm_history_count(hist.h), 7 + 32 - 2);  // all but tab and line feed
    for (const qm_version_entry& e : hist.entries()) {
        if (e.id <= 7) continue;
        EXPECT_EQ(hist.read(e.id).first, QM_EIO) << e.id;
        EXPECT_EQ(qm_qmv_revert(hist.h, e.id, kStamp), QM_EIO) << e.id;
    }
    EXPECT_EQ(tree(d.dir.path()), before);
}

TEST(Hostile, LinksAndFifosOnTheDriveAreNotFollowed) {
    alarm(60);  // a FIFO that blocked would end the test here instead of hanging it
    TempDir outside;
    spit(outside / "secret", "the user's own file\n");
    spit(outside / "history.log", "1\t0\tmain\tt\t0\t3\tsecret\t2025-03-01 09:00:00\n");
    {
        SevenVersions d;
        fs::create_directory_symlink(outside.path(), d.dir / ".qmv/Linked.txt");
        EXPECT_EQ(History(d.dir.path(), "Linked.txt").err, QM_ENOHISTORY) << "a history folder that is a link";
        EXPECT_EQ(docs_of(d.dir.path()).size(), 1u);
        fs::create_directories(d.dir / ".qmv/Piped.txt");
        ASSERT_EQ(mkfifo((d.dir / ".qmv/Piped.txt/history.log").c_str(), 0600), 0);
        EXPECT_EQ(History(d.dir.path(), "Piped.txt").err, QM_ENOHISTORY) << "a log that is a FIFO";

        fs::remove(d.dir / ".qmv/Notes.txt/v2.txt");
        fs::create_symlink(outside / "secret", d.dir / ".qmv/Notes.txt/v2.txt");
        fs::remove(d.dir / ".qmv/Notes.txt/v3.txt");
        ASSERT_EQ(mkfifo((d.dir / ".qmv/Notes.txt/v3.txt").c_str(), 0600), 0);
        History hist(d.dir.path(), "Notes.txt");
        for (int id : {2, 3}) {
            EXPECT_EQ(hist.read(id).first, QM_EIO) << "a version file that is a link or a FIFO";
            EXPECT_EQ(qm_qmv_revert(hist.h, id, kStamp), QM_EIO);
        }
        fs::remove(d.dir / "Notes.txt");
        fs::create_symlink(outside / "secret", d.dir / "Notes.txt");
        EXPECT_EQ(read_doc(d.dir.path(), "Notes.txt"), "rc -2");
        EXPECT_EQ(qm_qmv_revert(hist.h, 1, kStamp), QM_EIO) << "a document that is a link is not written";
        fs::remove(d.dir / "Notes.txt");
        ASSERT_EQ(mkfifo((d.dir / "Notes.txt").c_str(), 0600), 0);
        EXPECT_EQ(qm_qmv_revert(hist.h, 1, "2025-03-04 14:05:09"), QM_EIO) << "nor one that is a FIFO";
    }
    alarm(0);
    EXPECT_EQ(slurp(outside / "secret"), "the user's own file\n");
}

TEST(DocList, DirectoriesOnlyInEnumerationOrderWithinTheBuffer) {
    TempDir dir;
    char out[64];
    EXPECT_EQ(qm_qmv_docs(dir.path().c_str(), out, sizeof out), 0) << "no history folder";
    EXPECT_EQ(out[0], '\0');
    for (const char* sub : {"aaaa", "bbbb", ".hidden"}) fs::create_directories(dir / (std::string(".qmv/") + sub));
    spit(dir / ".qmv/plain.txt", "x");
    EXPECT_EQ(qm_qmv_docs(dir.path().c_str(), out, sizeof out), 2);
    EXPECT_EQ(std::string(out).size(), 10u);
    EXPECT_EQ(qm_qmv_docs(dir.path().c_str(), out, 8), 1) << "the second name does not fit";
    EXPECT_EQ(qm_qmv_docs((dir.path() + "/").c_str(), out, sizeof out), 2);
}

}  // namespace
