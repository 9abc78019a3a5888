// The deck's document side: named documents whose every save the deck keeps as a version,
// listed in a tab-separated log, with the awkward cases real drives bring on request.
#include "documents.h"

#include <cinttypes>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "qm_core_internal.h"

namespace deck {
namespace {

namespace fs = std::filesystem;

struct Rng {
    uint64_t s;
    uint64_t next() {
        uint64_t z = (s += 0x9e3779b97f4a7c15ull);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    int below(int n) { return int(next() % uint64_t(n)); }
};

const char* const kWords[] = {"the",   "rain",  "kept",   "falling", "on",     "harbour", "and",    "she",
                              "wrote", "every", "letter", "twice",   "before", "morning", "light",  "came",
                              "over",  "quiet", "hills",  "a",       "small",  "boat",    "waited", "near",
                              "old",   "stone", "bridge", "while",   "gulls",  "argued",  "about",  "bread"};

std::string sentence_line(Rng& rng) {
    std::string line;
    int words = 4 + rng.below(10);
    for (int w = 0; w < words; ++w) {
        if (w) line += ' ';
        line += kWords[rng.below(int(sizeof kWords / sizeof *kWords))];
    }
    if (!line.empty()) line[0] = char(line[0] - 'a' + 'A');
    return line + '.';
}

using Lines = std::vector<std::string>;

Lines first_draft(Rng& rng, int lines) {
    Lines text;
    for (int i = 0; i < lines; ++i) text.push_back(rng.below(6) == 0 ? std::string() : sentence_line(rng));
    return text;
}

// One save's worth of editing: lines rewritten, inserted, removed and appended.
Lines edit(Lines text, Rng& rng) {
    int edits = 1 + rng.below(4);
    for (int e = 0; e < edits; ++e) {
        int at = text.empty() ? 0 : rng.below(int(text.size()));
        switch (rng.below(4)) {
            case 0:
                if (!text.empty()) text[size_t(at)] = sentence_line(rng);
                break;
            case 1: text.insert(text.begin() + at, sentence_line(rng)); break;
            case 2:
                if (text.size() > 1) text.erase(text.begin() + at);
                break;
            default: text.push_back(sentence_line(rng)); break;
        }
    }
    return text;
}

std::string joined(const Lines& lines, bool crlf) {
    std::string out;
    for (const std::string& l : lines) out += l + (crlf ? "\r\n" : "\n");
    return out;
}

struct Version {
    int id = 0;
    int parent = 0;
    char kind = 'a';
    std::string text;
    std::string file;
    std::string when;
    std::string tag;
    bool write_file = true;
    std::string extra_field;  // a tenth column some decks add
};

struct Document {
    std::string name;
    std::vector<Version> versions;
    std::vector<std::string> odd_log_lines;  // lines the reader must skip or refuse
};

std::string extension_of(const std::string& name) {
    size_t dot = name.rfind('.');
    return dot == std::string::npos ? ".txt" : name.substr(dot, 7);
}

std::string stamp(int day, int hour, int minute, int second) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "2025-03-%02d %02d:%02d:%02d", 1 + day % 28, hour % 24, minute % 60, second % 60);
    return buf;
}

std::string deck_file_name(int id, const std::string& when, const std::string& doc) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "%04d-%.13s%s", id, when.c_str(), extension_of(doc).c_str());
    return buf;
}

const char* tag_for(char kind, int id) {
    if (kind == 't') return id == 1 ? "first draft" : "saved point";
    if (kind == 'x') return "changed on another computer";
    return "";
}

// Kinds rotate so every document with three or more versions has "t", "x" and automatic ones.
std::vector<Version> history_of(const std::string& doc, Lines text, int count, bool crlf, Rng& rng) {
    static const char kinds[] = {'t', 'a', 'x'};
    std::vector<Version> out;
    int day = rng.below(10), hour = 8 + rng.below(4);
    for (int id = 1; id <= count; ++id) {
        if (id > 1) text = edit(std::move(text), rng);
        Version v;
        v.id = id;
        v.parent = id - 1;
        v.kind = kinds[(id - 1) % 3];
        v.text = joined(text, crlf);
        day += rng.below(2);
        hour += 1 + rng.below(3);
        v.when = stamp(day + hour / 24, hour, rng.below(60), rng.below(60));
        v.file = deck_file_name(id, v.when, doc);
        v.tag = tag_for(v.kind, id);
        out.push_back(std::move(v));
    }
    return out;
}

