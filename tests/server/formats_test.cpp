// The service's JSON reader and its reading of a drive's export, on the core's own exports.
#include <gtest/gtest.h>

#include "json.h"
#include "published_stats.h"
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
                             "\"write_secs\":1,\"longest_secs\":1,\"words\":1,\"chars\":1,\"sentences\":1,\"newlines\":1,"
                             "\"saves\":1,\"created\":1},\"device_streak\":{\"current\":1,\"best\":1,\"days_written\":1},";
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

}  // namespace
