// The history chain on deck-written drives and on small hand-made histories: documents,
// versions newest first, reading and comparing, restoring, and the texts on the way. Every
// step runs in the background, so each test waits for the model to settle.
#include <gtest/gtest.h>

#include <QDir>
#include <QTest>

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
    return QString::fromStdString(dir.path());
}

struct Tab {
    DriveSelection drives;
    HistoryModel m{&drives};
    int settled = 0;
    Tab() { QObject::connect(&m, &HistoryModel::settled, [this] { ++settled; }); }
    void settle() { ASSERT_TRUE(QTest::qWaitFor([this] { return !m.busy(); }, 20000)); }
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
    EXPECT_EQ(m.text(), History::liveDocument(root, *m.document()));  // the newest version is the document now

    // Choosing a document and then another at once: only the last choice is shown.
    t.settled = 0;
    m.selectDocument(m.documents()[1]);
    m.selectDocument(m.documents()[2]);
    t.settle();
    EXPECT_EQ(t.settled, 1);
    EXPECT_EQ(m.document(), m.documents()[2]);
    EXPECT_EQ(m.text(), History::liveDocument(root, m.documents()[2]));
}

TEST(HistoryChain, ReadingComparingAndTheirTexts) {
    TempDir one, two;
    Tab a;
    a.pin(handMadeHistory(one, "Notes.txt", {"a\nb\n"}, "a\nb\n"));
    EXPECT_EQ(a.m.status(), "1 version.");
    EXPECT_EQ(a.m.text(), "a\nb\n");
    a.m.show(true);
    a.settle();
    EXPECT_EQ(a.m.status(), "This version is identical to the document on the drive now.");
    EXPECT_EQ(a.m.diffLines(), (QList<DiffLine>{{"  a", DiffOp::equal}, {"  b", DiffOp::equal}, {"  ", DiffOp::equal}}));
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
}

TEST(HistoryChain, TextsTooLargeToCompareAreNotCalledIdentical) {
    TempDir dir;
    QString old, now;
    for (int i = 0; i < 1500; ++i) old += QString("old line %1\n").arg(i), now += QString("new line %1\n").arg(i);
    Tab t;
    t.pin(handMadeHistory(dir, "Big.txt", {old}, now));
    t.m.show(true);
    t.settle();
    EXPECT_EQ(t.m.status(), "These versions are too large to compare here.");
    EXPECT_TRUE(t.m.diffLines().isEmpty());
}

TEST(HistoryChain, RestoreAddsASavedPointAndAFailedOneSaysSo) {
    TempDir dir;
    QString root = handMadeHistory(dir, "Notes.txt", {"first", "second", "third"}, "third");
    Tab t;
    t.pin(root);
    t.m.selectVersion(1);
    EXPECT_FALSE(t.m.restoring());
    t.m.revert();
    EXPECT_TRUE(t.m.restoring());  // what quitting would leave running
    t.settle();
    EXPECT_FALSE(t.m.restoring());
    const QList<DocVersion>& v = t.m.versions();
    EXPECT_EQ(t.m.status(), "4 versions.");
    ASSERT_EQ(v.size(), 4);
    EXPECT_EQ(v.first().id, 4);
    EXPECT_EQ(HistoryModel::versionLabel(v.first()), v.first().when + "   saved point   reverted to version 1");
    EXPECT_EQ(History::liveDocument(root, "Notes.txt"), "first");
    EXPECT_EQ(t.m.text(), "first");

    QDir(root + "/.qmv/Notes.txt").remove("v2.txt");
    t.m.selectVersion(2);
    t.settle();
    EXPECT_TRUE(t.m.text().isEmpty());  // a version that cannot be read shows as empty text
    t.m.revert();
    t.settle();
    EXPECT_EQ(t.m.status(), "Could not restore: could not read or write the drive");
    EXPECT_EQ(t.m.versions().size(), 4);  // the lists were reloaded all the same
    EXPECT_EQ(History::liveDocument(root, "Notes.txt"), "first");
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