std::string log_line(const Version& v) {
    char head[160];
    std::snprintf(head, sizeof head, "%d\t%d\tmain\t%c\t%016" PRIx64 "\t%zu\t", v.id, v.parent, v.kind,
                  fnv1a64(v.text.data(), v.text.size()), v.text.size());
    std::string line = head + v.file + '\t' + v.when;
    if (!v.tag.empty() || !v.extra_field.empty()) line += '\t' + v.tag;
    if (!v.extra_field.empty()) line += '\t' + v.extra_field;
    return line + '\n';
}

std::string refs_text(const Version& latest) {
    char base[64];
    std::snprintf(base, sizeof base, "base\t%016" PRIx64 "\t%zu\n", fnv1a64(latest.text.data(), latest.text.size()),
                  latest.text.size());
    return "head\t" + std::to_string(latest.id) + "\nbranch\tmain\n" + base + "sync\tdeck\n";
}

std::string write_document(const fs::path& root, const Document& d) {
    std::error_code ec;
    fs::path folder = root / ".qmv" / d.name;
    fs::create_directories(folder, ec);
    if (ec) return "could not create " + folder.string() + ": " + ec.message();
    std::string log = "QMV\t1\t" + d.name + "\n";
    for (const Version& v : d.versions) {
        log += log_line(v);
        if (!v.write_file) continue;
        if (std::string err = put(folder / v.file, v.text); !err.empty()) return err;
    }
    for (const std::string& odd : d.odd_log_lines) log += odd;
    if (std::string err = put(folder / "history.log", log); !err.empty()) return err;
    if (std::string err = put(folder / "refs", refs_text(d.versions.back())); !err.empty()) return err;
    return put(root / d.name, d.versions.back().text);
}

std::string generated_name(int index) {
    static const char* const stems[] = {"Draft", "Chapter", "Journal", "Outline", "Poem"};
    static const char* const exts[] = {".md", ".txt", ""};
    return std::string(stems[index % 5]) + " " + std::to_string(index) + exts[index % 3];
}

std::string document_name(int index) {
    static const char* const names[] = {"Novel.md", "Notes.txt", "Letter to Ana"};
    return index < 3 ? names[index] : generated_name(index);
}

Document plain_document(const std::string& name, bool crlf, Rng& rng) {
    Document d;
    d.name = name;
    d.versions = history_of(name, first_draft(rng, 6 + rng.below(15)), 3 + rng.below(5), crlf, rng);
    return d;
}

// Lines of 7 fields (skipped), 8 (no tag) and 10 (the tenth ignored) beside the usual 9.
void add_odd_field_counts(Document& d) {
    d.versions.front().extra_field = "deck-extra";
    d.versions.back().tag.clear();
    d.odd_log_lines.push_back("90\t1\tmain\ta\t0000000000000000\t0\tgone.txt\n");
    d.odd_log_lines.push_back("draft\t1\tmain\tt\t0000000000000000\t0\tx.txt\t2025-03-01 10:00:00\tnot a version\n");
}

Document big_document(Rng& rng) {
    Document d;
    d.name = "Pasted log.txt";
    std::string text;
    while (text.size() <= size_t(QM_TEXT_LIMIT) + 4096) text += sentence_line(rng) + '\n';
    d.versions = history_of(d.name, first_draft(rng, 8), 2, false, rng);
    d.versions[0].text = text;  // a paste the writer later removed
    return d;
}

Document long_document(Rng& rng) {
    Document d;
    d.name = "Long story.md";
    d.versions = history_of(d.name, first_draft(rng, 1100), 2, false, rng);
    return d;
}

// A log that names files outside the document's folder, with decoys there to be found.
// The real last save keeps the highest id, so it stays the latest version.
Document hostile_document(Rng& rng) {
    Document d = plain_document("Borrowed.txt", false, rng);
    Version last = d.versions.back();
    d.versions.pop_back();
    int next = last.id - 1;
    for (const char* file : {"../stats.db", "../../stats.db", "a/b", "..", "a\\b"}) {
        Version v = d.versions.back();
        v.id = ++next;
        v.parent = d.versions.front().id;
        v.file = file;
        v.write_file = false;
        v.tag = "hostile";
        d.versions.push_back(v);
    }
    last.parent = last.id - 1;
    last.id = next + 1;
    last.file = deck_file_name(last.id, last.when, d.name);
    d.versions.push_back(last);
    return d;
}

