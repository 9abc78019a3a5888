// Cloud folders under a temporary home, with their clients as processes the test starts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <filesystem>

#include "cloud_sync.h"
#include "deck_drive.h"

namespace {

// A program of the given name that just waits, the way a sync client sits in the background.
struct FakeClient : QProcess {
    FakeClient(const TempDir& dir, const QString& name) {
        const QString path = q(dir / name.toStdString());
        QFile::copy("/bin/sleep", path);
        start(path, {"60"});
        waitForStarted();
    }
    ~FakeClient() override {
        kill();
        waitForFinished();
    }
};

CloudSync::Probe probeWithFree(const TempDir& home, int64_t free) {
    return {q(home), [free](const QString&) { return std::optional<int64_t>(free); }};
}

TEST(CloudFolders, ListsEachExistingCandidateOnce) {
    TempDir home;
    for (const char* rel : {"Dropbox", "OneDrive", "Google Drive/My Drive", "Box", "Box Sync", "Nextcloud", "Sync"})
        std::filesystem::create_directories(home / rel);
    std::filesystem::create_directory_symlink(home / "Google Drive/My Drive", home / "GoogleDrive");  // same folder
    std::filesystem::create_directories(home / "iCloud Drive");  // not a place any Linux client uses

    QStringList found;
    for (const CloudFolder& f : CloudFolders::detect(q(home)))
        found << f.name + "=" + QDir(q(home)).relativeFilePath(f.path);
    EXPECT_EQ(found, QStringList({"Dropbox=Dropbox", "OneDrive=OneDrive", "Google Drive=Google Drive/My Drive",
                                  "Box=Box", "Box=Box Sync", "Nextcloud=Nextcloud", "Syncthing=Sync"}));
    TempDir empty;
    EXPECT_TRUE(CloudFolders::detect(q(empty)).isEmpty());
}

TEST(CloudSync, TheInnermostFolderNamesTheService) {
    QList<CloudFolder> folders{{"Dropbox", "/h/Dropbox"}, {"Box", "/h/Dropbox/Box"}};
    EXPECT_EQ(CloudSync::service("/h/Dropbox/Box/Quillmate/Deck", folders), "Box");
    EXPECT_EQ(CloudSync::service("/h/Dropbox/Boxes", folders), "Dropbox");
    EXPECT_EQ(CloudSync::service("/h/Dropbox", folders), "Dropbox");
    EXPECT_FALSE(CloudSync::service("/h/DropboxOld/x", folders));
}

TEST(CloudSync, WarnsWhenTheClientIsNotRunningAndNotesWhenItIs) {
    TempDir home, bin;
    struct Case {
        const char* service;
        const char* folder;
        const char* process;  // nullptr: the service has no client to wait for
    };
    const Case cases[] = {
        {"Dropbox", "Dropbox", "dropbox"},
        {"Google Drive", "Google Drive/My Drive", "google-drive-ocamlfuse"},  // past the 15-byte short name
        {"Syncthing", "Sync", "syncthing"},
        {"Box", "Box", nullptr}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.service);
        QString target = q(home / c.folder) + "/Quillmate/Deck";
        QDir().mkpath(target);
        CloudSync::Probe probe = probeWithFree(home, int64_t(1) << 30);
        QString service = c.service;
        if (c.process) {
            ASSERT_FALSE(CloudSync::clientRunning(service)) << "a real client runs on this machine";
            EXPECT_EQ(CloudSync::check(target, probe),
                      service + " is not running on this computer, so the copies are sitting in its folder rather "
                                "than going anywhere. Open " + service + " and they will upload.");
            EXPECT_FALSE(CloudSync::uploadNote(target, probe));
        }
        std::optional<FakeClient> client;
        if (c.process) client.emplace(bin, c.process);
        EXPECT_TRUE(CloudSync::clientRunning(service));
        EXPECT_FALSE(CloudSync::check(target, probe));
        EXPECT_EQ(CloudSync::uploadNote(target, probe),
                  QString("The copies reach %1's folder and %1 uploads them. Linux does not report whether that "
                          "succeeded, so check %1 itself if it matters.")
                      .arg(service));
    }
}

TEST(CloudSync, WarnsBelowSixtyFourMebibytesFree) {
    TempDir home;
    QString target = q(home / "backups");
    EXPECT_FALSE(CloudSync::check(target, probeWithFree(home, 67'108'864)));
    EXPECT_EQ(CloudSync::check(target, probeWithFree(home, 67'108'863)),
              "The disk holding your copies has only 64.0 MB free. Copies will start failing soon.");
    EXPECT_FALSE(CloudSync::check(target, {q(home), [](const QString&) { return std::optional<int64_t>(); }}));
    EXPECT_GT(CloudSync::freeSpace(target).value_or(0), 0);  // the real reader, on a folder not made yet
}

}  // namespace
