// Backup runs on drives the deck simulator writes, into temporary folders.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QRegularExpression>
#include <filesystem>

#include "backup.h"
#include "backup_lock.h"
#include "backup_manifest.h"
#include "backup_restore.h"
#include "deck_drive.h"
#include "drive_tree.h"
#include "qm_core.h"

namespace {

namespace fs = std::filesystem;

struct Fixture {
    TempDir driveDir, dest;
    QmVolume volume{deckDrive(driveDir, deck::StatsState::Normal, 3), "Deck", true};
    QString folder = Backup::folderFor(q(dest), volume);

    BackupResult run(bool deep = false) { return Backup::run(volume, q(dest), deep); }
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

    // Singular and plural; the plural lines and the failure come from the real runs below.
    const struct {
        int copied, unchanged, rechecked, repaired, bytes;
        const char* want;
    } cases[] = {
        {1, 0, 4, 0, 10, "Copied 1 file (10 bytes), each one verified.  Re-checked 4, all intact."},
        {0, 1, 5, 1, 0, "Already up to date (1 file checked).  Put back 1 damaged or missing copy."},
        {0, 7, 0, 2, 0, "Already up to date (7 files checked).  Put back 2 damaged or missing copies."},
    };
    for (const auto& c : cases) {
        BackupResult r;
        r.copied = c.copied, r.unchanged = c.unchanged, r.rechecked = c.rechecked, r.repaired = c.repaired;
        r.bytes = c.bytes;
        EXPECT_EQ(r.summary(), c.want);
    }
}

TEST(BackupManifestText, ReadsWhatPeopleAndOtherSystemsLeaveBehind) {
    QByteArray text = "# header\r\n"
                      "aa\t1\t2\t3\tplain.md\r\n"
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
    // Written with line feeds, a carriage return ending a name is the name's own; so are bytes
    // that are not UTF-8.
    rows["ends in return\r"] = {"ends in return\r", "gg", 2, 2, 2};
    rows["caf\xe9.md"] = {"caf\xe9.md", "hh", 3, 3, 3};
    QByteArray saved = BackupManifest::serialize(rows, "key 00ff");
    EXPECT_EQ(BackupManifest::parse(saved), rows);
    EXPECT_TRUE(saved.startsWith("# Quillmate backup manifest v1 - sha256, size, modified, verified, path\n"
                                 "# drive: key 00ff\n"));
}

TEST(BackupManifestText, StalestIsOldestFirstAndKeepsMapOrderOnTies) {
    TempDir dir;
    BackupManifest m(q(dir));
    for (auto [path, verified] : {std::pair{"a", 5}, {"b", 1}, {"c", 5}, {"d", 3}})
        m.rows()[path] = {path, "x", 1, 1, verified};
    QList<QByteArray> order;
    for (const BackupEntry& e : m.stalest(3)) order << e.path;
    EXPECT_EQ(order, QList<QByteArray>({"b", "d", "a"}));
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

    QStringList wanted = filesUnder(f.driveDir.path());
    wanted.removeIf([](const QString& rel) {
        return rel.startsWith(".qm/") || rel.endsWith("stats.db") || rel.endsWith("stats.bak") ||
               rel.endsWith("settings.cfg");
    });
    QStringList copied = filesUnder(f.folder.toStdString());
    copied.removeAll(BackupManifest::kFileName);
    copied.removeAll(BackupLock::kFileName);
    EXPECT_EQ(copied.join('\n').toStdString(), wanted.join('\n').toStdString());
    EXPECT_TRUE(wanted.contains(".hidden-notes.md"));
    EXPECT_EQ(r.copied, wanted.size());
    EXPECT_TRUE(r.summary().startsWith(QString("Copied %1 files (").arg(r.copied))) << r.summary().toStdString();

    auto rows = f.manifest().rows();
    ASSERT_EQ(rows.size(), size_t(wanted.size()));
    for (const auto& [path, e] : rows) {
        EXPECT_EQ(Backup::hashFile(f.folder + "/" + QString::fromUtf8(path)), e.sha256) << path.toStdString();
        EXPECT_EQ(e.size, QFileInfo(q(f.drive(path.toStdString()))).size());
    }
}

TEST(BackupRun, LaterRunsRecheckRepairAndNeverDelete) {
    Fixture f;
    int files = f.run().copied;
    ASSERT_GT(files, 20);

    BackupResult again = f.run();
    EXPECT_EQ(again.summary(),
              QString("Already up to date (%1 files checked).  Re-checked 20, all intact.").arg(files));

    // A copy removed from the folder comes back from the drive.
    std::string victim = ".qmv/Novel.md/history.log";
    fs::remove(f.copy(victim));
    EXPECT_EQ(f.run(true).repaired, 1);

    // A copy damaged in place, same size: only the full check reads it.
    std::string damaged = slurp(f.copy(victim));
    damaged[0] ^= 1;
    spit(f.copy(victim), damaged);
    EXPECT_EQ(f.run(true).repaired, 1);
    EXPECT_EQ(slurp(f.copy(victim)), slurp(f.drive(victim)));

    // A copy replaced by a link to a good copy elsewhere is not read through the link: it counts
    // as missing and is put back as a file of its own.
    spit(f.dest / "elsewhere", slurp(f.copy(victim)));
    fs::remove(f.copy(victim));
    fs::create_symlink(f.dest / "elsewhere", f.copy(victim));
    EXPECT_EQ(f.run(true).repaired, 1);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(f.copy(victim))));

    // Gone from the drive: the copy and its row stay.
    fs::remove(f.drive(victim));
    BackupResult kept = f.run(true);
    EXPECT_TRUE(kept.failures.isEmpty());
    EXPECT_TRUE(fs::exists(f.copy(victim)));
    EXPECT_EQ(f.manifest().rows().count(QByteArray::fromStdString(victim)), 1u);

    // Gone from both: reported once, logged, its row dropped.
    fs::remove(f.copy(victim));
    BackupResult lost = f.run(true);
    EXPECT_EQ(lost.failures, QStringList{q(victim) + " (no longer in the folder, and not on the drive)"});
    EXPECT_EQ(f.manifest().rows().count(QByteArray::fromStdString(victim)), 0u);
    QString log = q(slurp(f.copy(".quillmate-backup-lost.txt")));
    QRegularExpression line("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d\t" + QRegularExpression::escape(q(victim)) + "\n$");
    EXPECT_TRUE(line.match(log).hasMatch()) << log.toStdString();
    EXPECT_TRUE(f.run(true).failures.isEmpty());
}