std::string write_hostile_extras(const fs::path& root) {
    std::error_code ec;
    fs::path evil = root / ".qmv" / "notes\\..\\..\\Evil.txt";
    for (const fs::path& folder : {root / ".qmv" / "Borrowed.txt" / "a", evil})
        if (fs::create_directories(folder, ec); ec) return "could not create " + folder.string() + ": " + ec.message();
    for (const auto& [path, text] : {std::pair{root / ".qmv" / "stats.db", "decoy outside the document folder\n"},
                                     std::pair{root / ".qmv" / "Borrowed.txt" / "a" / "b", "decoy in a subfolder\n"},
                                     std::pair{evil / "history.log",
                                               "QMV\t1\n1\t0\tmain\tt\t0000000000000000\t5\tv1.txt\t2025-03-01 "
                                               "09:00:00\tfrom a folder with backslashes\n"},
                                     std::pair{evil / "v1.txt", "evil\n"}})
        if (std::string err = put(path, text); !err.empty()) return err;
    return "";
}

std::vector<Document> plan(const DocOptions& o, Rng& rng) {
    std::vector<Document> docs;
    for (int i = 0; i < o.count; ++i) docs.push_back(plain_document(document_name(i), false, rng));
    if (o.crlf) docs.push_back(plain_document("Windows notes.txt", true, rng));
    if (o.log_fields) {
        docs.push_back(plain_document("Odd log.md", false, rng));
        add_odd_field_counts(docs.back());
    }
    if (o.missing_version) {
        docs.push_back(plain_document("Lost page.txt", false, rng));
        docs.back().versions[1].write_file = false;
    }
    if (o.big_version) docs.push_back(big_document(rng));
    if (o.long_doc) docs.push_back(long_document(rng));
    if (o.hostile_name) docs.push_back(hostile_document(rng));
    return docs;
}

std::string kind_name(int kind) {
    if (kind == 't') return "t (saved point)";
    if (kind == 'x') return "x (changed elsewhere)";
    return std::string(1, char(kind)) + " (automatic)";
}

void print_versions(qm_history* h, FILE* out) {
    for (int32_t i = 0; i < qm_history_count(h); ++i) {
        qm_version_entry e;
        if (qm_history_get(h, i, &e) != 0) continue;
        uint8_t probe[1];
        int32_t rc = qm_version_read(h, e.id, probe, sizeof probe);
        std::fprintf(out, "  version %d  %s  %s  %u bytes  %s\n", e.id, kind_name(e.kind).c_str(), e.when, e.length,
                     rc >= 0 ? "reads" : rc == QM_EIO ? "does not read" : "not found");
    }
}

}  // namespace

std::string put(const std::filesystem::path& path, const std::string& data) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(data.data(), std::streamsize(data.size()));
    f.close();
    return f ? "" : "could not write " + path.string();
}

std::string write_documents(const std::string& dir, const DocOptions& options, uint64_t seed) {
    Rng rng{seed};
    fs::path root(dir);
    for (const Document& d : plan(options, rng))
        if (std::string err = write_document(root, d); !err.empty()) return err;
    return options.hostile_name ? write_hostile_extras(root) : "";
}

void print_documents(const std::string& dir, FILE* out) {
    std::vector<char> names(64 * 1024);
    int32_t n = qm_qmv_docs(dir.c_str(), names.data(), int32_t(names.size()));
    std::fprintf(out, "documents with a history: %d\n", n);
    const char* p = names.data();
    for (int32_t k = 0; k < n; ++k) {
        const char* nl = std::strchr(p, '\n');
        std::string name(p, nl ? size_t(nl - p) : std::strlen(p));
        p = nl ? nl + 1 : p + name.size();
        int32_t err = 0;
        qm_history* h = qm_history_open(dir.c_str(), name.c_str(), &err);
        if (!h) {
            std::fprintf(out, "%s: history does not open (%d)\n", name.c_str(), err);
            continue;
        }
        std::fprintf(out, "%s: %d versions\n", name.c_str(), qm_history_count(h));
        print_versions(h, out);
        qm_history_close(h);
    }
}

}  // namespace deck
