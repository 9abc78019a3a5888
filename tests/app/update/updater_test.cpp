// Updates end to end against the real account service, with releases packed at test time and
// signed by qm-release: the check, the download, every refusal (each leaving the installed bundle
// exactly as it was and the download deleted), the install and the relaunch, and the Settings
// model's behaviour around them, waiting for a drive being written among it.
#include <gtest/gtest.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QTest>
#include <sys/mount.h>
#include <sys/stat.h>

#include <map>

#include "backup_model.h"
#include "flash_fakes.h"
#include "history_model.h"
#include "local_service.h"
#include "running_work.h"
#include "settings_model.h"
#include "update_banner.h"
#include "update_notes.h"
#include "temp_dir.h"
#include "updater.h"
#include "zip_builder.h"

namespace {

const QString kApp = "Quillmate Flasher.app";
const QString kExe = "bin/quillmate-flasher";

// A bundle's entries as an archive holds them, with a program that only says it has started, as
// the real one does once its window is painted, and exits.
std::vector<Planned> bundleEntries(const QString& version, const QString& key, const QString& top = kApp) {
    const QJsonObject manifest{{"name", "Quillmate Flasher"}, {"version", version}, {"update_public_key", key}};
    const std::string at = top.toStdString() + "/";
    return {{at + "bundle.json", AE_IFREG, QJsonDocument(manifest).toJson().toStdString()},
            {at + kExe.toStdString(), AE_IFREG, "#!/bin/sh\n: > \"$QM_UPDATE_STARTED\"\n", 0755},
            {at + "share/quillmate-flasher/readme", AE_IFREG, "images would be here\n"}};
}

// Everything under a folder, by relative path: kind, permission bits, content or link target.
std::map<QString, QString> tree(const QString& root) {
    std::map<QString, QString> t;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFileInfo f(it.next());
        struct stat st {};
        ::lstat(QFile::encodeName(f.filePath()).constData(), &st);
        QString what = QString::number(st.st_mode, 8);
        if (f.isSymLink()) what += " -> " + f.symLinkTarget();
        else if (f.isFile()) what += " " + QByteArray::fromStdString(slurp(f.filePath().toStdString())).toHex();
        t[QDir(root).relativeFilePath(f.filePath())] = what;
    }
    return t;
}

class UpdaterTest : public ::testing::Test {
protected:
    void SetUp() override {
#if !defined(QM_SERVER_PATH) || !defined(QM_RELEASE_PATH) || !defined(QUILLMATE_FLASHER_PATH)
        GTEST_SKIP() << "SKIPPED: qm-server, qm-release or the program is not part of this build";
#else
        for (const char* d : {"tmp", "opt", "releases", "keys", "home"}) QDir().mkpath(dir(d));
        // Downloads land in private folders under TMPDIR: the test can see that they went.
        oldTmp_ = qEnvironmentVariableIsSet("TMPDIR") ? qgetenv("TMPDIR") : QByteArray();
        qputenv("TMPDIR", dir("tmp").toLocal8Bit());
        ASSERT_EQ(runProgram({QM_RELEASE_PATH, "keygen", "--out", dir("keys/release")}, {}, "/dev/null"), 0);
        ASSERT_EQ(runProgram({QM_RELEASE_PATH, "keygen", "--out", dir("keys/other")}, {}, "/dev/null"), 0);
        key_ = readKey("release");
        ASSERT_EQ(key_.size(), 64);
        installBundle(dir("opt"), bundleEntries("0.1.0", key_));
        ASSERT_TRUE(service_.start(QM_SERVER_PATH, {"--db", dir("accounts.db"), "--releases", dir("releases")}));
#endif
    }
    void TearDown() override {
        if (oldTmp_.isNull()) qunsetenv("TMPDIR");
        else qputenv("TMPDIR", oldTmp_);
    }

