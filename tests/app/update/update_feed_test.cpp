// Reading the release feed's answer: every way an answer can be unusable, and the good ones.
#include <gtest/gtest.h>

#include "update_feed.h"

namespace {

const QString kBase = "http://127.0.0.1:8080";
const QString kSha(64, 'a');
const QString kSig(128, 'b');
using Kind = UpdateCheck::Kind;

// A usable answer offering 1.3.0, with `from` replaced by `to`.
QByteArray offer(const QString& from = {}, const QString& to = {}) {
    QString body = "{\"version\": \"1.3.0\", \"url\": \"https://example.org/q.zip\", \"size\": 1234, \"sha256\": \"" +
                   kSha + "\", \"signature\": \"" + kSig + "\"}";
    return (from.isEmpty() ? body : body.replace(from, to)).toUtf8();
}
QByteArray offerWith(const QString& fields) { return offer("}", ", " + fields + "}"); }

UpdateCheck read(const QByteArray& body, int status = 200) { return UpdateFeed::read(status, body, "1.2", kBase); }

TEST(UpdateFeed, RefusesAnAnswerThatDoesNotMakeSense) {
    const struct {
        const char* what;
        QByteArray body;
    } cases[] = {
        {"not JSON", "<html>"},
        {"an array", "[]"},
        {"no version", "{}"},
        {"version with a line break", R"({"version": "9.0\nstable"})"},
        {"127-digit signature", offer(kSig, kSig.left(127))},
        {"signature not hex", offer(kSig, QString(128, 'g'))},
        {"short hash", offer(kSha, kSha.left(63))},
        {"no url", offer("\"url\"", "\"link\"")},
        {"plain http elsewhere", offer("https://example.org", "http://example.org")},
        {"a host that only begins like the service", offer("https://example.org", kBase + ".evil.example")},
        {"size as text", offer("1234", "\"1234\"")},
        {"negative size", offer("1234", "-1")},
        {"fractional size", offer("1234", "12.5")},
        {"file name with a folder", offerWith(R"("filename": "../q.zip")")},
        {"mandatory as text", offerWith(R"("mandatory": "yes")")},
        {"too long", offerWith("\"notes\": \"" + QString(UpdateFeed::kMaxAnswer, 'x') + "\"")},
    };
    for (const auto& c : cases) {
        UpdateCheck got = read(c.body);
        EXPECT_EQ(got.kind, Kind::Failed) << c.what;
        EXPECT_EQ(got.message, UpdateTexts::kNonsense) << c.what;
    }
}

TEST(UpdateFeed, ReadsWhatTheServerAnswered) {
    const std::pair<int, QString> failures[] = {{0, UpdateTexts::kUnreachable},
                                                {503, UpdateTexts::kHttpError.arg(503)}};
    for (const auto& [status, says] : failures) {
        EXPECT_EQ(read(offer(), status).kind, Kind::Failed) << status;
        EXPECT_EQ(read(offer(), status).message, says) << status;
    }
    // Nothing more is read from an answer that offers nothing newer.
    for (const char* body : {R"({"version": "1.2.0"})", R"({"version": "1.1.9", "url": 5})"})
        EXPECT_EQ(read(body).kind, Kind::UpToDate) << body;
    EXPECT_EQ(read(offer("https://example.org", kBase)).kind, Kind::Available) << "the service itself, without TLS";

    UpdateCheck plain = read(offer());
    ASSERT_EQ(plain.kind, Kind::Available);
    EXPECT_EQ(plain.info.filename, "QuillmateFlasher-1.3.0.zip");
    EXPECT_EQ(plain.info.notes, "");
    EXPECT_FALSE(plain.info.mandatory);
    EXPECT_EQ(plain.info.size, 1234);
    UpdateCheck full = read(offerWith(R"("filename": "Q.zip", "notes": "<b>not bold</b>", "mandatory": true)"));
    ASSERT_EQ(full.kind, Kind::Available);
    EXPECT_EQ(full.info.filename, "Q.zip");
    EXPECT_EQ(full.info.notes, "<b>not bold</b>");
    EXPECT_TRUE(full.info.mandatory);
}

TEST(UpdateFeed, HexBytesTakesExactlyTwoDigitsPerByte) {
    EXPECT_EQ(UpdateFeed::hexBytes("00ffAB", 3), QByteArray::fromHex("00ffab"));
    for (const char* bad : {"00ff", "00ffab00", "00fg", " 0ffab"})
        EXPECT_EQ(UpdateFeed::hexBytes(bad, 3), std::nullopt) << bad;
}

}  // namespace
