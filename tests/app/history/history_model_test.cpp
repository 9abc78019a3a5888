// The history chain on deck-written drives and on small hand-made histories. Every step runs in the
// background, so each test waits for the model to settle; the list models' row signals are checked all along.
#include <gtest/gtest.h>

#include <QAbstractItemModelTester>
#include <QDir>
#include <QItemSelectionModel>
#include <QSignalSpy>
#include <QTest>
#include <filesystem>

#include "deck_drive.h"
#include "history_model.h"

namespace {

// A history of one document as the deck keeps it, with the given versions' texts.
QString handMadeHistory(const TempDir& dir, const QString& doc, const QStringList& versions, const QString& now) {
    std::string d = doc.toStdString(), log = "QMV\t1\n";
    for (int i = 0; i < versions.size(); ++i) {
        std::string file = "v" + std::to_string(i + 1) + ".txt", text = versions[i].toStdString();
        spit(dir / (".qmv/" + d + "/" + file), text);
        log += std::to_string(i + 1) + "\t" + std::to_string(i) + "\tmain\t" + (i % 2 ? "a" : "t") +
               "\t0000000000000000\t" + std::to_string(text.size()) + "\t" + file + "\t2025-01-0" +
               std::to_string(i + 1) + " 10:00:00\t\n";
    }
    spit(dir / (".qmv/" + d + "/history.log"), log);
    spit(dir / ".qmv/" + d + "/refs", "deck\tx\n");
    spit(dir / d, now.toStdString());
    std::filesystem::create_directory(dir / "fonts");  // what makes the folder a drive the deck has used
    return q(dir);
}

struct Tab {
    DriveSelection drives;
    HistoryModel m{&drives};
    static constexpr auto kFatal = QAbstractItemModelTester::FailureReportingMode::Fatal;
    QAbstractItemModelTester documents{m.documentList(), kFatal}, versions{m.versionList(), kFatal},
        lines{m.diffLineList(), kFatal};
    void settle() {
        ASSERT_TRUE(QTest::qWaitFor([this] { return !m.busy(); }, 20000));
        EXPECT_EQ(m.documentList()->rows(), m.documents());
        EXPECT_EQ(m.versionList()->rows(), m.versions());
        EXPECT_EQ(m.diffLineList()->rows(), m.diffLines());
    }
    void pin(const QString& root) {
        drives.pin({QmVolume{root, "Q", true}});
        settle();
    }
};

TEST(HistoryChain, DeckDriveListsDocumentsAndVersionsNewestFirst) {
    TempDir dir;
    QString root = deckDrive(dir, deck::StatsState::Normal, 3);
    Tab t;
    t.pin(root);
    HistoryModel& m = t.m;
    ASSERT_EQ(m.documents().size(), 3);
    EXPECT_EQ(m.document(), m.documents().first());
    ASSERT_GE(m.versions().size(), 2);
    for (int i = 1; i < m.versions().size(); ++i) EXPECT_GT(m.versions()[i - 1].id, m.versions()[i].id);
    EXPECT_EQ(m.selected(), m.versions().first().id);
    EXPECT_EQ(m.status(), QString("%1 versions.").arg(m.versions().size()));
    EXPECT_EQ(m.text(), History::liveDocument(root, *m.document()).text);  // the newest version is the document now

    // Choosing a document and then another at once: only the last choice is shown.
    QSignalSpy settled(&m, &HistoryModel::settled);
    m.selectDocument(m.documents()[1]);
    m.selectDocument(m.documents()[2]);
    t.settle();
    EXPECT_EQ(settled.count(), 1);
    EXPECT_EQ(m.document(), m.documents()[2]);
    EXPECT_EQ(m.text(), History::liveDocument(root, m.documents()[2]).text);
}

TEST(HistoryChain, ReadingComparingAndTheirTexts) {
    TempDir one, two, three;
    Tab a;
    a.pin(handMadeHistory(one, "Notes.txt", {"a\nb\n"}, "a\nb\n"));
    EXPECT_EQ(a.m.status(), "1 version.");
    EXPECT_EQ(a.m.text(), "a\nb\n");
    a.m.show(true);
    a.settle();
    EXPECT_EQ(a.m.status(), "This version is identical to the document on the drive now.");
    EXPECT_EQ(a.m.diffLines(),
              (QList<DiffLine>{{"  a", DiffOp::equal}, {"  b", DiffOp::equal}, {"  ", DiffOp::equal}}));
    EXPECT_TRUE(a.m.text().isEmpty());

    Tab b;
    b.pin(handMadeHistory(two, "Notes.txt", {"x\ny\nz", "a\nb"}, "a\r\nc"));
    b.m.show(true);
    b.settle();
    EXPECT_EQ(b.m.diffLines(), (QList<DiffLine>{{"  a", DiffOp::equal}, {"- b", DiffOp::del}, {"+ c", DiffOp::add}}));
    EXPECT_EQ(b.m.status(), "1 line differ from the document on the drive now.");
    b.m.selectVersion(1);  // another version while comparing: compared again
    b.settle();
    EXPECT_TRUE(b.m.showingDiff());
    EXPECT_EQ(b.m.status(), "3 lines differ from the document on the drive now.");
    b.m.show(false);
    b.settle();
    EXPECT_EQ(b.m.text(), "x\ny\nz");
    EXPECT_TRUE(b.m.diffLines().isEmpty());
    EXPECT_EQ(b.m.status(), "2 versions.");  // the comparison no longer speaks of what is shown

    // Texts too large to compare are not called identical.
    QString old, now;
    for (int i = 0; i < 1500; ++i) old += QString("old line %1\n").arg(i), now += QString("new line %1\n").arg(i);
    Tab c;
    c.pin(handMadeHistory(three, "Big.txt", {old}, now));
    c.m.show(true);
    c.settle();
    EXPECT_EQ(c.m.status(), "These versions are too large to compare here.");
    EXPECT_TRUE(c.m.diffLines().isEmpty());
}

TEST(HistoryChain, RestoreAddsASavedPoint) {
    TempDir dir;
    QString root = handMadeHistory(dir, "Notes.txt", {"first", "second", "third"}, "third");
    Tab t;
    t.pin(root);
    t.m.selectVersion(1);
    QItemSelectionModel chosen(t.m.versionList());  // as a view holds it
    chosen.select(t.m.versionList()->index(1), QItemSelectionModel::Select);
    EXPECT_FALSE(t.m.restoring());
    t.m.revert();
    EXPECT_TRUE(t.m.restoring());  // what quitting would leave running
    t.settle();
    EXPECT_FALSE(t.m.restoring());
    const QList<DocVersion>& v = t.m.versions();
    EXPECT_EQ(t.m.status(), "4 versions.");
    ASSERT_EQ(v.size(), 4);
    EXPECT_EQ(VersionList::label(v.first()), "#4   " + v.first().when + "   saved point   reverted to version 1");
    ASSERT_EQ(chosen.selectedRows().size(), 1);  // the new row went in above it
    EXPECT_EQ(chosen.selectedRows()[0].data(VersionList::IdRole), 2);
    EXPECT_EQ(History::liveDocument(root, "Notes.txt").text, "first");
    EXPECT_EQ(t.m.text(), "first");
    EXPECT_EQ(t.m.notice(), "Restored version 1 of “Notes.txt”, saved 2025-01-01 10:00:00; it is now version 4. "
                            "Eject the drive before unplugging it.");
    t.m.selectVersion(2);
    EXPECT_TRUE(t.m.notice().isEmpty());  // it would speak of another version than the one shown
}

// However the drive goes, and whatever notices it first, nothing of it stays on show.
TEST(HistoryChain, ADriveThatHasGoneLeavesNothingBehind) {
    enum How { removed, emptied, moved };  // emptied: as an unplugged stick's mount point may stay
    enum Notice { watch, pickVersion, compare, restore, refresh };
    const std::pair<How, Notice> cases[] = {{removed, watch}, {emptied, watch}, {moved, pickVersion},
                                            {moved, compare}, {moved, restore}, {moved, refresh}};
    namespace fs = std::filesystem;
    for (auto [how, notice] : cases) {
        SCOPED_TRACE(QString("gone %1, noticed by %2").arg(how).arg(notice).toStdString());
        TempDir dir, aside;
        QString root = handMadeHistory(dir, "Notes.txt", {"first", "second"}, "second");
        Tab t;
        t.pin(root);
        ASSERT_EQ(t.m.versions().size(), 2);
        const fs::path drive = dir.path(), kept = aside / "drive";
        if (how == moved) {
            fs::rename(drive, kept);
        } else {
            fs::copy(drive, kept, fs::copy_options::recursive);
            for (const fs::directory_entry& e : fs::directory_iterator(drive)) fs::remove_all(e.path());
            if (how == removed) fs::remove(drive);
        }
        if (notice == pickVersion) t.m.selectVersion(1);
        if (notice == compare) t.m.show(true);
        if (notice == restore) t.m.revert();
        if (notice == refresh) t.m.rescan();
        const QString gone = DriveSelection::goneText("Q");
        EXPECT_TRUE(QTest::qWaitFor([&] { return !t.m.busy() && !t.drives.scanning() && t.m.status() == gone; }, 20000))
            << t.m.status().toStdString();
        EXPECT_FALSE(t.drives.volume());
        EXPECT_TRUE(t.m.documents().isEmpty() && t.m.versions().isEmpty() && !t.m.selected());
        EXPECT_TRUE(t.m.text().isEmpty() && t.m.diffLines().isEmpty() && t.m.notice().isEmpty());

        fs::remove_all(drive);
        fs::rename(kept, drive);
        t.m.rescan();
        EXPECT_TRUE(QTest::qWaitFor([&] { return !t.m.busy() && t.m.versions().size() == 2; }, 20000));
        EXPECT_EQ(t.m.status(), "2 versions.");
    }
}

// Never shown as an empty text, compared as one, or blamed on the drive when restoring.
TEST(HistoryChain, UnreadableVersionsAndDocumentsSayWhy) {
    enum Damage { gone, tooLarge, folder, link };
    const QString ok = "2 versions.", v1 = ".qmv/Notes.txt/v1.txt", doc = "Notes.txt";
    const struct {
        QString file;
        Damage damage;
        QString shown, compared, restored;
    } cases[] = {
        {v1, gone, "Version 1 cannot be read: its file is missing.", "Version 1 cannot be read: its file is missing.",
         "Could not restore version 1: its file is missing."},
        {v1, tooLarge, "Version 1 cannot be read: it is larger than 4 MB.",
         "Version 1 cannot be read: it is larger than 4 MB.", "Could not restore version 1: it is larger than 4 MB."},
        {v1, folder, "Version 1 cannot be read: its file could not be opened.",
         "Version 1 cannot be read: its file could not be opened.",
         "Could not restore version 1: its file could not be opened."},
        {doc, gone, ok, "The document on the drive cannot be read: it is missing.", "3 versions."},
        {doc, tooLarge, ok, "The document on the drive cannot be read: it is larger than 4 MB.", "3 versions."},
        {doc, link, ok, "The document on the drive cannot be read: it could not be opened.",
         "Could not restore: could not read or write the drive"},  // a link is never written through
    };
    for (const auto& c : cases) {
        SCOPED_TRACE((c.file + " " + QString::number(c.damage)).toStdString());
        TempDir dir;
        QString root = handMadeHistory(dir, "Notes.txt", {"first", "second"}, "second");
        const std::string path = dir / c.file.toStdString();
        std::filesystem::remove(path);
        if (c.damage == tooLarge) spit(path, std::string(QM_TEXT_LIMIT + 1, 'x'));
        if (c.damage == folder) std::filesystem::create_directory(path);
        if (c.damage == link) std::filesystem::create_symlink("elsewhere", path);
        Tab t;
        t.pin(root);
        t.m.selectVersion(1);
        t.settle();
        EXPECT_EQ(t.m.status(), c.shown);
        EXPECT_EQ(t.m.text(), c.shown == ok ? "first" : "");
        t.m.show(true);
        t.settle();
        EXPECT_EQ(t.m.status(), c.compared);
        EXPECT_TRUE(t.m.diffLines().isEmpty());
        t.m.show(false);
        t.m.selectVersion(2);  // a readable version: its text, and the failure no longer claimed
        t.settle();
        EXPECT_EQ(t.m.status(), ok);
        EXPECT_EQ(t.m.text(), "second");
        t.m.selectVersion(1);
        t.m.revert();
        t.settle();
        EXPECT_EQ(t.m.status(), c.restored);
    }
}

TEST(HistoryChain, NoDriveNoHistoryAndNoLogSayWhy) {
    Tab none;
    EXPECT_EQ(none.m.status(), HistoryModel::kNoDriveStatus);
    none.m.loadDocuments();
    EXPECT_TRUE(none.m.documents().isEmpty());
    EXPECT_EQ(none.m.status(), HistoryModel::kNoDriveStatus);

    TempDir bare;
    Tab a;
    a.pin(deckDrive(bare, deck::StatsState::Normal, 0));
    EXPECT_EQ(a.m.status(), HistoryModel::kNoHistoryStatus);
    EXPECT_TRUE(a.m.documents().isEmpty());

    TempDir noLog;
    QString root = handMadeHistory(noLog, "Notes.txt", {"one"}, "one");
    QDir(root + "/.qmv/Notes.txt").remove("history.log");
    Tab b;
    b.pin(root);
    EXPECT_EQ(b.m.status(), "This document has no history log yet.");
    EXPECT_TRUE(b.m.versions().isEmpty());
}

}  // namespace