    QString dir(const QString& rel) const { return QString::fromStdString(root_ / rel.toStdString()); }
    QString bundle() const { return dir("opt/" + kApp); }
    QString readKey(const QString& name) const {
        return QString::fromStdString(slurp(dir("keys/" + name + ".pub").toStdString())).trimmed();
    }
    void installBundle(const QString& where, const std::vector<Planned>& entries) {
        for (const Planned& e : entries) {
            const std::string path = where.toStdString() + "/" + e.path;
            spit(path, e.data);
            ASSERT_TRUE(::chmod(path.c_str(), e.perm) == 0 && slurp(path) == e.data) << path;
        }
    }

    UpdateIdentity identity(const QString& version = "0.1.0") const {
        UpdateIdentity id;
        id.version = version;
        id.channel = "stable";
        id.publicKeyHex = key_;
        id.baseURL = service_.base();
        id.bundleRoot = bundle();
        id.executableInBundle = kExe;
        return id;
    }

    // Packs entries as the release's archive, signs it and returns what the feed would say.
    UpdateInfo release(const QString& version, const std::vector<Planned>& entries, const QStringList& signAs = {}) {
        QString zip = dir("releases/QuillmateFlasher-" + version + ".zip");
        spit(zip.toStdString(), zipOf(entries));
        return sign(zip, version, signAs);
    }
    UpdateInfo sign(const QString& zip, const QString& version, const QStringList& signAs = {}) {
        QString json = dir("releases/" + QFileInfo(zip).completeBaseName() + QString::number(++signed_) + ".json");
        QStringList args{QM_RELEASE_PATH, "sign", "--key", dir("keys/release.key"), "--archive", zip,
                         "--platform", "linux", "--channel", "stable", "--version", version,
                         "--url", service_.base() + "/releases/" + QFileInfo(zip).fileName(), "--out", json};
        for (int i = 0; i + 1 < signAs.size(); i += 2) {
            qsizetype at = args.indexOf(signAs[i]);
            if (at < 0) args << signAs[i] << signAs[i + 1];
            else args[at + 1] = signAs[i + 1];
        }
        EXPECT_EQ(runProgram(args, {}, "/dev/null"), 0);
        QJsonObject o = QJsonDocument::fromJson(QByteArray::fromStdString(slurp(json.toStdString()))).object();
        if (signAs.contains("--channel")) QFile::remove(json);  // a signature for another release must not be served
        return {o["version"].toString(), o["notes"].toString(), o["filename"].toString(), o["url"].toString(),
                qint64(o["size"].toDouble()), o["sha256"].toString(), o["signature"].toString(),
                o["mandatory"].toBool()};
    }

    // Starts an asynchronous step and waits for its result.
    template <typename T>
    static T wait(const std::function<void(std::function<void(T)>)>& start) {
        std::optional<T> result;
        start([&](T r) { result = std::move(r); });
        EXPECT_TRUE(QTest::qWaitFor([&] { return result.has_value(); }, 60000));
        return result ? std::move(*result) : T{};
    }
    // Downloads and, when that passes, installs: the failure's text, or none.
    std::optional<QString> update(const UpdateIdentity& id, const UpdateInfo& info, InstallOutcome* outcome = nullptr,
                                  const RestartRequest& restart = {}) {
        Updater u(id);
        DownloadOutcome d = wait<DownloadOutcome>([&](auto done) { u.download(info, [](double) {}, [] {}, done); });
        if (!d.archive) return d.failure;
        InstallOutcome o =
            wait<InstallOutcome>([&](auto done) { u.install(info, std::move(d.archive), done, restart); });
        if (outcome) *outcome = o;
        return o.failure;
    }
    QStringList leftovers() const {
        return QDir(dir("tmp")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot) +
               QDir(dir("opt")).entryList({".QuillmateUpdate*"}, QDir::AllEntries | QDir::Hidden);
    }

    TempDir root_;
    QByteArray oldTmp_;
    QString key_;
    LocalService service_;
    int signed_ = 0;
};

