// Reading the release feed's answer: every way an answer can be unusable, and the two good ones.
#include <gtest/gtest.h>

#include "update_feed.h"

namespace {

const QString kBase = "http://127.0.0.1:8080";
const QString kSha(64, 'a');
const QString kSig(128, 'b');

QByteArray answer(const QString& fields) { return ("{\"version\": \"1.3.0\"" + fields + "}").toUtf8(); }

QString good(const QString& except = {}) {
    QString f = ", \"url\": \"https://example.org/q.zip\", \"size\": 1234, \"sha256\": \"" + kSha +
                "\", \"signature\": \"" + kSig + "\"";
    return f + except;
}

TEST(UpdateFeed, ReadsWhatTheServerAnswered) {
    struct {
        const char* what;
        int status;
        QByteArray body;
        UpdateCheck::Kind kind;
        QString message;
    } cases[] = {
        {"no exchange", 0, {}, UpdateCheck::Kind::Failed, UpdateTexts::kUnreachable},
        {"server error", 503, answer(good()), UpdateCheck::Kind::Failed, UpdateTexts::kHttpError.arg(503)},
        {"same version", 200, R"({"version": "1.2.0"})", UpdateCheck::Kind::UpToDate, {}},
        {"older version", 200, R"({"version": "1.1.9", "url": 5})", UpdateCheck::Kind::UpToDate, {}},
        {"newer", 200, answer(good()), UpdateCheck::Kind::Available, {}},
        {"not JSON", 200, "<html>", UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"an array", 200, "[]", UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"no version", 200, "{}", UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"version with a line break", 200, R"({"version": "9.0\nstable"})", UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"127-digit signature", 200, answer(good().replace(kSig, kSig.left(127))), UpdateCheck::Kind::Failed,
         UpdateTexts::kNonsense},
        {"signature not hex", 200, answer(good().replace(kSig, QString(128, 'g'))), UpdateCheck::Kind::Failed,
         UpdateTexts::kNonsense},
        {"short hash", 200, answer(good().replace(kSha, kSha.left(63))), UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"no url", 200, answer(good().replace("\"url\"", "\"link\"")), UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"plain http elsewhere", 200, answer(good().replace("https://example.org", "http://example.org")),
         UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"a host that only begins like the service", 200,
         answer(good().replace("https://example.org", kBase + ".evil.example")), UpdateCheck::Kind::Failed,
         UpdateTexts::kNonsense},
        {"the service itself without TLS", 200, answer(good().replace("https://example.org", kBase)),
         UpdateCheck::Kind::Available, {}},
        {"size as text", 200, answer(good().replace("1234", "\"1234\"")), UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"negative size", 200, answer(good().replace("1234", "-1")), UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"fractional size", 200, answer(good().replace("1234", "12.5")), UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
        {"file name with a folder", 200, answer(good(", \"filename\": \"../q.zip\"")), UpdateCheck::Kind::Failed,
         UpdateTexts::kNonsense},
        {"mandatory as text", 200, answer(good(", \"mandatory\": \"yes\"")), UpdateCheck::Kind::Failed,
         UpdateTexts::kNonsense},
        {"too long", 200, answer(good(", \"notes\": \"" + QString(UpdateFeed::kMaxAnswer, 'x') + "\"")),
         UpdateCheck::Kind::Failed, UpdateTexts::kNonsense},
    };
    for (const auto& c : cases) {
        UpdateCheck got = UpdateFeed::read(c.status, c.body, "1.2", kBase);
        EXPECT_EQ(int(got.kind), int(c.kind)) << c.what;
        EXPECT_EQ(got.message, c.message) << c.what;
    }
}

TEST(UpdateFeed, FillsTheReleaseWithDefaults) {
    UpdateCheck plain = UpdateFeed::read(200, answer(good()), "1.2.0", kBase);
    ASSERT_EQ(plain.kind, UpdateCheck::Kind::Available);
    EXPECT_EQ(plain.info.filename, "QuillmateFlasher-1.3.0.zip");
    EXPECT_EQ(plain.info.notes, "");
    EXPECT_FALSE(plain.info.mandatory);
    EXPECT_EQ(plain.info.size, 1234);

    UpdateCheck full = UpdateFeed::read(
        200, answer(good(R"(, "filename": "Q.zip", "notes": "<b>not bold</b>", "mandatory": true)")), "1.2.0", kBase);
    ASSERT_EQ(full.kind, UpdateCheck::Kind::Available);
    EXPECT_EQ(full.info.filename, "Q.zip");
    EXPECT_EQ(full.info.notes, "<b>not bold</b>");
    EXPECT_TRUE(full.info.mandatory);
}

TEST(UpdateFeed, HexBytesTakesExactlyTwoDigitsPerByte) {
    EXPECT_EQ(UpdateFeed::hexBytes("00ffAB", 3), QByteArray::fromHex("00ffab"));
    for (const char* bad : {"00ff", "00ffab00", "00fg", " 0ffab"}) EXPECT_EQ(UpdateFeed::hexBytes(bad, 3), std::nullopt) << bad;
}

}  // namespace
