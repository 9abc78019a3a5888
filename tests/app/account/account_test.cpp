// The account client, the Account tab and publishing from the Statistics tab, against the real
// account service started on loopback with a database of its own.
#include <gtest/gtest.h>

#include <QClipboard>
#include <QFile>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPushButton>
#include <QTcpServer>
#include <QTest>
#include <sys/stat.h>

#include "account_model.h"
#include "account_tab.h"
#include "app_object.h"
#include "published_address.h"
#include "deck_drive.h"
#include "local_service.h"
#include "stats_model.h"

namespace {

const QString kSignInFirst = "Sign in on the Account tab first.";
const QString kPassword = "correct horse battery staple";

// Each test keeps its token in a home of its own: ctest runs the cases side by side.
class AccountTest : public ::testing::Test {
protected:
    void SetUp() override {
        oldHome_ = qgetenv("HOME");
        qputenv("HOME", QByteArray::fromStdString(home_.path()));
    }
    void TearDown() override {
        qputenv("HOME", oldHome_);
        qunsetenv("QM_SERVER");
    }
    TempDir home_;
    QByteArray oldHome_;
};

TEST_F(AccountTest, StoreKeepsOneTokenPerAddressOwnerOnlyTrimmedAndRemovesIt) {
    const QString home = CloudSession::kDefaultBaseURL, other = "http://127.0.0.1:9";
    EXPECT_EQ(Store::token(home), std::nullopt);
    mode_t old = ::umask(0);  // a lax umask must not leak a token
    ASSERT_TRUE(Store::setToken(home, QString("first"), "a@example.org"));
    ASSERT_TRUE(Store::setToken(other, QString("elsewhere")));
    ::umask(old);
    for (const QString& path : {Store::tokenPath(), Store::signInsPath()})
        EXPECT_EQ(QFile::permissions(path), QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser);
    ASSERT_TRUE(Store::setToken(home, QString("second"), "a@example.org"));
    EXPECT_EQ(Store::signIns(), (QList<Store::SignIn>{{home, "second", "a@example.org"}, {other, "elsewhere", ""}}));

    struct {
        const char* content;
        std::optional<QString> token;
    } reads[] = {{"  abc\r\n", "abc"}, {"\n\t \n", std::nullopt}, {"", std::nullopt}};
    for (const auto& r : reads) {
        spit(Store::tokenPath().toStdString(), r.content);
        EXPECT_EQ(Store::token(home), r.token) << r.content;
    }

    ASSERT_TRUE(Store::setToken(home, std::nullopt));
    EXPECT_FALSE(QFile::exists(Store::tokenPath()));
    EXPECT_TRUE(Store::setToken(home, std::nullopt));  // already gone is fine
    EXPECT_EQ(Store::token(other), "elsewhere");       // forgetting one address keeps the others

    // A token.txt from before addresses were told apart goes to the address in use now.
    ASSERT_TRUE(QFile::remove(Store::signInsPath()));
    spit(Store::tokenPath().toStdString(), "older\n");
    EXPECT_EQ(Store::token(other), "older");
    EXPECT_EQ(Store::token(home), std::nullopt);
}

// The address comes from QM_SERVER, without the slash at its end.
TEST_F(AccountTest, TabFollowsTheModelAndTheAddressInUse) {
    qunsetenv("QM_SERVER");
    EXPECT_EQ(CloudSession::baseURL(), CloudSession::kDefaultBaseURL);
    qputenv("QM_SERVER", "http://127.0.0.1:9/");
    AccountModel m;
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.working(); }, 5000));
    AccountTab tab(&m);
    EXPECT_EQ(tab.statusLine()->text(), "Not signed in.");
    EXPECT_FALSE(tab.signOutButton()->isEnabled());  // nobody to sign out
    EXPECT_FALSE(tab.signInButton()->isEnabled());
    QTest::keyClicks(tab.emailField(), "a@example.org");
    EXPECT_FALSE(tab.signInButton()->isEnabled());  // a password is needed too
    QTest::keyClicks(tab.passwordField(), "pw");
    EXPECT_EQ(m.email(), "a@example.org");
    EXPECT_EQ(m.password(), "pw");
    EXPECT_TRUE(tab.signInButton()->isEnabled());
    EXPECT_EQ(tab.passwordField()->echoMode(), QLineEdit::Password);

    ASSERT_TRUE(Store::setToken("https://elsewhere.example", QString("t")));  // kept, and said so
    AccountModel again;
    ASSERT_TRUE(QTest::qWaitFor([&] { return !again.working(); }, 5000));
    EXPECT_EQ(again.accountStatus(), "Not signed in at http://127.0.0.1:9. (You are signed in at "
                                     "https://elsewhere.example; that sign-in is kept.)");

    PublishedAddress published;
    EXPECT_EQ(published.setMessage("Sign in on the Account tab first."), "Sign in on the Account tab first.");
    EXPECT_TRUE(published.isHidden());
    EXPECT_EQ(published.setMessage("Published to https://h.example/d/0a1b"), "Published to");
    EXPECT_FALSE(published.isHidden());
    EXPECT_EQ(published.link()->text(), "<a href=\"https://h.example/d/0a1b\">https://h.example/d/0a1b</a>");
    published.copyButton()->click();
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "https://h.example/d/0a1b");
}