TEST(BackupRun, ChangedFilesAndDamagedManifestsAreCopiedAgain) {
    Fixture f;
    // A file whose time is not before the second it is copied in: rewritten at the same size
    // within that second, size and time cannot tell, so its content does.
    const auto later = fs::file_time_type::clock::now() + std::chrono::minutes(10);
    spit(f.drive("same-second.md"), "first");
    fs::last_write_time(f.drive("same-second.md"), later);
    f.run();
    spit(f.drive("same-second.md"), "again");
    fs::last_write_time(f.drive("same-second.md"), later);
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
    spit(f.copy(".quillmate-backup"),
         text.replace(row, "\t1x2\t" + QByteArray::number(refs.modified) + "\t").toStdString());
    EXPECT_EQ(f.run().copied, 1);

    // A manifest that is a folder reads as empty and cannot be saved: every run copies all again.
    fs::remove(f.copy(".quillmate-backup"));
    fs::create_directory(f.copy(".quillmate-backup"));
    int all = f.run().copied;
    EXPECT_GT(all, 20);
    EXPECT_EQ(f.run().copied, all);
}

TEST(BackupRun, FolderNamesAndRefusals) {
    EXPECT_EQ(Backup::folderFor("/d", {"/nowhere", " \n ", false}), "/d/Quillmate/Writing stick");
    EXPECT_EQ(Backup::folderFor("/d", {"/nowhere", " A/B\n", false}), "/d/Quillmate/A-B");

    Fixture f;
    EXPECT_EQ(Backup::run(f.volume, "", false).summary(), "Backup failed: no folder chosen");
    BackupResult inside = Backup::run(f.volume, f.volume.path + "/backups", false);
    EXPECT_EQ(inside.summary(),
              "Backup failed: the chosen folder is on the drive itself; choose a folder on this computer");
    EXPECT_FALSE(QFileInfo::exists(f.volume.path + "/backups"));
    QmVolume nested{q(f.dest / "media/Deck"), "Deck", true};
    QDir().mkpath(nested.path);
    EXPECT_EQ(Backup::run(nested, q(f.dest), false).summary(),
              "Backup failed: the drive is inside the chosen folder; choose a folder outside it");
    QmVolume gone{q(f.driveDir / "nowhere"), "Gone", true};
    EXPECT_EQ(Backup::run(gone, q(f.dest), false).summary(), "Backup failed: cannot read the drive");
    // A chosen folder that has gone (its disk unplugged) is not made again on this computer.
    EXPECT_EQ(
        Backup::run(f.volume, q(f.dest / "unplugged/Backups"), false).summary(),
        "Backup failed: the folder " + q(f.dest / "unplugged/Backups") + " is not there. Is its disk plugged in?");
    EXPECT_FALSE(QFileInfo::exists(q(f.dest / "unplugged")));
    spit(f.dest / "file", "x");
    EXPECT_TRUE(Backup::run(f.volume, q(f.dest / "file"), false).summary().startsWith("Backup failed: "));
}

