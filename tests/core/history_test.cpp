// Document histories on drives written by the deck simulator and by hand: reading, restoring,
// the log's odd lines, and names from a drive that try to leave the history folder.
#include <gtest/gtest.h>

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
};

// (result, text): the text as far as it was read.
std::pair<int32_t, std::string> read_version(const History& hist, int32_t id) {
    uint8_t probe[1];
    int32_t n = qm_version_read(hist.h, id, probe, 1);
    if (n < 0) return {n, ""};
    std::string text(size_t(n) + 1, '\0');
    EXPECT_EQ(qm_version_read(hist.h, id, reinterpret_cast<uint8_t*>(text.data()), n + 1), n);
    text.resize(size_t(n));
    return {n, text};
}

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

// The hash column of each version line, read with the test's own splitting.
std::map<int, std::string> logged_hashes(const std::string& log) {
    std::map<int, std::string> out;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> f;
        std::istringstream cols(line);
        for (std::string c; std::getline(cols, c, '\t');) f.push_back(c);
        if (f.size() >= 8 && std::isdigit(static_cast<unsigned char>(f[0][0]))) out[std::stoi(f[0])] = f[4];
    }
    return out;
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
        out[e.path().string()] = e.is_regular_file() ? slurp(e.path().string()) : "<dir>";
    return out;
}

std::string deck_drive(const TempDir& dir, deck::DocOptions o, uint64_t seed = 7) {
    return deck::write_documents(dir.path(), o, seed);
}

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
        History hist(dir.path(), doc);
        ASSERT_NE(hist.h, nullptr) << doc;
        std::map<int, std::string> hashes = logged_hashes(slurp(dir / (".qmv/" + doc + "/history.log")));
        std::vector<qm_version_entry> entries = hist.entries();
        ASSERT_GE(entries.size(), 3u) << doc;
        std::string latest;
        for (const qm_version_entry& e : entries) {
            auto [rc, text] = read_version(hist, e.id);
            ASSERT_GE(rc, 0) << doc << " v" << e.id;
            EXPECT_EQ(e.length, text.size());
            EXPECT_EQ(hashes[e.id], hex16(fnv1a64(text.data(), text.size()))) << "the deck logs the text's hash";
            EXPECT_EQ(e.hash, 0u) << "the reader leaves the hash alone";
            EXPECT_EQ(std::string(e.branch), "main");
            kinds.insert(e.kind);
            latest = text;
        }
        EXPECT_EQ(read_doc(dir.path(), doc), latest) << "the document is its latest version";
        EXPECT_EQ(latest.find('\r') != std::string::npos, doc == "Windows notes.txt");

        History slashed(dir.path() + "//", doc);
        ASSERT_NE(slashed.h, nullptr);
        EXPECT_EQ(read_version(slashed, entries.back().id).second, latest) << "trailing slashes change nothing";
    }
    EXPECT_TRUE(kinds.count('t') && kinds.count('x') && kinds.size() >= 3) << "saved, changed-elsewhere and automatic";
}

TEST(DeckHistory, LogLinesOfSevenToTenFields) {
    TempDir dir;
    deck::DocOptions o;
    o.count = 0;
    o.log_fields = true;
    ASSERT_EQ(deck_drive(dir, o), "");
    History hist(dir.path(), "Odd log.md");
    ASSERT_NE(hist.h, nullptr);
    std::vector<qm_version_entry> e = hist.entries();
    ASSERT_GE(e.size(), 3u);
    for (size_t i = 0; i < e.size(); ++i) EXPECT_EQ(e[i].id, int(i + 1)) << "7-field and non-numeric lines skipped";
    EXPECT_EQ(std::string(e.front().tag), "first draft") << "a tenth field is ignored";
    EXPECT_EQ(std::string(e.back().tag), "") << "eight fields: no tag";
    EXPECT_EQ(std::string(e.back().when).size(), 19u);
}

