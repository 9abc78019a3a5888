// The screenshot mode and wrong calls as a user makes them: the real executable, its output and
// its status, with no display.
#include <gtest/gtest.h>

#include <QDir>
#include <QDirIterator>
#include <QImage>
#include <QProcess>

#include "deck_drive.h"

namespace {

struct AppRun {
    int status = -1;
    QString out;
    QString err;
};

AppRun runApp(const QStringList& args) {
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("DISPLAY");
    env.remove("WAYLAND_DISPLAY");
    env.remove("QT_QPA_PLATFORM");
    p.setProcessEnvironment(env);
    p.start(QM_APP_PATH, args);
    if (!p.waitForFinished(30000)) return {};
    return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()), QString::fromUtf8(p.readAllStandardError())};
}

TEST(Screenshots, WritesEachTabAtTheWindowSize) {
    TempDir drive, out;
    QString folder = QString::fromStdString(out / "nested/shots");
    AppRun r = runApp({"--shot", folder, "--drive", deckDrive(drive, deck::StatsState::Normal, 2)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "6 image(s) written to " + folder + "\n");
    for (const char* name : {"mac-install", "mac-stats", "mac-history", "mac-backup", "mac-account", "mac-settings"}) {
        QImage image(folder + "/" + name + ".png");
        ASSERT_FALSE(image.isNull()) << name;
        EXPECT_EQ(image.size() / image.devicePixelRatio(), QSize(580, 560));
    }
}

QStringList entries(const TempDir& dir) {
    QStringList found;
    QDirIterator it(QString::fromStdString(dir.path()), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) found << it.next();
    found.sort();
    return found;
}

// A folder that is no drive, or a used drive without a key, is shown but never written to.
TEST(Screenshots, FoldersThatAreNoDriveOrHaveNoKeyRenderEveryImageAndStayUntouched) {
    TempDir plain, noKey, out;
    spit(plain / "taxes.txt", "numbers");
    ASSERT_FALSE(deckDrive(noKey, deck::StatsState::NoKey).isEmpty());
    for (const TempDir* drive : {&plain, &noKey}) {
        QStringList before = entries(*drive);
        AppRun r = runApp({"--shot", QString::fromStdString(out.path()), "--drive", QString::fromStdString(drive->path())});
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(r.out.startsWith("6 image(s) written to "));
        EXPECT_EQ(entries(*drive), before);
    }
}

// Without a display the window cannot open: a person is told why and what else can be run, and a
// folder given as a drive that is none is refused before anything is written.
TEST(WrongCalls, AnswerOnTheTerminalWithStatusTwo) {
    TempDir plain;
    spit(plain / "taxes.txt", "numbers");
    QString folder = QString::fromStdString(plain.path());
    struct Case {
        QStringList args;
        QString says;
    } cases[] = {
        {{"--help"}, "there is no display to open the window on."},
        {{"--backup-run", "/only-one"}, "--backup-check <folder>"},
        {{"--drive"}, "--drive needs the folder of a Quillmate drive after it."},
        {{"--drive", folder}, folder + " is not a Quillmate drive: it has no drive key, stats.db or fonts folder."},
    };
    for (const Case& c : cases) {
        AppRun r = runApp(c.args);
        EXPECT_EQ(r.status, 2) << c.args.join(' ').toStdString();
        EXPECT_TRUE(r.err.contains(c.says)) << r.err.toStdString();
    }
    EXPECT_EQ(entries(plain), QStringList{folder + "/taxes.txt"});
}

TEST(Screenshots, UsageWithoutAFolderAndFailuresForAnUnwritableOne) {
    AppRun usage = runApp({"--drive", "/nowhere", "--shot"});
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.out, "usage: --shot <dir> [--drive <path>]\n");

    TempDir dir;
    spit(dir / "file", "a file, so nothing can be made below it");
    QString folder = QString::fromStdString(dir / "file/shots");
    AppRun r = runApp({"--shot", folder});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "FAILED to write " + folder + "/mac-install.png\nFAILED to write " + folder +
                         "/mac-stats.png\nFAILED to write " + folder + "/mac-history.png\nFAILED to write " + folder +
                         "/mac-backup.png\nFAILED to write " + folder + "/mac-account.png\nFAILED to write " +
                         folder + "/mac-settings.png\n0 image(s) written to " +
                         folder + "\n");
}

}  // namespace