TEST_F(AccountTest, UnreachableServiceIsNamedAndSigningOutStillForgetsTheToken) {
    QTcpServer probe;  // a port that was free a moment ago and has nobody listening now
    ASSERT_TRUE(probe.listen(QHostAddress::LocalHost));
    QString base = QString("http://127.0.0.1:%1").arg(probe.serverPort());
    probe.close();
    qputenv("QM_SERVER", (base + "//").toUtf8());

    ASSERT_TRUE(Store::setToken(base, QString("kept"), "a@example.org"));  // shown, though not checked
    AccountModel m;
    EXPECT_EQ(m.accountStatus(), "Signed in as a@example.org");
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.working(); }, 35000));
    EXPECT_EQ(m.accountStatus(), "Signed in as a@example.org (could not reach the service)");
    EXPECT_TRUE(m.signedIn());
    EXPECT_EQ(Store::token(base), "kept");
    m.setEmail("a@example.org");
    m.setPassword("pw");
    m.signIn();
    EXPECT_TRUE(m.busy());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.working(); }, 35000));
    EXPECT_EQ(m.accountStatus(), "Could not reach " + base + ".");
    EXPECT_EQ(m.password(), "pw");
    AccountTab tab(&m);
    tab.signOutButton()->click();  // the service cannot be told: the sign-in goes all the same
    EXPECT_EQ(tab.statusLine()->text(), "Signing out…");
    EXPECT_FALSE(tab.signOutButton()->isEnabled());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.working(); }, 35000));
    EXPECT_EQ(tab.statusLine()->text(), "Not signed in.");
    EXPECT_FALSE(tab.signOutButton()->isEnabled());
    EXPECT_FALSE(Store::token(base));
}

// The account service on a free loopback port, with a database of its own and two accounts.
class ServiceTest : public AccountTest {
protected:
    void SetUp() override {
        AccountTest::SetUp();
#if !defined(QM_SERVER_PATH)
        GTEST_SKIP() << "SKIPPED: the account service (qm-server) is not part of this build";
#else
        db_ = QString::fromStdString(data_ / "accounts.db");
        for (const char* who : {"owner@example.org", "other@example.org"})
            ASSERT_EQ(runProgram({QM_SERVER_PATH, "add-user", "--db", db_, who}, (kPassword + "\n").toUtf8()), 0);
        ASSERT_TRUE(service_.start(QM_SERVER_PATH, {"--db", db_})) << "the service never listened";
        base_ = service_.base();
        qputenv("QM_SERVER", base_.toUtf8());
#endif
    }

    void signInAs(AccountModel& m, const QString& email, const QString& password) {
        ASSERT_TRUE(QTest::qWaitFor([&] { return !m.working(); }, 35000));
        m.setEmail(email);
        m.setPassword(password);
        m.signIn();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !m.working(); }, 35000));
    }
    void publish(StatsModel& stats) {
        stats.publish();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !stats.busy(); }, 35000));
    }
    QByteArray get(const QString& url, int* status, const QString& token = {}) {
        QNetworkAccessManager nam;
        QNetworkRequest request{QUrl(url)};
        if (!token.isEmpty()) request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
        std::unique_ptr<QNetworkReply> reply(nam.get(request));
        EXPECT_TRUE(QTest::qWaitFor([&] { return reply->isFinished(); }, 10000));
        *status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        return reply->readAll();
    }

    TempDir data_;
    QString db_;
    QString base_;
    LocalService service_;
};