TEST(HandHistory, HeaderOnlyMissingOversizedAndOverlongFields) {
    TempDir dir;
    spit(dir / ".qmv/a.txt/history.log", "QMV\t1\n\n");
    {
        History hist(dir.path(), "a.txt");
        ASSERT_NE(hist.h, nullptr);
        EXPECT_EQ(hist.err, 0);
        EXPECT_EQ(qm_history_count(hist.h), 0);
        uint8_t buf[8];
        EXPECT_EQ(qm_version_read(hist.h, 1, buf, sizeof buf), -1);
    }
    EXPECT_EQ(History(dir.path(), "nothing.txt").err, -9);
    spit(dir / ".qmv/big.txt/history.log", std::string(QM_TEXT_LIMIT + 1, '\n'));
    EXPECT_EQ(History(dir.path(), "big.txt").err, -9);
    spit(dir / ".qmv/edge.txt/history.log", std::string(QM_TEXT_LIMIT, '\n'));
    EXPECT_EQ(History(dir.path(), "edge.txt").err, 0) << "exactly 4 MiB is allowed";

    std::string branch(40, 'b'), file(70, 'f'), when(30, 'w'), tag(80, 'g');
    spit(dir / ".qmv/long.txt/history.log", "12\t-3\t" + branch + "\tTail\tffff\t99999999999\t" + file + "\t" + when +
                                                "\t" + tag + "\r\n");
    History hist(dir.path(), "long.txt");
    ASSERT_EQ(qm_history_count(hist.h), 1);
    qm_version_entry e = hist.entries()[0];
    EXPECT_EQ(e.id, 12);
    EXPECT_EQ(e.parent, -3);
    EXPECT_EQ(e.kind, 'T');
    EXPECT_EQ(e.length, UINT32_MAX) << "an over-large length saturates";
    EXPECT_EQ(std::string(e.branch), branch.substr(0, 31));
    EXPECT_EQ(std::string(e.file), file.substr(0, 63));
    EXPECT_EQ(std::string(e.when), when.substr(0, 23));
    EXPECT_EQ(std::string(e.tag), tag.substr(0, 63)) << "and a CRLF line end is not part of the tag";
    qm_version_entry out;
    EXPECT_EQ(qm_history_get(hist.h, 1, &out), -1);
    EXPECT_EQ(qm_history_get(hist.h, -1, &out), -1);
    EXPECT_EQ(qm_history_get(nullptr, 0, &out), -1);
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
        ASSERT_NE(lost.h, nullptr);
        EXPECT_EQ(read_version(lost, 2).first, -2);
        EXPECT_GE(read_version(lost, 1).first, 0);
        EXPECT_EQ(qm_qmv_revert(lost.h, 2, "2025-03-03 14:05:09"), -2);
        EXPECT_EQ(qm_qmv_revert(lost.h, 77, "2025-03-03 14:05:09"), -1) << "no such version";

        History big(dir.path(), "Pasted log.txt");
        ASSERT_NE(big.h, nullptr);
        EXPECT_GT(big.entries()[0].length, uint32_t(QM_TEXT_LIMIT));
        EXPECT_EQ(read_version(big, 1).first, -2);
        EXPECT_GE(read_version(big, 2).first, 0);
        EXPECT_EQ(qm_qmv_revert(big.h, 1, "2025-03-03 14:05:09"), -2);
    }
    EXPECT_EQ(tree(dir.path()), before) << "a refused restore writes nothing";
}

// Notes.txt with seven versions, its refs holding deck lines around a stale base line.
struct SevenVersions {
    TempDir dir;
    std::vector<std::string> texts;
    explicit SevenVersions(const std::string& doc = "Notes.txt", const std::string& refs = "head\t7\nbase\t0\t1\n\nsync\tdeck\n") {
        std::string log = "QMV\t1\n";
        for (int v = 1; v <= 7; ++v) {
            texts.push_back("Version " + std::to_string(v) + "\nof the notes\n");
            std::string file = "v" + std::to_string(v) + ".txt";
            spit(dir / (".qmv/" + doc + "/" + file), texts.back());
            log += std::to_string(v) + "\t" + std::to_string(v - 1) + "\tmain\ta\t" + hex16(0) + "\t14\t" + file +
                   "\t2025-03-01 09:00:00\n";
        }
        spit(dir / (".qmv/" + doc + "/history.log"), log);
        spit(dir / (".qmv/" + doc + "/refs"), refs);
        spit(dir / doc, texts.back());
    }
};

