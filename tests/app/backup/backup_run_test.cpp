// Backup runs on drives the deck simulator writes, into temporary folders: what is copied, what
// the next runs find, and the manifest that records it.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <filesystem>

#include "backup.h"
#include "backup_lock.h"
#include "backup_manifest.h"
#include "deck_drive.h"

namespace {

namespace fs = std::filesystem;

QString q(const std::string& s) { return QString::fromStdString(s); }

struct Fixture {
    TempDir driveDir, dest;
    QmVolume volume{deckDrive(driveDir, deck::StatsState::Normal, 3), "Deck", true};
    QString folder = Backup::folderFor(q(dest.path()), "Deck");

    BackupResult run(bool deep = false) { return Backup::run(volume, q(dest.path()), deep); }
    std::string drive(const std::string& rel) const { return driveDir / rel; }
    std::string copy(const std::string& rel) const { return folder.toStdString() + "/" + rel; }
    BackupManifest manifest() const { return BackupManifest(folder); }
};

// Relative paths of the regular files under root.
QStringList filesUnder(const std::string& root) {
    QStringList files;
    for (const auto& e : fs::recursive_directory_iterator(root))
        if (fs::is_regular_file(e.symlink_status())) files << q(fs::relative(e.path(), root).string());
    files.sort();
    return files;
}

TEST(BackupText, HumanSizesAndSummaries) {
    EXPECT_EQ(BackupResult::human(1023), "1023 bytes");
    EXPECT_EQ(BackupResult::human(1024), "1.0 KB");
    EXPECT_EQ(BackupResult::human(1048575), "1024.0 KB");
    EXPECT_EQ(BackupResult::human(1048576), "1.0 MB");

    struct Case {
        BackupResult r;
        const char* want;
    };
    auto with = [](auto set) { BackupResult r; set(r); return r; };
    const Case cases[] = {
        {with([](BackupResult& r) { r.error = "no folder chosen"; r.copied = 3; }), "Backup failed: no folder chosen"},
        {with([](BackupResult& r) { r.copied = 1; r.bytes = 10; r.rechecked = 4; }),
         "Copied 1 file (10 bytes), each one verified.  Re-checked 4, all intact."},
        {with([](BackupResult& r) { r.copied = 2; r.bytes = 2048; }), "Copied 2 files (2.0 KB), each one verified."},
        {with([](BackupResult& r) { r.unchanged = 1; r.repaired = 1; r.rechecked = 5; }),
         "Already up to date (1 file checked).  Put back 1 damaged or missing copy."},
        {with([](BackupResult& r) { r.unchanged = 7; r.repaired = 2; }),
         "Already up to date (7 files checked).  Put back 2 damaged or missing copies."},
    };
    for (const Case& c : cases) EXPECT_EQ(c.r.summary(), c.want);
}

TEST(BackupManifestText, ReadsWhatPeopleAndOtherSystemsLeaveBehind) {
    QByteArray text = "# header\r\n"
                      "aa\t1\t2\t3\tplain.md\n"
                      "bb\t+5\t-6\t7\twith\ttab.md\r\n"
                      "cc\t12x\tabc\t\tletters.md\n"
                      "dd\t1\t2\tfour-fields\n"
                      "\n"
                      "ee\t1\t1\t1\tplain.md\n"
                      "ff\t1\t1\t1\t../outside.md\n"
                      "ff\t1\t1\t1\t/etc/passwd\n"
                      "ff\t1\t1\t1\ta//b\n";
    auto rows = BackupManifest::parse(text);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows["plain.md"], (BackupEntry{"plain.md", "ee", 1, 1, 1}));  // the later row wins
    EXPECT_EQ(rows["with\ttab.md"], (BackupEntry{"with\ttab.md", "bb", 5, -6, 7}));
    EXPECT_EQ(rows["letters.md"], (BackupEntry{"letters.md", "cc", 0, 0, 0}));
    EXPECT_EQ(BackupManifest::parse(BackupManifest::serialize(rows)), rows);
    EXPECT_TRUE(BackupManifest::serialize(rows).startsWith(
        "# Quillmate backup manifest v1 - sha256, size, modified, verified, path\n"));
}

TEST(BackupManifestText, StalestIsOldestFirstAndKeepsMapOrderOnTies) {
    TempDir dir;
    BackupManifest m(q(dir.path()));
    for (auto [path, verified] : {std::pair{"a", 5}, {"b", 1}, {"c", 5}, {"d", 3}})
        m.rows()[path] = {path, "x", 1, 1, verified};
    QStringList order;
    for (const BackupEntry& e : m.stalest(3)) order << e.path;
    EXPECT_EQ(order, QStringList({"b", "d", "a"}));
    EXPECT_EQ(m.stalest(10).size(), 4);
    EXPECT_TRUE(m.stalest(0).isEmpty());
}

