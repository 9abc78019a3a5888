// The real executable with no display, as a user runs its modes without a window.
#include <gtest/gtest.h>

#include <QDir>
#include <QDirIterator>
#include <QImage>
#include <QProcess>
#include <QRegularExpression>
#include <filesystem>

#include "deck_drive.h"

namespace {

struct AppRun {
    int status = -1;
    QStringList lines;  // standard output
    QString err;
};

// The program with a home of its own (the user's settings stay untouched) and no display.
struct Program {
    TempDir home;
    AppRun run(const QStringList& args) const {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", q(home));
        for (const char* var : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}) env.remove(var);
        p.setProcessEnvironment(env);
        p.start(QM_APP_PATH, args);
        if (!p.waitForFinished(60000)) return {};
        QString out = QString::fromUtf8(p.readAllStandardOutput());
        EXPECT_TRUE(out.isEmpty() || out.endsWith('\n')) << out.toStdString();
        out.chop(1);
        return {p.exitCode(), out.isEmpty() ? QStringList() : out.split('\n'),
                QString::fromUtf8(p.readAllStandardError())};
    }
};

TEST(HeadlessBackup, RunPrintsTheOutcomeAndExitsWithIt) {
    Program app;
    TempDir driveDir;
    QString drive = deckDrive(driveDir, deck::StatsState::Normal, 1);
    QString dest = q(app.home / "Dropbox");  // a cloud folder whose client is not running
    std::filesystem::create_directories(app.home / "Dropbox");

    AppRun first = app.run({"--backup-run", drive, dest});
    EXPECT_EQ(first.status, 0);
    ASSERT_EQ(first.lines.size(), 3) << first.lines.join('\n').toStdString();
    EXPECT_TRUE(first.lines[0].startsWith("Copied ") && first.lines[0].endsWith("), each one verified."));
    EXPECT_EQ(
        first.lines.mid(1),
        QStringList({"  WARNING: Dropbox is not running on this computer, so the copies are sitting in its folder "
                     "rather than going anywhere. Open Dropbox and they will upload.",
                     "into: " + dest + "/Quillmate/" + QDir(drive).dirName()}));

    AppRun verify = app.run({"--verify", "--backup-run", drive, dest});
    EXPECT_EQ(verify.status, 0);
    QRegularExpression upToDate("^Already up to date \\(\\d+ files checked\\)\\.  Re-checked \\d+, all intact\\.$");
    EXPECT_TRUE(upToDate.match(verify.lines.value(0)).hasMatch()) << verify.lines.value(0).toStdString();

    // Unverified files and their status 1 are the fault script's (backup_faults.unreadable).
    AppRun noFolder = app.run({"--backup-run", drive, ""});
    EXPECT_EQ(noFolder.status, 1);
    EXPECT_EQ(noFolder.lines, QStringList({"Backup failed: no folder chosen"}));

    // The writing put back onto an empty stick; what a second put-back finds is backup_run_test's.
    TempDir fresh;
    QString folder = dest + "/Quillmate/" + QDir(drive).dirName();
    AppRun restored = app.run({"--restore-run", folder, q(fresh)});
    EXPECT_EQ(restored.status, 0);
    EXPECT_TRUE(restored.lines.value(0).startsWith("Put back ")) << restored.lines.join('\n').toStdString();
    EXPECT_EQ(slurp(fresh / ".qmv/Novel.md/history.log"), slurp(driveDir / ".qmv/Novel.md/history.log"));
    AppRun notABackup = app.run({"--restore-run", q(fresh), q(fresh)});
    EXPECT_EQ(notABackup.status, 1);
    EXPECT_TRUE(notABackup.lines.value(0).startsWith("Putting the writing back failed: "));
}