TEST(Restore, AddsASavedPointAndRewritesDocumentLogAndRefs) {
    SevenVersions d;
    const std::string v3 = d.texts[2];
    const std::string hash = hex16(fnv1a64(v3.data(), v3.size()));
    const std::string log_before = slurp(d.dir / ".qmv/Notes.txt/history.log");
    History hist(d.dir.path(), "Notes.txt");
    ASSERT_EQ(qm_qmv_revert(hist.h, 3, "2025-03-03 14:05:09"), 0);

    EXPECT_EQ(slurp(d.dir / ".qmv/Notes.txt/0008-2025-03-03 14.txt"), v3);
    EXPECT_EQ(slurp(d.dir / "Notes.txt"), v3);
    EXPECT_EQ(slurp(d.dir / ".qmv/Notes.txt/history.log"),
              log_before + "8\t7\tmain\tt\t" + hash + "\t" + std::to_string(v3.size()) +
                  "\t0008-2025-03-03 14.txt\t2025-03-03 14:05:09\treverted to version 3\n");
    EXPECT_EQ(slurp(d.dir / ".qmv/Notes.txt/refs"),
              "head\t7\nsync\tdeck\nbase\t" + hash + "\t" + std::to_string(v3.size()) + "\n");
    EXPECT_EQ(qm_history_count(hist.h), 7) << "the handle is a snapshot";

    History again(d.dir.path(), "Notes.txt");
    ASSERT_EQ(qm_history_count(again.h), 8);
    EXPECT_EQ(read_version(again, 8).second, v3);
    qm_version_entry e = again.entries().back();
    EXPECT_EQ(e.kind, 't');
    EXPECT_EQ(e.parent, 7);
}

TEST(Restore, FileNameExtensionsAndMissingRefs) {
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
}

TEST(Restore, RefsKeepsAboutTwoKilobytesOfDeckLines) {
    std::string refs;
    for (int i = 0; i < 30; ++i) refs += "deck\t" + std::string(95, char('a' + i % 26)) + "\n";  // 101 bytes a line
    SevenVersions d("Notes.txt", refs);
    History hist(d.dir.path(), "Notes.txt");
    ASSERT_EQ(qm_qmv_revert(hist.h, 2, "2025-03-03 14:05:09"), 0);
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
    EXPECT_EQ(names.size(), 3u) << "Novel.md, Borrowed.txt and the folder with backslashes";
    for (const std::string& name : names)
        if (name.find('\\') != std::string::npos) {
            EXPECT_EQ(History(dir.path(), name).err, -1) << name;
        }
    for (const char* bad : {"../Novel.md", "a/b", ".", "..", "", "x\\y"}) {
        EXPECT_EQ(History(dir.path(), bad).err, -1) << bad;
        uint8_t buf[4];
        EXPECT_EQ(qm_doc_read(dir.path().c_str(), bad, buf, sizeof buf), -1) << bad;
    }

    History hist(dir.path(), "Borrowed.txt");
    ASSERT_NE(hist.h, nullptr);
    int refused = 0;
    for (const qm_version_entry& e : hist.entries()) {
        std::string f = e.file;
        bool hostile = f.find('/') != std::string::npos || f.find('\\') != std::string::npos || f == "..";
        if (!hostile) continue;
        ++refused;
        EXPECT_EQ(read_version(hist, e.id).first, -2) << f;
        EXPECT_EQ(qm_qmv_revert(hist.h, e.id, "2025-03-03 14:05:09"), -2) << f;
    }
    EXPECT_EQ(refused, 5);
    EXPECT_EQ(qm_qmv_revert(hist.h, 1, "2025/03/03 14:05:09"), -1) << "a stamp may not name a folder";
    EXPECT_EQ(qm_qmv_revert(hist.h, 1, "2025-03-03\t14:05:09"), -1) << "nor break the log's columns";
    EXPECT_EQ(tree(dir.path()), before) << "nothing was written anywhere";

    ASSERT_EQ(qm_qmv_revert(hist.h, 1, "2025-03-03 14:05:09"), 0);
    for (const auto& [path, content] : tree(dir.path())) {
        bool inside = path.rfind(dir / ".qmv/Borrowed.txt/", 0) == 0 || path == dir / "Borrowed.txt";
        if (!inside) {
            EXPECT_EQ(before.at(path), content) << path;
        }
    }
}