TEST(BackupRun, FirstRunCopiesTheWritingAndNotTheDrivesOwnFiles) {
    Fixture f;
    spit(f.drive("sub/stats.db"), "never");
    spit(f.drive(".hidden-notes.md"), "travels");
    spit(f.drive("sub/settings.cfg"), "never");
    ASSERT_EQ(::symlink("/etc/hostname", f.drive("link.md").c_str()), 0);
    ASSERT_EQ(::mkfifo(f.drive("pipe.md").c_str(), 0644), 0);

    BackupResult r = f.run();
    EXPECT_FALSE(r.error) << r.error->toStdString();
    EXPECT_TRUE(r.failures.isEmpty()) << r.failures.join("; ").toStdString();

    QStringList wanted;
    for (const QString& rel : filesUnder(f.driveDir.path()))
        if (!rel.startsWith(".qm/") && !rel.endsWith("stats.db") && !rel.endsWith("stats.bak") &&
            !rel.endsWith("settings.cfg"))
            wanted << rel;
    QStringList copied = filesUnder(f.folder.toStdString());
    copied.removeAll(BackupManifest::kFileName);
    copied.removeAll(BackupLock::kFileName);
    EXPECT_EQ(copied.join('\n').toStdString(), wanted.join('\n').toStdString());
    EXPECT_TRUE(wanted.contains(".hidden-notes.md"));
    EXPECT_EQ(r.copied, wanted.size());
    EXPECT_EQ(r.summary().left(7), "Copied ");

    auto rows = f.manifest().rows();
    ASSERT_EQ(rows.size(), size_t(wanted.size()));
    for (const auto& [path, e] : rows) {
        EXPECT_EQ(Backup::hashFile(f.folder + "/" + path), e.sha256) << path.toStdString();
        EXPECT_EQ(e.size, QFileInfo(q(f.drive(path.toStdString()))).size());
    }
}

TEST(BackupRun, LaterRunsRecheckRepairAndNeverDelete) {
    Fixture f;
    int files = f.run().copied;
    ASSERT_GT(files, 20);

    BackupResult again = f.run();
    EXPECT_EQ(again.summary(), QString("Already up to date (%1 files checked).  Re-checked 20, all intact.").arg(files));

    // A copy removed from the folder comes back from the drive.
    std::string victim = ".qmv/Novel.md/history.log";
    fs::remove(f.copy(victim));
    BackupResult deep = f.run(true);
    EXPECT_EQ(deep.repaired, 1);
    EXPECT_TRUE(deep.summary().endsWith("  Put back 1 damaged or missing copy."));

    // A copy damaged in place, same size: only the full check reads it.
    std::string damaged = slurp(f.copy(victim));
    damaged[0] ^= 1;
    spit(f.copy(victim), damaged);
    EXPECT_EQ(f.run(true).repaired, 1);
    EXPECT_EQ(slurp(f.copy(victim)), slurp(f.drive(victim)));

    // Gone from the drive: the copy and its row stay.
    fs::remove(f.drive(victim));
    BackupResult kept = f.run(true);
    EXPECT_TRUE(kept.failures.isEmpty());
    EXPECT_TRUE(fs::exists(f.copy(victim)));
    EXPECT_EQ(f.manifest().rows().count(q(victim)), 1u);

    // Gone from both: reported once, logged, its row dropped.
    fs::remove(f.copy(victim));
    BackupResult lost = f.run(true);
    EXPECT_EQ(lost.failures, QStringList{q(victim) + " (no longer in the folder, and not on the drive)"});
    EXPECT_EQ(f.manifest().rows().count(q(victim)), 0u);
    QString log = q(slurp(f.copy(".quillmate-backup-lost.txt")));
    EXPECT_TRUE(QRegularExpression("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d\t" + QRegularExpression::escape(q(victim)) + "\n$")
                    .match(log)
                    .hasMatch())
        << log.toStdString();
    EXPECT_TRUE(f.run(true).failures.isEmpty());
}

