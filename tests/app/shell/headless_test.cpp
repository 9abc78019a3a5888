// The headless backup modes as a user runs them: the real executable, its lines and its status.
#include <gtest/gtest.h>

#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <filesystem>

#include "deck_drive.h"

namespace {

QString q(const std::string& s) { return QString::fromStdString(s); }

struct AppRun {
    int status = -1;
    QStringList lines;
};

AppRun runApp(const QStringList& args, const TempDir& home) {
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", q(home.path()));
    p.setProcessEnvironment(env);
    p.start(QM_APP_PATH, args);
    if (!p.waitForFinished(60000)) return {};
    QString out = QString::fromUtf8(p.readAllStandardOutput());
    EXPECT_TRUE(out.endsWith('\n')) << out.toStdString();
    out.chop(1);
    return {p.exitCode(), out.split('\n')};
}

TEST(HeadlessBackup, RunPrintsTheOutcomeAndExitsWithIt) {
    TempDir home, driveDir;
    QString drive = deckDrive(driveDir, deck::StatsState::Normal, 1);
    QString dest = q(home / "Dropbox");  // a cloud folder whose client is not running
    QString into = dest + "/Quillmate/" + QDir(drive).dirName();
    QString warning = "  WARNING: Dropbox is not running on this computer, so the copies are sitting in its folder "
                      "rather than going anywhere. Open Dropbox and they will upload.";
    std::filesystem::create_directories(home / "Dropbox");

    AppRun first = runApp({"--backup-run", drive, dest}, home);
    EXPECT_EQ(first.status, 0);
    ASSERT_EQ(first.lines.size(), 3) << first.lines.join('\n').toStdString();
    EXPECT_TRUE(first.lines[0].startsWith("Copied ") && first.lines[0].endsWith("), each one verified."));
    EXPECT_EQ(first.lines.mid(1), QStringList({warning, "into: " + into}));

    AppRun verify = runApp({"--verify", "--backup-run", drive, dest}, home);
    EXPECT_EQ(verify.status, 0);
    EXPECT_TRUE(QRegularExpression("^Already up to date \\(\\d+ files checked\\)\\.  Re-checked \\d+, all intact\\.$")
                    .match(verify.lines.value(0))
                    .hasMatch())
        << verify.lines.value(0).toStdString();

    // A copy that cannot be made (a file stands where its folder must go) is reported, status 1.
    spit(driveDir / "chapters/one.md", "text");
    spit((into + "/chapters").toStdString(), "in the way");
    AppRun unverified = runApp({"--backup-run", drive, dest}, home);
    EXPECT_EQ(unverified.status, 1);
    EXPECT_EQ(unverified.lines.value(1), "  UNVERIFIED: one.md (what arrived did not match what was sent)");

    AppRun noFolder = runApp({"--backup-run", drive, ""}, home);
    EXPECT_EQ(noFolder.status, 1);
    EXPECT_EQ(noFolder.lines, QStringList({"Backup failed: no folder chosen"}));
}

// The writing put back onto an empty stick, then again onto the same stick: nothing to do.
TEST(HeadlessBackup, RestorePutsTheWritingBack) {
    TempDir home, driveDir, fresh;
    QString drive = deckDrive(driveDir, deck::StatsState::Normal, 2);
    QString dest = q(home.path());
    ASSERT_EQ(runApp({"--backup-run", drive, dest}, home).status, 0);
    QString folder = dest + "/Quillmate/" + QDir(drive).dirName();

    AppRun first = runApp({"--restore-run", folder, q(fresh.path())}, home);
    EXPECT_EQ(first.status, 0);
    EXPECT_TRUE(first.lines.value(0).startsWith("Put back ")) << first.lines.join('\n').toStdString();
    EXPECT_EQ(slurp(fresh / ".qmv/Novel.md/history.log"), slurp(driveDir / ".qmv/Novel.md/history.log"));
    AppRun again = runApp({"--restore-run", folder, q(fresh.path())}, home);
    EXPECT_EQ(again.status, 0);
    EXPECT_TRUE(again.lines.value(0).startsWith("Nothing to put back.  ")) << again.lines.value(0).toStdString();
    AppRun notABackup = runApp({"--restore-run", q(fresh.path()), q(fresh.path())}, home);
    EXPECT_EQ(notABackup.status, 1);
    EXPECT_TRUE(notABackup.lines.value(0).startsWith("Putting the writing back failed: "));
}

TEST(HeadlessBackup, CheckNamesTheServiceOnlyWhenItsClientRuns) {
    TempDir home;
    std::filesystem::create_directories(home / "Dropbox/notes");
    std::filesystem::create_directories(home / "Box");
    std::filesystem::create_directories(home / "elsewhere");
    struct Case {
        std::string folder, second;
        int status;
    };
    const QString missing = q(home / "unplugged");
    for (const Case& c : {Case{"Dropbox/notes", "service: (none, or its client is not running)", 0},
                          Case{"Box", "service: Box", 0},
                          Case{"elsewhere", "service: (none, or its client is not running)", 0},
                          Case{"unplugged", "error:   the folder " + missing.toStdString() + " is not there. Is its disk plugged in?", 1}}) {
        QString folder = q(home / c.folder);
        AppRun r = runApp({"--backup-check", folder}, home);
        EXPECT_EQ(r.status, c.status);
        ASSERT_GE(r.lines.size(), 2);
        EXPECT_EQ(r.lines[0], "folder:  " + folder);
        EXPECT_EQ(r.lines[1], q(c.second));
    }
    EXPECT_EQ(runApp({"--backup-check", q(home / "Box")}, home).lines[2], "warning: (none)");
}

}  // namespace