TEST_F(UpdaterTest, RefusesEveryDownloadOrArchiveThatIsNotTheSignedRelease) {
    const std::map<QString, QString> before = tree(bundle());
    UpdateInfo good = release("0.2.0", bundleEntries("0.2.0", key_));
    auto flipped = [&](UpdateInfo i) {
        QByteArray bytes = QByteArray::fromStdString(slurp(dir("releases/" + i.filename).toStdString()));
        bytes[bytes.size() / 2] = char(bytes[bytes.size() / 2] ^ 0x01);
        spit(dir("releases/flipped.zip").toStdString(), bytes.toStdString());
        i.url = service_.base() + "/releases/flipped.zip";
        return i;
    };
    UpdateInfo otherChannel = good;  // the channel is part of what is signed
    otherChannel.signature = sign(dir("releases/" + good.filename), good.version, {"--channel", "beta"}).signature;
    auto shortBy = [](UpdateInfo i, int n) { i.size -= n; return i; };
    auto running = [&](const std::function<void(UpdateIdentity&)>& change) {
        UpdateIdentity id = identity();
        change(id);
        return id;
    };
    std::vector<Planned> twoBundles = bundleEntries("0.2.4", key_);
    for (Planned& x : bundleEntries("0.2.4", key_, "Second.app")) twoBundles.push_back(x);
    const QString cannotReplace = UpdateTexts::kNotBundle + " ";

    struct Case {
        const char* what;
        UpdateInfo info;
        QString expected;
        std::optional<UpdateIdentity> id = std::nullopt;
    } cases[] = {
        {"one byte short", shortBy(good, -1), UpdateTexts::kWrongSize},
        {"one byte long", shortBy(good, 1), UpdateTexts::kWrongSize},
        {"announced above 1 GiB", shortBy(good, -(1 << 30)), UpdateTexts::kTooLarge},
        {"one bit flipped", flipped(good), UpdateTexts::kMismatch},
        {"signed for another channel", otherChannel, UpdateTexts::kMismatch},
        {"a build without a key", good, UpdateTexts::kNoKey, running([](auto& id) { id.publicKeyHex.clear(); })},
        {"a mistyped key", good, UpdateTexts::kMalformedKey, running([](auto& id) { id.publicKeyHex.chop(1); })},
        {"a downgrade", release("0.0.9", bundleEntries("0.0.9", key_)), UpdateTexts::kNonsense},
        {"not running from a bundle", good, cannotReplace + UpdateTexts::kGetItAsBefore.arg("0.2.0"),
         running([](auto& id) { id.bundleRoot.reset(); })},
        {"installed as a package", good, cannotReplace + UpdateTexts::kUsePackageManager.arg("0.2.0"),
         running([](auto& id) { id.bundleRoot.reset(), id.packaged = true; })},
        {"two bundles", release("0.2.4", twoBundles), UpdateTexts::kUnpackFailed},
        {"another version inside", release("0.2.5", bundleEntries("0.2.6", key_)), UpdateTexts::kBundleCheckFailed},
        {"another key inside", release("0.2.7", bundleEntries("0.2.7", readKey("other"))),
         UpdateTexts::kOtherDeveloper},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(update(c.id.value_or(identity()), c.info), c.expected) << c.what;
        EXPECT_EQ(tree(bundle()), before) << c.what;
        EXPECT_EQ(leftovers(), QStringList()) << c.what << ": " << leftovers().join(", ").toStdString();
    }
}