TEST(BackupRun, ChangedFilesAndDamagedManifestsAreCopiedAgain) {
    Fixture f;
    // A file whose time is not before the second it is copied in: rewritten at the same size
    // within that second, size and time cannot tell, so its content does.
    auto setTime = [&](const std::string& rel, time_t when) {
        timespec times[2] = {{when, 0}, {when, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, f.drive(rel).c_str(), times, 0), 0);
    };
    time_t later = ::time(nullptr) + 600;
    spit(f.drive("same-second.md"), "first");
    setTime("same-second.md", later);
    f.run();
    spit(f.drive("same-second.md"), "again");
    setTime("same-second.md", later);
    spit(f.drive("notes.md"), "new");
    spit(f.drive(".qmv/Novel.md/refs"), "changed size");
    BackupResult r = f.run();
    EXPECT_EQ(r.copied, 3);
    EXPECT_EQ(slurp(f.copy(".qmv/Novel.md/refs")), "changed size");
    EXPECT_EQ(slurp(f.copy("same-second.md")), "again");
    EXPECT_EQ(f.run().copied, 0);

    // Letters in a size field read as 0: that one file is copied again.
    BackupEntry refs = f.manifest().rows()[".qmv/Novel.md/refs"];
    QByteArray text = BackupManifest::serialize(f.manifest().rows());
    QByteArray row = "\t" + QByteArray::number(refs.size) + "\t" + QByteArray::number(refs.modified) + "\t";
    ASSERT_TRUE(text.contains(row));
    spit(f.copy(".quillmate-backup"), text.replace(row, "\t1x2\t" + QByteArray::number(refs.modified) + "\t").toStdString());
    EXPECT_EQ(f.run().copied, 1);

    // A manifest that is a folder reads as empty and cannot be saved: every run copies all again.
    fs::remove(f.copy(".quillmate-backup"));
    fs::create_directory(f.copy(".quillmate-backup"));
    int all = f.run().copied;
    EXPECT_GT(all, 20);
    EXPECT_EQ(f.run().copied, all);
}

TEST(BackupRun, FolderNamesAndRefusals) {
    EXPECT_EQ(Backup::folderFor("/d", " \n "), "/d/Quillmate/Writing stick");
    EXPECT_EQ(Backup::folderFor("/d", " A/B\n"), "/d/Quillmate/A-B");

    Fixture f;
    EXPECT_EQ(Backup::run(f.volume, "", false).summary(), "Backup failed: no folder chosen");
    BackupResult inside = Backup::run(f.volume, f.volume.path + "/backups", false);
    EXPECT_EQ(inside.summary(), "Backup failed: the chosen folder is on the drive itself; choose a folder on this computer");
    EXPECT_FALSE(QFileInfo::exists(f.volume.path + "/backups"));
    QmVolume nested{q(f.dest / "media/Deck"), "Deck", true};
    QDir().mkpath(nested.path);
    EXPECT_EQ(Backup::run(nested, q(f.dest.path()), false).summary(),
              "Backup failed: the drive is inside the chosen folder; choose a folder outside it");
    QmVolume gone{q(f.dest / "nowhere"), "Gone", true};
    EXPECT_EQ(Backup::run(gone, q(f.dest / "out"), false).summary(), "Backup failed: cannot read the drive");
    spit(f.dest / "file", "x");
    EXPECT_TRUE(Backup::run(f.volume, q(f.dest / "file"), false).summary().startsWith("Backup failed: "));
}

TEST(BackupRun, AnAutomaticRunStepsAsideForOneUnderWay) {
    Fixture f;
    QDir().mkpath(f.folder);
    BackupLock other(f.folder, true);
    ASSERT_TRUE(other.held());
    Backup::RunOptions automatic;
    automatic.waitForOtherRuns = false;
    BackupResult r = Backup::run(f.volume, q(f.dest.path()), false, automatic);
    EXPECT_TRUE(r.skipped);
    EXPECT_EQ(r.copied, 0);
}

TEST(BackupRun, CopyVerifiedReportsTheFileByName) {
    TempDir dir;
    BackupResult r;
    EXPECT_FALSE(Backup::copyVerified(q(dir / "missing.md"), q(dir / "out/missing.md"), QDateTime(), r));
    spit(dir / "blocker", "a file where a folder must go");
    spit(dir / "ok.md", "text");
    EXPECT_FALSE(Backup::copyVerified(q(dir / "ok.md"), q(dir / "blocker/ok.md"), QDateTime::currentDateTime(), r));
    EXPECT_EQ(r.failures, QStringList({"missing.md (could not read it on the drive)",
                                       "ok.md (what arrived did not match what was sent)"}));
    QDateTime when = QDateTime::fromSecsSinceEpoch(1'600'000'000);
    EXPECT_EQ(Backup::copyVerified(q(dir / "ok.md"), q(dir / "out/ok.md"), when, r), Backup::hashFile(q(dir / "ok.md")));
    EXPECT_EQ(QFileInfo(q(dir / "out/ok.md")).lastModified(), when);
}

}  // namespace
