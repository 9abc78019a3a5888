// What the service reads: JSON, a drive's export (the core's own), release descriptions and the
// release feed's folder, whose archives are streamed over loopback exactly as they are on disk.
#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "json.h"
#include "published_stats.h"
#include "release_feed.h"
#include "service_fixture.h"

namespace {

TEST(Json, AcceptsWellFormedDocumentsOnly) {
    const char* good[] = {"{}", " [ ] ", "\"\\u00e9\\ud83d\\ude00\\n\"", "-0.5e+3", "[true,false,null,{\"a\":[1]}]",
                          "\"caf\xc3\xa9\""};
    for (const char* text : good) EXPECT_TRUE(json::parse(text)) << text;
    const char* bad[] = {"", "{", "{}x", "[1,]", "{\"a\":1,}", "01", "1.", ".5", "+1", "'a'", "\"\\x\"", "\"a\nb\"",
                         "\"\\ud800\"", "\"\\udc00\"", "\"\xc0\xaf\"", "\"\xed\xa0\x80\"", "\"\xff\"", "tru", "nul",
                         "{\"a\":1,\"a\":2}", "{1:2}"};
    for (const char* text : bad) EXPECT_FALSE(json::parse(text)) << text;
    EXPECT_TRUE(json::parse(std::string(json::kMaxDepth, '[') + std::string(json::kMaxDepth, ']')));
    EXPECT_FALSE(json::parse(std::string(json::kMaxDepth + 2, '[') + std::string(json::kMaxDepth + 2, ']')));
}

TEST(Json, ReadsValuesAndQuotesTextBackExactly) {
    auto doc = json::parse("{\"s\":\"a\\\"b\\u0041\",\"n\":4294967295,\"big\":4294967296,\"neg\":-1,\"f\":1.5}");
    ASSERT_TRUE(doc);
    EXPECT_EQ(doc->string_at("s"), "a\"bA");
    EXPECT_EQ(doc->find("n")->as_unsigned(), 4294967295u);
    EXPECT_FALSE(doc->find("big")->as_unsigned());
    EXPECT_FALSE(doc->find("neg")->as_unsigned());
    EXPECT_FALSE(doc->find("f")->as_unsigned());
    EXPECT_FALSE(doc->string_at("n"));
    const std::string awkward = "quote \" backslash \\ tab \t bell \x07 caf\xc3\xa9";
    EXPECT_EQ(json::parse(json::quote(awkward))->text, awkward);
}

TEST(Export, ReadsTheCoresExportOfADeckDrive) {
    DeckDrive drive(9, 300);
    auto read = read_export(drive.export_json(), drive.id());
    ASSERT_TRUE(std::holds_alternative<PublishedStats>(read)) << std::get<std::string>(read);
    const PublishedStats& s = std::get<PublishedStats>(read);
    qm_summary sum = drive.summary();
    EXPECT_EQ(s.seq, sum.seq);
    EXPECT_EQ(s.counters[PublishedStats::Words], sum.words);
    EXPECT_EQ(s.counters[PublishedStats::Created], sum.created);
    EXPECT_EQ(s.streak_best, sum.streak_best);
    ASSERT_EQ(s.days.size(), sum.n_days);
    std::vector<qm_day> days = drive.days();
    for (size_t i : {size_t(0), days.size() - 1}) {
        unsigned y, m, d;
        qm_day_to_ymd(days[i].day, &y, &m, &d);
        char date[16];
        std::snprintf(date, sizeof date, "%04u-%02u-%02u", y, m, d);
        EXPECT_EQ(format_date(s.days[i].day), date);
        EXPECT_EQ(s.days[i].words, days[i].words);
        EXPECT_EQ(s.days[i].secs, days[i].secs);
    }
    EXPECT_EQ(unpack_days(pack_days(s.days)).back().words, s.days.back().words);
    uint32_t d = 0;
    ASSERT_TRUE(parse_date("1980-01-01", d));
    EXPECT_EQ(format_date(d), "1980-01-01");
}

TEST(Export, RefusesDocumentsThatAreNotAnExport) {
    const std::string id(32, 'a');
    const std::string head = "{\"format\":2,\"drive_id\":\"" + id + "\",\"seq\":3,\"counters\":{\"sessions\":1,"
                             "\"write_secs\":1,\"longest_secs\":1,\"words\":1,\"chars\":1,\"sentences\":1,"
                             "\"newlines\":1,\"saves\":1,\"created\":1},"
                             "\"device_streak\":{\"current\":1,\"best\":1,\"days_written\":1},";
    EXPECT_TRUE(std::holds_alternative<PublishedStats>(read_export(head + "\"days\":[]}", id)));
    const std::string day = "{\"date\":\"2026-02-28\",\"words\":1,\"secs\":1}";
    struct Case {
        std::string body;
        const char* complaint;
    } cases[] = {
        {head + "\"days\":{}}", "\"days\""},
        {head + "\"days\":[" + day + "," + day + "]}", "ascending"},
        {head + "\"days\":[{\"date\":\"2026-02-29\",\"words\":1,\"secs\":1}]}", "date"},
        {head + "\"days\":[{\"date\":\"2026-2-28\",\"words\":1,\"secs\":1}]}", "date"},
        {head + "\"days\":[{\"date\":\"2026-02-28\",\"words\":1}]}", "secs"},
        {head + "\"days\":[1]}", "object"},
        {"{\"format\":2,\"drive_id\":\"" + id + "\",\"seq\":3,\"days\":[]}", "counters"},
        {"{\"format\":\"2\",\"drive_id\":\"" + id + "\"}", "format 2"},
        {"[]", "JSON object"},
    };
    for (const Case& c : cases) {
        auto read = read_export(c.body, id);
        ASSERT_TRUE(std::holds_alternative<std::string>(read)) << c.body;
        EXPECT_NE(std::get<std::string>(read).find(c.complaint), std::string::npos) << std::get<std::string>(read);
    }
    std::string many = head + "\"days\":[";
    for (size_t i = 0; i <= kMaxPublishedDays; ++i) many += (i ? "," : "") + std::string(day);
    EXPECT_NE(std::get<std::string>(read_export(many + "]}", id)).find("more days"), std::string::npos);
}

std::string description(const std::string& platform, const std::string& channel, const std::string& version) {
    return "{\"platform\":\"" + platform + "\",\"channel\":\"" + channel + "\",\"version\":\"" + version +
           "\",\"notes\":\"Fixes \\\"Install\\\".\\nFaster.\",\"filename\":\"QuillmateFlasher-" + version +
           ".zip\",\"url\":\"https://example.org/r.zip\",\"size\":1234,\"sha256\":\"" + std::string(64, 'a') +
           "\",\"signature\":\"" + std::string(128, 'B') + "\",\"mandatory\":false}";
}

std::string answered_version(const ServiceResponse& res) {
    auto doc = json::parse(res.body);
    return doc ? doc->string_at("version").value_or("(none)") : "(not JSON: " + res.body + ")";
}

TEST(ReleaseDescription, IsAReleaseOnlyWithEveryFieldWellTyped) {
    const std::string good = description("macos", "stable", "1.2.0");
    auto release = read_release(good);
    ASSERT_TRUE(std::holds_alternative<Release>(release)) << std::get<std::string>(release);
    EXPECT_EQ(std::get<Release>(release).signature, std::string(128, 'b'));  // served as the app compares it
    EXPECT_EQ(json::parse(release_json(std::get<Release>(release)))->string_at("notes"), "Fixes \"Install\".\nFaster.");

    const std::string sha(64, 'a'), sig(128, 'B');
    const std::pair<std::string, std::string> broken[] = {
        {"{", "["},
        {"\"size\":1234", "\"size\":-1"},
        {"\"size\":1234", "\"size\":\"1234\""},
        {"\"size\":1234", "\"size\":1e3"},
        {",\"mandatory\":false", ""},
        {"\"mandatory\":false", "\"mandatory\":0"},
        {"\"notes\"", "\"note\""},
        {"\"channel\":\"stable\"", "\"channel\":\"\""},
        {"\"filename\":\"QuillmateFlasher-1.2.0.zip\"", "\"filename\":\"../QuillmateFlasher.zip\""},
        {"\"filename\":\"QuillmateFlasher-1.2.0.zip\"", "\"filename\":\"QuillmateFlasher.exe\""},
        {sha, std::string(64, 'A')},  // the signed message carries the lower-case digest
        {sha, std::string(63, 'a')},
        {sig, std::string(127, 'b')},
        {sig, std::string(127, 'b') + "g"},
    };
    for (auto& [from, to] : broken)
        EXPECT_TRUE(std::holds_alternative<std::string>(read_release(with(good, from, to)))) << from << " -> " << to;
}

TEST(ReleaseFeedFolder, AnswersTheNewestReleaseOfThePlatformAndChannelAsked) {
    TempDir dir;
    spit(dir / "a.json", description("macos", "stable", "1.2.0"));
    spit(dir / "b.json", description("macos", "stable", "1.10.0"));
    spit(dir / "c.json", description("macos", "beta", "2.0.0"));
    spit(dir / "d.json", description("linux", "stable", "3.0.0"));
    spit(dir / "bad.json", with(description("macos", "stable", "9.0.0"), "false", "null"));
    spit(dir / "big.json", description("macos", "stable", "8.0.0") + std::string(64 * 1024, ' '));
    spit(dir / ".half-written.json", description("macos", "stable", "7.0.0"));
    spit(dir / "notes.txt", description("macos", "stable", "6.0.0"));
    ReleaseFeed feed(dir.path());

    using Query = std::map<std::string, std::string>;
    struct Case {
        Query query;
        int status;
        std::string version;
    } cases[] = {
        {{{"platform", "macos"}, {"channel", "stable"}, {"version", "1.0.0"}}, 200, "1.10.0"},
        {{{"platform", "macos"}, {"channel", "beta"}, {"version", "3.0.0"}}, 200, "2.0.0"},  // newest, even if older
        {{{"platform", "linux"}, {"channel", "stable"}}, 200, "3.0.0"},
        // No release for that platform or channel: the asked version back, so the app is up to date.
        {{{"platform", "macos"}, {"channel", "Stable"}, {"version", "1.0.0"}}, 200, "1.0.0"},
        {{{"platform", "windows"}, {"channel", "stable"}, {"version", "1.0 & more"}}, 200, "1.0 & more"},
        {{{"channel", "stable"}, {"version", "1.0.0"}}, 400, "(none)"},
        {{{"platform", "macos"}, {"channel", ""}}, 400, "(none)"},
    };
    testing::internal::CaptureStderr();
    for (const Case& c : cases) {
        ServiceResponse res = feed.check(c.query);
        EXPECT_EQ(res.status, c.status) << res.body;
        EXPECT_EQ(answered_version(res), c.version) << res.body;
    }
    std::string log = testing::internal::GetCapturedStderr();
    // One line per bad file, however often the folder is read; files that are no description are not bad.
    EXPECT_EQ(count_of(log, "/bad.json"), 1u) << log;
    EXPECT_EQ(count_of(log, "/big.json"), 1u) << log;
    EXPECT_EQ(count_of(log, "half-written") + count_of(log, "notes.txt"), 0u) << log;
    Release newest = std::get<Release>(read_release(description("macos", "stable", "1.10.0")));
    EXPECT_EQ(feed.check(cases[0].query).body, release_json(newest));

    // Published, corrected or withdrawn while the service runs: the next request sees it.
    spit(dir / "e.json", description("macos", "stable", "1.11.0"));
    EXPECT_EQ(answered_version(feed.check(cases[0].query)), "1.11.0");
    spit(dir / "bad.json", description("macos", "stable", "9.0.0"));
    EXPECT_EQ(answered_version(feed.check(cases[0].query)), "9.0.0");
    unlink((dir / "bad.json").c_str());
    EXPECT_EQ(answered_version(feed.check(cases[0].query)), "1.11.0");
}

class Releases : public ServiceFixture {
protected:
    void SetUp() override {
        releases_dir_ = outer_ / "feed";
        mkdir(releases_dir_.c_str(), 0755);
        start();
    }
    std::string feed(const std::string& name) const { return releases_dir_ + "/" + name; }
    TempDir outer_;
};

TEST_F(Releases, StreamsArchivesByteForByteAndNothingElseFromTheFolder) {
    std::string archive(3 * 1024 * 1024 + 17, '\0');  // many pieces of the front's buffer
    std::mt19937 random(7);
    for (char& c : archive) c = char(random());
    spit(feed("QuillmateFlasher-1.0.0.zip"), archive);
    spit(outer_ / "secret.zip", "not for anyone");
    spit(feed("secret"), "not for anyone");
    spit(feed(".hidden.zip"), "x");
    spit(feed("notes.txt"), "x");
    mkdir(feed("folder.zip").c_str(), 0755);
    ASSERT_EQ(symlink("../secret.zip", feed("outside.zip").c_str()), 0);
    ASSERT_EQ(symlink("QuillmateFlasher-1.0.0.zip", feed("inside.zip").c_str()), 0);

    auto r = client_->Get("/releases/QuillmateFlasher-1.0.0.zip");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_EQ(r->get_header_value("Content-Type"), "application/zip");
    EXPECT_EQ(r->get_header_value("Content-Length"), std::to_string(archive.size()));
    EXPECT_TRUE(r->body == archive) << "the archive arrived changed, " << r->body.size() << " bytes";

    for (const char* name : {"..%2Fsecret.zip", "%2e%2e%2fsecret.zip", "..%5Csecret.zip", "secret%00.zip",
                             ".hidden.zip", "notes.txt", "folder.zip", "outside.zip", "inside.zip", "missing.zip",
                             ""}) {
        Answer a = get(std::string("/releases/") + name);
        EXPECT_EQ(a.status, 404) << name;
        EXPECT_EQ(a.message(), "There is no release archive by that name.") << name;
    }

    // Over HTTP the query arrives percent-decoded and is matched exactly.
    spit(feed("beta.json"), description("macos", "beta 1", "1.3.0"));
    Answer check = get("/api/v1/update/check?platform=macos&channel=beta%201&version=1.0.0");
    EXPECT_EQ(check.status, 200);
    EXPECT_EQ(json::parse(check.body)->string_at("version"), "1.3.0") << check.body;
    EXPECT_EQ(post("/api/v1/update/check?platform=macos&channel=beta%201", "").status, 405);
}

}  // namespace