// The folder holding the bundle cannot be written: nothing changes and the verified archive is
// left where the user is shown it. As root, permissions do not stop writes: a read-only mount does.
TEST_F(UpdaterTest, LeavesTheVerifiedArchiveWhenTheBundleFolderIsReadOnly) {
    UpdateInfo good = release("0.2.0", bundleEntries("0.2.0", key_));
    QString opt = dir("opt");
    if (::geteuid() == 0) {
        ASSERT_EQ(::mount("qm-test", QFile::encodeName(opt).constData(), "tmpfs", 0, "size=4m"), 0);
        installBundle(opt, bundleEntries("0.1.0", key_));
        ASSERT_EQ(::mount(nullptr, QFile::encodeName(opt).constData(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    } else {
        ::chmod(QFile::encodeName(opt).constData(), 0555);
    }
    struct Restore {
        QString opt;
        ~Restore() {
            if (::geteuid() == 0) ::umount2(QFile::encodeName(opt).constData(), MNT_DETACH);
            else ::chmod(QFile::encodeName(opt).constData(), 0755);
        }
    } restore{opt};
    const std::map<QString, QString> before = tree(bundle());
    InstallOutcome o;
    EXPECT_EQ(update(identity(), good, &o), UpdateTexts::kNotWritable.arg(opt));
    EXPECT_EQ(tree(bundle()), before);
    ASSERT_TRUE(o.reveal.has_value());
    QFile kept(*o.reveal);
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_EQ(kept.size(), good.size);
    QDir(QFileInfo(*o.reveal).absolutePath()).removeRecursively();
}

// The headless self-check ends in failure only when a fetch does not pass its checks; the key may be
// given in capitals.
TEST_F(UpdaterTest, SelfCheckFailsOnlyWhenAFetchFails) {
    release("0.2.0", bundleEntries("0.2.0", key_));
    qputenv("QM_SERVER", service_.base().toUtf8());
    qputenv("QM_VERSION", "0.1.0");
    qputenv("XDG_CONFIG_HOME", dir("home").toLocal8Bit());
    const struct { QString key; const char* flag; int status; QString lastLine; } cases[] = {
        {key_, "--check-update", 0, "update available: 0.2.0, "},
        {key_.toUpper(), "--fetch-update", 0, "size, SHA-256 and Ed25519 signature all passed."},
        {readKey("other"), "--fetch-update", 1, UpdateTexts::kMismatch},
    };
    for (const auto& c : cases) {
        qputenv("QM_UPDATE_PUBKEY", c.key.toUtf8());
        EXPECT_EQ(runProgram({QUILLMATE_FLASHER_PATH, "--else", c.flag}, {}, dir("out.txt")), c.status) << c.flag;
        EXPECT_TRUE(QString::fromStdString(slurp((root_ / "out.txt"))).section('\n', -2).startsWith(c.lastLine))
            << c.flag << " " << slurp(root_ / "out.txt");
    }
    for (const char* name : {"QM_SERVER", "QM_VERSION", "XDG_CONFIG_HOME", "QM_UPDATE_PUBKEY"}) qunsetenv(name);
    EXPECT_EQ(leftovers(), QStringList()) << leftovers().join(", ").toStdString();
}

// The Settings model: a skipped version is not offered at launch but an explicit check still
// says what the server has; closing the banner hides it; a failed download leaves busy false;
// every answer of the server, up to date included, notes the time of the check.
TEST_F(UpdaterTest, SettingsModelSkipsDismissesAndRecovers) {
    spit((root_ / "notes.txt"), "<b>Fixes</b> & more");
    release("0.2.0", bundleEntries("0.2.0", key_), {"--notes-file", dir("notes.txt")});
    QSettings().remove("updateLastChecked");
    UpdateSettings::setAutomatic(true);
    UpdateSettings::setSkippedVersion("0.2.0");
    {
        SettingsModel m(identity(), std::nullopt);
        EXPECT_EQ(m.status(), "Not checked yet.");
        m.checkOnLaunch();
        EXPECT_TRUE(m.working());
        ASSERT_TRUE(QTest::qWaitFor([&] { return !m.working(); }, 30000));
        EXPECT_TRUE(UpdateSettings::lastChecked().has_value());
        EXPECT_FALSE(m.found().has_value());
        m.checkNow();
        EXPECT_TRUE(m.busy());
        ASSERT_TRUE(QTest::qWaitFor([&] { return !m.busy(); }, 30000));
        EXPECT_EQ(m.status(), "Version 0.2.0 is available.");
        UpdateBanner banner(&m);
        EXPECT_FALSE(banner.isHidden());
        EXPECT_EQ(banner.text()->text(), "Version 0.2.0 is available.");
        QTest::mouseClick(banner.notesButton(), Qt::LeftButton);
        ASSERT_TRUE(banner.notesDialog());
        EXPECT_TRUE(banner.notesDialog()->isVisible());
        EXPECT_EQ(banner.notesDialog()->notesView()->toPlainText(), "<b>Fixes</b> & more");  // never rich text
        banner.notesDialog()->reject();
        EXPECT_FALSE(m.showingNotes());
        QTest::mouseClick(banner.closeButton(), Qt::LeftButton);
        EXPECT_TRUE(banner.isHidden());
        EXPECT_TRUE(m.bannerDismissed());
        EXPECT_TRUE(m.found().has_value());
    }
    UpdateSettings::setSkippedVersion({});
    {
        SettingsModel m(identity(), QString("0.1.0"));
        EXPECT_EQ(m.status(), "Updated to version 0.1.0.");
        m.checkOnLaunch();
        EXPECT_FALSE(m.working()) << "checked less than a day ago, yet asked again";
        m.checkNow();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !m.busy(); }, 30000));
        ASSERT_TRUE(m.found().has_value());
        QFile::remove(dir("releases/" + m.found()->filename));  // the archive goes missing
        bool exited = false;
        m.setExit([&] { exited = true; });
        UpdateBanner banner(&m);  // the failure is told where Install now was pressed
        m.updateNow();
        EXPECT_TRUE(m.busy());
        EXPECT_TRUE(banner.problem()->isHidden());
        ASSERT_TRUE(QTest::qWaitFor([&] { return !m.busy(); }, 30000));
        EXPECT_EQ(m.status(), UpdateTexts::kTransferFailed);
        EXPECT_EQ(banner.problem()->text(), UpdateTexts::kTransferFailed);
        EXPECT_FALSE(banner.problem()->isHidden());
        EXPECT_FALSE(exited);
        m.skip();
        EXPECT_EQ(m.status(), "Skipped. This version will not be mentioned again; the next one will.");
        EXPECT_EQ(UpdateSettings::skippedVersion(), "0.2.0");
    }
    QSettings().remove("updateLastChecked");
    SettingsModel current(identity("0.2.0"), std::nullopt);
    current.checkNow();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !current.busy(); }, 30000));
    EXPECT_EQ(current.status(), "You have the newest version.");
    EXPECT_TRUE(UpdateSettings::lastChecked().has_value()) << "an up-to-date answer is an answer too";
    EXPECT_EQ(leftovers(), QStringList()) << leftovers().join(", ").toStdString();
}

