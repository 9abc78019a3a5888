// The screenshot mode as a user runs it: the real executable, its output and its status.
#include <gtest/gtest.h>

#include <QImage>
#include <QProcess>

#include "deck_drive.h"

namespace {

struct AppRun {
    int status = -1;
    QString out;
};

AppRun runApp(const QStringList& args) {
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("DISPLAY");
    env.remove("WAYLAND_DISPLAY");
    p.setProcessEnvironment(env);
    p.start(QM_APP_PATH, args);
    if (!p.waitForFinished(30000)) return {};
    return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput())};
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

TEST(Screenshots, DriveWithoutStatisticsStillRendersEveryImage) {
    TempDir empty, out;
    AppRun r = runApp({"--shot", QString::fromStdString(out.path()), "--drive", QString::fromStdString(empty.path())});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.startsWith("6 image(s) written to "));
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