TEST(Hostile, LinksOnTheDriveAreNotFollowed) {
    TempDir outside;
    spit(outside / "secret", "the user's own file\n");
    spit(outside / "history.log", "1\t0\tmain\tt\t0\t3\tsecret\t2025-03-01 09:00:00\n");
    {
        SevenVersions d;
        fs::create_directory_symlink(outside.path(), d.dir / ".qmv/Linked.txt");
        EXPECT_EQ(History(d.dir.path(), "Linked.txt").err, -9) << "a history folder that is a link";
        EXPECT_EQ(docs_of(d.dir.path()).size(), 1u);

        fs::remove(d.dir / ".qmv/Notes.txt/v2.txt");
        fs::create_symlink(outside / "secret", d.dir / ".qmv/Notes.txt/v2.txt");
        History hist(d.dir.path(), "Notes.txt");
        EXPECT_EQ(read_version(hist, 2).first, -2) << "a version file that is a link";
        EXPECT_EQ(qm_qmv_revert(hist.h, 2, "2025-03-03 14:05:09"), -2);

        fs::remove(d.dir / "Notes.txt");
        fs::create_symlink(outside / "secret", d.dir / "Notes.txt");
        EXPECT_EQ(read_doc(d.dir.path(), "Notes.txt"), "rc -2");
        EXPECT_EQ(qm_qmv_revert(hist.h, 1, "2025-03-03 14:05:09"), -2) << "a document that is a link is not written";
    }
    EXPECT_EQ(slurp(outside / "secret"), "the user's own file\n");
}

TEST(DocList, DirectoriesOnlyInEnumerationOrderWithinTheBuffer) {
    TempDir dir;
    char out[64];
    EXPECT_EQ(qm_qmv_docs(dir.path().c_str(), out, sizeof out), 0) << "no history folder";
    EXPECT_EQ(out[0], '\0');
    fs::create_directories(dir / ".qmv/aaaa");
    fs::create_directories(dir / ".qmv/bbbb");
    fs::create_directories(dir / ".qmv/.hidden");
    spit(dir / ".qmv/plain.txt", "x");
    EXPECT_EQ(qm_qmv_docs(dir.path().c_str(), out, sizeof out), 2);
    EXPECT_EQ(std::string(out).size(), 10u);
    EXPECT_EQ(qm_qmv_docs(dir.path().c_str(), out, 8), 1) << "the second name does not fit";
    EXPECT_EQ(qm_qmv_docs((dir.path() + "/").c_str(), out, sizeof out), 2);
    EXPECT_EQ(qm_qmv_docs(nullptr, out, sizeof out), -1);
    EXPECT_EQ(qm_qmv_docs(dir.path().c_str(), out, 0), -1);
}

}  // namespace

namespace {

TEST(DeckPrint, ListsWhatTheCoreReads) {
    TempDir dir;
    deck::DocOptions o;
    o.count = 1;
    o.missing_version = o.hostile_name = true;
    ASSERT_EQ(deck_drive(dir, o), "");
    FILE* f = std::tmpfile();
    deck::print_documents(dir.path(), f);
    std::rewind(f);
    std::string out;
    for (int c; (c = std::fgetc(f)) != EOF;) out += char(c);
    std::fclose(f);
    EXPECT_NE(out.find("documents with a history: 4\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Lost page.txt: "), std::string::npos) << out;
    EXPECT_NE(out.find("  version 2  "), std::string::npos) << out;
    EXPECT_NE(out.find("does not read"), std::string::npos) << out;
    EXPECT_NE(out.find("notes\\..\\..\\Evil.txt: history does not open (-1)"), std::string::npos) << out;
    EXPECT_NE(out.find("t (saved point)"), std::string::npos) << out;
    EXPECT_NE(out.find("x (changed elsewhere)"), std::string::npos) << out;
}

}  // namespace
