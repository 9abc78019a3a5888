// qm-deck: makes drives as the deck writes them, and shows what the core reads back.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "documents.h"
#include "fuzz_seeds.h"
#include "qm_core.h"
#include "statistics.h"

namespace {

const char kUsage[] =
    "usage: qm-deck make DIR [options]   write a drive as the deck does\n"
    "       qm-deck show DIR             print what the core reads from a drive\n"
    "       qm-deck seeds DIR            write seed inputs for the fuzz targets\n"
    "       qm-deck --help               this text\n"
    "\n"
    "make options:\n"
    "  --seed N           seed of the writing history (default 1); one seed, one history\n"
    "  --days N           distinct writing days (default 240; 0 for a drive never written on)\n"
    "  --force            replace the drive key and statistics already in DIR\n"
    "statistics state (at most one; by default both copies are valid, stats.db the newer):\n"
    "  --only-bak         stats.db absent, stats.bak valid\n"
    "  --torn-db          stats.db cut short by an interrupted write, stats.bak valid\n"
    "  --both-damaged     neither copy authenticates\n"
    "  --key-only         a drive key and no statistics\n"
    "  --no-key           statistics but no drive key\n"
    "  --foreign-key      statistics written under another drive's key\n"
    "  --full-ring        1,100 writing days, more than the ring of 1,024 holds (not with --days)\n"
    "  --newer-bak        both copies valid, the backup copy newer\n"
    "documents:\n"
    "  --docs N           documents with a version history (default 3; 0 writes none)\n"
    "  --crlf             one more document saved with CRLF line ends\n"
    "  --log-fields       one more document whose log has lines of 7, 8, 9 and 10 fields\n"
    "  --missing-version  one more document with a version file missing\n"
    "  --big-version      one more document with a version file over 4 MiB\n"
    "  --long-doc         one more document of more than 1,020 lines\n"
    "  --hostile-name     names that try to leave the history folder\n"
    "\n"
    "show exits with 0 when the drive opened, 1 when the core refused it;\n"
    "both commands exit with 2 on a bad command line.\n";

int usage_error(const std::string& message) {
    std::fprintf(stderr, "qm-deck: %s\n(qm-deck --help lists the commands and options)\n", message.c_str());
    return 2;
}

bool parse_count(const char* text, long max, long* out) {
    char* end = nullptr;
    long v = std::strtol(text, &end, 10);
    if (!*text || *end || v < 0 || v > max) return false;
    *out = v;
    return true;
}

struct MakeOptions {
    std::string dir;
    bool force = false;
    deck::StatsOptions stats;
    deck::DocOptions docs;
};

bool any_awkward_document(const deck::DocOptions& d) {
    return d.crlf || d.log_fields || d.missing_version || d.big_version || d.long_doc || d.hostile_name;
}

// Returns an empty string or what is wrong with the command line.
std::string parse_make(const std::vector<std::string>& args, MakeOptions* o) {
    static const std::map<std::string, deck::StatsState> states = {
        {"--only-bak", deck::StatsState::OnlyBak},         {"--torn-db", deck::StatsState::TornDb},
        {"--both-damaged", deck::StatsState::BothDamaged}, {"--key-only", deck::StatsState::KeyOnly},
        {"--no-key", deck::StatsState::NoKey},             {"--foreign-key", deck::StatsState::ForeignKey},
        {"--newer-bak", deck::StatsState::NewerBak},       {"--full-ring", deck::StatsState::Normal}};
    const std::map<std::string, bool*> doc_flags = {
        {"--crlf", &o->docs.crlf},           {"--log-fields", &o->docs.log_fields},
        {"--missing-version", &o->docs.missing_version}, {"--big-version", &o->docs.big_version},
        {"--long-doc", &o->docs.long_doc},   {"--hostile-name", &o->docs.hostile_name}};
    std::string state_seen;
    bool days_given = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        long n = 0;
        if (a == "--force") {
            o->force = true;
        } else if (states.count(a)) {
            if (!state_seen.empty())
                return "choose at most one statistics state (got " + state_seen + " and " + a + ")";
            state_seen = a;
            o->stats.state = states.at(a);
        } else if (doc_flags.count(a)) {
            *doc_flags.at(a) = true;
        } else if (a == "--seed" || a == "--days" || a == "--docs") {
            long max = a == "--seed" ? 2147483647L : a == "--days" ? 100000L : 1000L;
            if (i + 1 >= args.size() || !parse_count(args[i + 1].c_str(), max, &n))
                return a + " needs a whole number from 0 to " + std::to_string(max);
            ++i;
            if (a == "--seed") o->stats.seed = uint64_t(n);
            if (a == "--days") {
                o->stats.days = int(n);
                days_given = true;
            }
            if (a == "--docs") o->docs.count = int(n);
        } else if (a.rfind("-", 0) == 0) {
            return "unknown option " + a;
        } else if (o->dir.empty()) {
            o->dir = a;
        } else {
            return "only one drive folder, please (got " + o->dir + " and " + a + ")";
        }
    }
    if (state_seen == "--full-ring") {
        if (days_given) return "--full-ring sets the number of days itself; leave out --days";
        o->stats.days = 1100;
    }
    if (o->docs.count == 0 && any_awkward_document(o->docs))
        return "--docs 0 writes no documents, so it cannot go with the document options";
    return o->dir.empty() ? "make needs a drive folder" : "";
}