TEST(BackupRun, CopyVerifiedReportsTheFileByName) {
    TempDir dir;
    BackupResult r;
    EXPECT_FALSE(Backup::copyVerified(q(dir / "missing.md"), q(dir / "out/missing.md"), QDateTime(), r));
    spit(dir / "blocker", "a file where a folder must go");
    spit(dir / "ok.md", "text");
    EXPECT_FALSE(Backup::copyVerified(q(dir / "ok.md"), q(dir / "blocker/ok.md"), QDateTime::currentDateTime(), r));
    fs::create_symlink(dir / "ok.md", dir / "link.md");  // a link on a drive is not read through
    EXPECT_FALSE(Backup::copyVerified(q(dir / "link.md"), q(dir / "out/link.md"), QDateTime::currentDateTime(), r));
    EXPECT_EQ(r.failures, QStringList({"missing.md (could not read it on the drive)",
                                       "ok.md (what arrived did not match what was sent)",
                                       "link.md (could not read it on the drive)"}));
    QDateTime when = QDateTime::fromSecsSinceEpoch(1'600'000'000);
    EXPECT_EQ(Backup::copyVerified(q(dir / "ok.md"), q(dir / "out/ok.md"), when, r),
              Backup::hashFile(q(dir / "ok.md")));
    EXPECT_EQ(QFileInfo(q(dir / "out/ok.md")).lastModified(), when);
}

// A folder from before drives were told apart is claimed by the first drive that backs up into it.
TEST(BackupRun, DrivesWithOneNameNeverShareAFolder) {
    TempDir dest, one, two, plain;
    auto stick = [](const TempDir& dir, const char* text) {
        EXPECT_EQ(qm_provision(dir.path().c_str(), 1), 0);
        spit(dir / "Chapter.md", text);
        return QmVolume{q(dir), "DATA", true};
    };
    QmVolume first = stick(one, "stick one"), second = stick(two, "stick two");
    QString legacy = q(dest / "Quillmate/DATA");
    QDir().mkpath(legacy);
    spit(dest / "Quillmate/DATA/.quillmate-backup",
         "# Quillmate backup manifest v1 - sha256, size, modified, verified, path\n");

    for (int round = 0; round < 2; ++round) {
        for (const QmVolume& v : {first, second}) {
            BackupResult r = Backup::run(v, q(dest), false);
            EXPECT_TRUE(r.failures.isEmpty() && !r.error) << r.summary().toStdString();
            EXPECT_EQ(r.folder, Backup::folderFor(q(dest), v));
        }
    }
    EXPECT_EQ(Backup::folderFor(q(dest), first), legacy);
    EXPECT_EQ(Backup::folderFor(q(dest), second), legacy + " 2");
    EXPECT_EQ(slurp(dest / "Quillmate/DATA/Chapter.md"), "stick one");
    EXPECT_EQ(slurp(dest / "Quillmate/DATA 2/Chapter.md"), "stick two");
    EXPECT_EQ(BackupManifest::identityIn(legacy), Backup::driveIdentity(first));
    EXPECT_TRUE(Backup::driveIdentity(first).startsWith("key "));
    EXPECT_NE(Backup::driveIdentity(first), Backup::driveIdentity(second));
}

// Names are bytes; only a line feed, which no manifest row can record, is reported.
TEST(BackupRun, OddNamesAndTreesAreCopiedOrReported) {
    Fixture f;
    spit(f.drive("caf\xe9.md"), "latin-1 name");
    spit(f.drive("Notes\r"), "carriage return");
    spit(f.drive("two\nlines.md"), "line feed");
    std::string deep;
    for (int i = 0; i <= DriveTree::kMaxDepth; ++i) deep += "d/";
    spit(f.drive(deep + "bottom.md"), "too deep");
    spit(f.drive("d/top.md"), "shallow enough");

    BackupResult r = f.run();
    r.failures.sort();
    EXPECT_EQ(r.failures,
              QStringList({q(deep).chopped(1) + " (folders nested more than 64 deep are not copied)",
                           "two\nlines.md (a line break in its name cannot go into the backup's list; rename it)"}));
    for (const char* rel : {"caf\xe9.md", "Notes\r", "d/top.md"})
        EXPECT_EQ(slurp(f.copy(rel)), slurp(f.drive(rel))) << rel;
    BackupResult again = f.run(true);
    EXPECT_EQ(again.copied, 0);
    EXPECT_EQ(again.repaired, 0);
    EXPECT_EQ(again.failures.size(), 2);
}

// A file the new stick already holds keeps its place, with the backup's copy beside it.
TEST(BackupRestore, PutsTheWritingBackWithoutOverwritingAnything) {
    Fixture f;
    ASSERT_TRUE(f.run().failures.isEmpty());
    TempDir fresh;
    spit(fresh / "Novel.md", "written on the new stick");
    std::string damaged = ".qmv/Novel.md/refs";
    std::string bad = slurp(f.copy(damaged));
    bad[0] ^= 1;
    spit(f.copy(damaged), bad);

    RestoreResult r = Backup::restore(f.folder, q(fresh));
    EXPECT_EQ(
        r.failures,
        QStringList{q(damaged) + " (the copy in the backup folder is damaged; it no longer matches its fingerprint)"});
    EXPECT_EQ(r.keptBeside, 1);
    EXPECT_EQ(slurp(fresh / "Novel.md"), "written on the new stick");
    EXPECT_EQ(slurp(fresh / "Novel (from backup).md"), slurp(f.drive("Novel.md")));
    int compared = 0;
    BackupManifest manifest = f.manifest();
    for (const auto& [path, row] : manifest.rows()) {
        if (path.toStdString() == damaged || path == "Novel.md") continue;
        EXPECT_EQ(slurp(fresh / path.toStdString()), slurp(f.drive(path.toStdString()))) << path.toStdString();
        ++compared;
    }
    EXPECT_EQ(r.restored, compared);
    EXPECT_FALSE(fs::exists(fresh / damaged));

    RestoreResult again = Backup::restore(f.folder, q(fresh));
    EXPECT_EQ(again.restored, 0);
    EXPECT_EQ(again.alreadyThere, compared);
    EXPECT_TRUE(again.summary().startsWith("Nothing to put back.  "));
    EXPECT_TRUE(Backup::restore(q(fresh), q(fresh)).error);
    EXPECT_EQ(Backup::besideName("a/b.c/notes", 2), "a/b.c/notes (from backup 2)");
    EXPECT_EQ(Backup::besideName(".hidden", 1), ".hidden (from backup)");
}

}  // namespace