// The copy that ran before goes only once the new one has painted its window; a new copy that
// ends first, or shows nothing in time, is stopped and the old one put back. The new copy that
// works is the real program, started with the old window's place and arguments while the old
// bundle still waits beside it.
TEST_F(UpdaterTest, TheOldCopyGoesOnlyOnceTheNewOneHasShownItsWindow) {
    const QString said = dir("said.txt");
    auto running = [&](const QString& version, const QString& script) {
        std::vector<Planned> e = bundleEntries(version, key_);
        e[1].data = ("#!/bin/sh\n" + script).toStdString();
        return release(version, e);
    };
    const std::map<QString, QString> before = tree(bundle());
    const std::pair<const char*, UpdateInfo> failing[] = {
        {"ends at once", running("0.2.0", "echo $$ > '" + said + "'\n")},
        {"shows nothing", running("0.2.1", "echo $$ > '" + said + "'\nexec sleep 60\n")},
    };
    for (const auto& [what, info] : failing) {
        QFile::remove(said);
        EXPECT_EQ(update(identity(), info, nullptr, {{}, {}, 1500}), UpdateTexts::kDidNotStart) << what;
        EXPECT_EQ(tree(bundle()), before) << what;
        EXPECT_EQ(leftovers(), QStringList()) << what << ": " << leftovers().join(", ").toStdString();
        const int pid = std::atoi(slurp(said.toStdString()).c_str());
        EXPECT_TRUE(pid > 0 && ::kill(pid, 0) != 0) << what << ": the new copy still runs, or never ran";
    }

    // It reports its first paint and quits, with settings and a home of its own.
    const QString home = dir("home");
    ::chmod(QFile::encodeName(home).constData(), 0700);
    const QString script =
        "{ printf '%s\\n' \"$@\" \"$QM_RESTORE_WINDOW\"\n"
        "  cat \"$(dirname \"$QM_UPDATE_STARTED\")\"/*.app/bundle.json; } > '%1'\n"
        "HOME='%2' XDG_CONFIG_HOME='%2' XDG_RUNTIME_DIR='%2' QT_QPA_PLATFORM=offscreen QM_REPORT_WINDOW=1 \\\n"
        "  QM_SERVER=http://127.0.0.1:9 exec '%3' \"$@\" >> '%1'\n";
    UpdateInfo good = running("0.2.2", script.arg(said, home, QUILLMATE_FLASHER_PATH));
    InstallOutcome o;
    ASSERT_EQ(update(identity(), good, &o, {{"--keep", "a b"}, "tab=3;x=10;y=20"}), std::nullopt);
    ASSERT_GT(o.relaunched, 0);
    EXPECT_EQ(exit_status(pid_t(o.relaunched)), 0);
    const QString text = QString::fromStdString(slurp(said.toStdString()));
    EXPECT_TRUE(text.startsWith("--updated\n0.2.2\n--keep\na b\ntab=3;x=10;y=20\n")) << text.toStdString();
    EXPECT_TRUE(text.contains("\"version\": \"0.1.0\"")) << text.toStdString();
    EXPECT_TRUE(text.contains("\nupdates: Updated to version 0.2.2.\n")) << text.toStdString();
    EXPECT_EQ(Bundle::readManifest(bundle())->version, "0.2.2");
    EXPECT_EQ(leftovers(), QStringList()) << leftovers().join(", ").toStdString();
}