// An account is made only with a password of 8 characters or more, counted as characters.
TEST_F(ServiceTest, AddUserRefusesAShortPassword) {
#if defined(QM_SERVER_PATH)
    const QString db = QString::fromStdString(data_ / "new.db");
    const QStringList args{QM_SERVER_PATH, "add-user", "--db", db, "new@example.org"};
    auto add = [&](const QString& password) { return runProgram(args, (password + "\n").toUtf8()); };
    EXPECT_EQ(add("seven 7"), 1);
    EXPECT_EQ(add("Ünïcödé"), 1);  // 7 characters in 11 bytes
    EXPECT_EQ(add("eight 88"), 0);
#endif
}

TEST_F(ServiceTest, ATokenTheServiceRefusesIsForgottenThenSignInIsRejectedAcceptedAndCheckedOnTheNextStart) {
    ASSERT_TRUE(Store::setToken(base_, QString("not-a-token-the-service-gave")));
    AccountModel m;
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.working(); }, 35000));
    EXPECT_EQ(m.accountStatus(), "Not signed in.");
    EXPECT_FALSE(Store::token(base_));
    ASSERT_TRUE(Store::setToken(base_, QString("not-a-token-the-service-gave")));
    m.signOut();  // refused by the service, forgotten here all the same
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.working(); }, 35000));
    EXPECT_EQ(m.accountStatus(), "Not signed in.");
    EXPECT_FALSE(Store::token(base_));

    signInAs(m, "owner@example.org", "wrong password");
    EXPECT_EQ(m.email(), "owner@example.org");
    EXPECT_EQ(m.password(), "wrong password");
    EXPECT_EQ(m.accountStatus(), "The e-mail address or the password is not right.");  // the service's own words
    EXPECT_FALSE(Store::token(base_));

    signInAs(m, "owner@example.org", kPassword);
    EXPECT_EQ(m.accountStatus(), "Signed in as owner@example.org");
    EXPECT_EQ(m.password(), "");
    EXPECT_EQ(m.email(), "owner@example.org");
    EXPECT_TRUE(Store::token(base_));

    AccountModel later;  // a new start checks the stored sign-in once
    ASSERT_TRUE(QTest::qWaitFor([&] { return !later.working(); }, 35000));
    EXPECT_EQ(later.accountStatus(), "Signed in as owner@example.org");
}

TEST_F(ServiceTest, PublishShowsThePageGuardsTheDriveAndNeedsASignIn) {
    TempDir dir;
    DriveSelection drives;
    CloudClient cloud;
    StatsModel stats(&drives, publishThrough(cloud));
    drives.pin({QmVolume{deckDrive(dir, deck::StatsState::Normal), "Deck", true}});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !stats.busy(); }, 20000));
    ASSERT_TRUE(stats.summary());
    qm_summary totals = *stats.summary();
    QString id;
    {
        std::unique_ptr<Drive> d = Drive::open(*drives.path(), nullptr);
        ASSERT_TRUE(d);
        id = d->driveIdHex();
    }

    int status = 0;
    get(base_ + "/d/" + id, &status);
    EXPECT_EQ(status, 404);  // nothing published yet

    AccountModel account;
    signInAs(account, "owner@example.org", kPassword);
    publish(stats);
    EXPECT_EQ(stats.status(), "Published to " + base_ + "/d/" + id);
    QString page = QString::fromUtf8(get(base_ + "/d/" + id, &status));
    EXPECT_EQ(status, 200);
    QString words = QString::number(totals.words), grouped = QLocale(QLocale::English).toString(totals.words);
    EXPECT_TRUE(page.contains(words) || page.contains(grouped)) << "words " << words.toStdString();

    signInAs(account, "other@example.org", kPassword);
    ASSERT_EQ(account.accountStatus(), "Signed in as other@example.org");
    publish(stats);
    EXPECT_TRUE(stats.status().startsWith("That drive belongs to another account. To publish it, sign in"));

    QString token = Store::token(base_).value_or(QString());
    get(base_ + "/api/v1/me", &status, token);
    ASSERT_EQ(status, 200);
    account.signOut();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !account.working(); }, 5000));
    EXPECT_EQ(account.accountStatus(), "Not signed in.");
    EXPECT_FALSE(account.signedIn());
    EXPECT_FALSE(Store::token(base_));
    get(base_ + "/api/v1/me", &status, token);
    EXPECT_EQ(status, 401);  // the service was told which token to revoke
    publish(stats);
    EXPECT_EQ(stats.status(), kSignInFirst);
}

}  // namespace