int make_drive(const MakeOptions& o) {
    if (std::string err = deck::write_statistics(o.dir, o.stats, o.force); !err.empty()) {
        std::fprintf(stderr, "qm-deck: %s\n", err.c_str());
        return 1;
    }
    if (o.docs.count > 0) {
        if (std::string err = deck::write_documents(o.dir, o.docs, o.stats.seed); !err.empty()) {
            std::fprintf(stderr, "qm-deck: %s\n", err.c_str());
            return 1;
        }
    }
    std::printf("wrote a drive to %s\n", o.dir.c_str());
    return 0;
}

std::string ymd(uint32_t day) {
    if (day == 0) return "-";
    unsigned y, m, d;
    qm_day_to_ymd(day, &y, &m, &d);
    char buf[16];
    std::snprintf(buf, sizeof buf, "%04u-%02u-%02u", y, m, d);
    return buf;
}

std::string hex(const uint8_t* p, size_t n) {
    std::string s;
    char b[3];
    for (size_t i = 0; i < n; ++i) std::snprintf(b, sizeof b, "%02x", p[i]), s += b;
    return s;
}

std::string hours(uint32_t secs) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%u h %02u min", secs / 3600, secs / 60 % 60);
    return buf;
}

const char* copy_note(const qm_summary& s) {
    if (s.from_backup) return s.both_valid ? "both copies valid, the backup newer" : "recovered from the backup copy";
    return s.both_valid ? "both copies valid" : "stats.bak missing or not valid";
}

void print_summary(const qm_summary& s) {
    std::printf("copy: %s, seq %u (%s)\n", s.from_backup ? "stats.bak" : "stats.db", s.seq, copy_note(s));
    std::printf("drive id: %s\n", hex(s.drive_id, 16).c_str());
    std::printf("chain tag: %s\n", hex(s.chain_tag, 32).c_str());
    std::printf("sessions %u, writing %u s (%s), longest %u s (%s)\n", s.sessions, s.write_secs,
                hours(s.write_secs).c_str(), s.longest_secs, hours(s.longest_secs).c_str());
    std::printf("words %u (%u pages), characters %u, sentences %u, line breaks %u\n", s.words, s.pages, s.chars,
                s.sentences, s.newlines);
    std::printf("saves %u, documents created %u\n", s.saves, s.created);
    std::printf("streak %u (best %u), days written %u, first %s, last %s\n", s.streak_current, s.streak_best,
                s.days_written, ymd(s.first_day).c_str(), ymd(s.last_day).c_str());
}

int show_drive(const std::string& dir) {
    int err = 0;
    qm_drive* h = qm_open(dir.c_str(), &err);
    std::printf("open: %d (%s)\n", err, qm_strerror(err));
    if (h) {
        qm_summary s;
        qm_summary_get(h, &s);
        print_summary(s);
        std::vector<qm_day> days(QM_RING_SLOTS);
        int n = qm_days_get(h, days.data(), int(days.size()));
        std::printf("days: %d\n", n);
        for (int i = 0; i < n; ++i)
            std::printf("  %s  %6u words  %6u s\n", ymd(days[i].day).c_str(), days[i].words, days[i].secs);
        qm_close(h);
    }
    deck::print_documents(dir, stdout);
    return h ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) return usage_error("say make, show, seeds or --help");
    if (args[0] == "--help" || args[0] == "-h") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (args[0] == "show") {
        if (args.size() != 2) return usage_error("show needs exactly one drive folder");
        return show_drive(args[1]);
    }
    if (args[0] == "seeds") {
        if (args.size() != 2) return usage_error("seeds needs exactly one folder");
        std::string err = deck::write_fuzz_seeds(args[1]);
        if (!err.empty()) std::fprintf(stderr, "qm-deck: %s\n", err.c_str());
        return err.empty() ? 0 : 1;
    }
    if (args[0] == "make") {
        MakeOptions o;
        if (std::string err = parse_make({args.begin() + 1, args.end()}, &o); !err.empty()) return usage_error(err);
        return make_drive(o);
    }
    return usage_error("unknown command " + args[0]);
}