// While a drive is written, quitting says so, and Install now downloads and checks but puts the
// new copy in place and restarts only once the write has ended; no write starts meanwhile.
TEST_F(UpdaterTest, AWriteHoldsTheQuitAndTheRestart) {
    release("0.2.0", bundleEntries("0.2.0", key_));
    SettingsModel m(identity(), std::nullopt);
    HeldWrite write;
    DriveSelection drives;
    BackupModel backup(&drives);
    HistoryModel history(&drives);
    auto quitQuestion = [&] {
        auto warning = RunningWork::quitWarning(write.model, backup, history);
        return warning ? warning->question : QString();
    };
    RunningWork::keepUpdatesOffWrites(write.model, m);
    bool exited = false;
    m.setExit([&] { exited = true; });
    m.checkNow();
    ASSERT_TRUE(QTest::qWaitFor([&] { return m.found().has_value(); }, 30000));
    EXPECT_EQ(quitQuestion(), "");
    ASSERT_TRUE(write.start());
    EXPECT_EQ(quitQuestion(), "Quit while the drive is being written?");
    m.updateNow();
    ASSERT_TRUE(QTest::qWaitFor([&] { return m.status() == SettingsModel::kWaitingForWrite; }, 30000));
    EXPECT_EQ(Bundle::readManifest(bundle())->version, "0.1.0");
    write.release();
    ASSERT_TRUE(QTest::qWaitFor([&] { return exited; }, 30000));
    EXPECT_EQ(quitQuestion(), "");
    EXPECT_EQ(Bundle::readManifest(bundle())->version, "0.2.0");
    write.model.flash();
    EXPECT_EQ(write.model.status(), "An update is being installed; the app restarts in a moment.");
}

}  // namespace