TEST(HeadlessBackup, CheckNamesTheServiceOnlyWhenItsClientRuns) {
    Program app;
    for (const char* folder : {"Dropbox/notes", "Box", "elsewhere"})
        std::filesystem::create_directories(app.home / folder);
    const std::string none = "service: (none, or its client is not running)";
    const QString missing = q(app.home / "unplugged");
    const struct {
        std::string folder, second;
        int status;
    } cases[] = {
        {"Dropbox/notes", none, 0},
        {"Box", "service: Box", 0},
        {"elsewhere", none, 0},
        {"unplugged", "error:   the folder " + missing.toStdString() + " is not there. Is its disk plugged in?", 1}};
    for (const auto& c : cases) {
        QString folder = q(app.home / c.folder);
        AppRun r = app.run({"--backup-check", folder});
        EXPECT_EQ(r.status, c.status);
        ASSERT_GE(r.lines.size(), 2);
        EXPECT_EQ(r.lines[0], "folder:  " + folder);
        EXPECT_EQ(r.lines[1], q(c.second));
        if (c.folder == "Box") {
            EXPECT_EQ(r.lines.value(2), "warning: (none)");
        }
    }
}

const char* const kShots[] = {"mac-install", "mac-stats", "mac-history", "mac-backup", "mac-account", "mac-settings"};

QStringList entries(const TempDir& dir) {
    QStringList found;
    QDirIterator it(q(dir), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) found << it.next();
    found.sort();
    return found;
}

// A folder that is no drive, or a used drive without a key, is shown but never written to.
TEST(Screenshots, WriteEachTabAndLeaveTheDriveUntouched) {
    Program app;
    TempDir drive, plain, noKey, out;
    QString folder = q(out / "nested/shots");
    AppRun r = app.run({"--shot", folder, "--drive", deckDrive(drive, deck::StatsState::Normal, 2)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.lines, QStringList{"6 image(s) written to " + folder});
    for (const char* name : kShots) {
        QImage image(folder + "/" + name + ".png");
        ASSERT_FALSE(image.isNull()) << name;
        EXPECT_EQ(image.size() / image.devicePixelRatio(), QSize(580, 560));
    }

    spit(plain / "taxes.txt", "numbers");
    ASSERT_FALSE(deckDrive(noKey, deck::StatsState::NoKey).isEmpty());
    for (const TempDir* d : {&plain, &noKey}) {
        QStringList before = entries(*d);
        AppRun shown = app.run({"--shot", q(out), "--drive", q(*d)});
        EXPECT_EQ(shown.status, 0);
        EXPECT_TRUE(shown.lines.value(0).startsWith("6 image(s) written to "));
        EXPECT_EQ(entries(*d), before);
    }
}

TEST(Screenshots, UsageWithoutAFolderAndFailuresForAnUnwritableOne) {
    Program app;
    AppRun usage = app.run({"--drive", "/nowhere", "--shot"});
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.lines, QStringList{"usage: --shot <dir> [--drive <path>]"});

    TempDir dir;
    spit(dir / "file", "a file, so nothing can be made below it");
    QString folder = q(dir / "file/shots");
    QStringList failed;
    for (const char* name : kShots) failed << "FAILED to write " + folder + "/" + name + ".png";
    AppRun r = app.run({"--shot", folder});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.lines, failed << "0 image(s) written to " + folder);
}

// A folder given as a drive that is none is refused before anything is written.
TEST(WrongCalls, AnswerOnTheTerminalWithStatusTwo) {
    Program app;
    TempDir plain;
    spit(plain / "taxes.txt", "numbers");
    QString folder = q(plain);
    const struct {
        QStringList args;
        QString says;
    } cases[] = {
        {{"--help"}, "there is no display to open the window on."},
        {{"--backup-run", "/only-one"}, "--backup-check <folder>"},
        {{"--drive"}, "--drive needs the folder of a Quillmate drive after it."},
        {{"--drive", folder}, folder + " is not a Quillmate drive: it has no drive key, stats.db or fonts folder."},
    };
    for (const auto& c : cases) {
        AppRun r = app.run(c.args);
        EXPECT_EQ(r.status, 2) << c.args.join(' ').toStdString();
        EXPECT_TRUE(r.err.contains(c.says)) << r.err.toStdString();
    }
    EXPECT_EQ(entries(plain), QStringList{folder + "/taxes.txt"});
}

}  // namespace
