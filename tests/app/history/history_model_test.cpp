// The history chain on deck-written drives and on small hand-made histories: documents,
// versions newest first, reading and comparing, restoring, and the texts on the way.
#include <gtest/gtest.h>

#include <QDir>

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

TEST(HistoryChain, DeckDriveListsDocumentsAndVersionsNewestFirst) {
    TempDir dir;
    QString root = deckDrive(dir, deck::StatsState::Normal, 3);
    HistoryModel m;
    m.pin(QmVolume{root, "Q", true});
    ASSERT_EQ(m.documents.size(), 3);
    ASSERT_TRUE(m.document);
    EXPECT_EQ(*m.document, m.documents.first());
    ASSERT_GE(m.versions.size(), 2);
    for (int i = 1; i < m.versions.size(); ++i) EXPECT_GT(m.versions[i - 1].id, m.versions[i].id);
    EXPECT_EQ(m.selected, m.versions.first().id);
    EXPECT_EQ(m.status, QString("%1 versions.").arg(m.versions.size()));
    EXPECT_FALSE(m.showingDiff);
    EXPECT_EQ(m.text, History::liveDocument(root, *m.document));  // the newest version is the document now

    QList<QmVolume> before = m.volumes;
    m.rescan();  // pinned: Refresh changes nothing
    EXPECT_EQ(m.volumes, before);
    EXPECT_EQ(m.root, root);
}

TEST(HistoryChain, OneVersionReadsAtOnceAndIdenticalComparisonIsAllGrey) {
    TempDir dir;
    HistoryModel m;
    m.pin(QmVolume{handMadeHistory(dir, "Notes.txt", {"a\nb\n"}, "a\nb\n"), "Q", true});
    EXPECT_EQ(m.status, "1 version.");
    EXPECT_EQ(m.text, "a\nb\n");
    m.show(true);
    EXPECT_EQ(m.status, "This version is identical to the document on the drive now.");
    ASSERT_EQ(m.diffLines.size(), 3);
    for (const auto& [line, colour] : m.diffLines) {
        EXPECT_TRUE(line.startsWith("  "));
        EXPECT_EQ(colour, HistoryModel::equalColour());
    }
    EXPECT_TRUE(m.text.isEmpty());
}

TEST(HistoryChain, ComparisonPrefixesColoursAndCount) {
    TempDir dir;
    HistoryModel m;
    m.pin(QmVolume{handMadeHistory(dir, "Notes.txt", {"x\ny\nz", "a\nb"}, "a\r\nc"), "Q", true});
    m.show(true);
    ASSERT_EQ(m.diffLines.size(), 3);
    EXPECT_EQ(m.diffLines[0], qMakePair(QString("  a"), HistoryModel::equalColour()));
    EXPECT_EQ(m.diffLines[1], qMakePair(QString("- b"), HistoryModel::deletedColour()));
    EXPECT_EQ(m.diffLines[2], qMakePair(QString("+ c"), HistoryModel::addedColour()));
    EXPECT_EQ(m.status, "1 line differ from the document on the drive now.");

    m.selected = 1;  // another version while comparing: compared again
    m.show(m.showingDiff);
    EXPECT_TRUE(m.showingDiff);
    EXPECT_EQ(m.status, "3 lines differ from the document on the drive now.");
    m.show(false);
    EXPECT_EQ(m.text, "x\ny\nz");
    EXPECT_TRUE(m.diffLines.isEmpty());
}

TEST(HistoryChain, RestoreAddsASavedPointAndShowsTheNewCount) {
    TempDir dir;
    QString root = handMadeHistory(dir, "Notes.txt", {"first", "second", "third"}, "third");
    HistoryModel m;
    m.pin(QmVolume{root, "Q", true});
    m.selected = 1;
    m.revert();
    EXPECT_EQ(m.status, "4 versions.");
    ASSERT_EQ(m.versions.size(), 4);
    EXPECT_EQ(m.versions.first().id, 4);
    EXPECT_EQ(HistoryModel::kindLabel(m.versions.first().kind), "saved point");
    EXPECT_EQ(m.versions.first().tag, "reverted to version 1");
    EXPECT_EQ(History::liveDocument(root, "Notes.txt"), "first");
    EXPECT_EQ(m.text, "first");
    EXPECT_EQ(HistoryModel::versionLabel(m.versions.first()),
              m.versions.first().when + "   saved point   reverted to version 1");
}

TEST(HistoryChain, DrivesWithoutHistoryAndBrokenHistoriesSayWhy) {
    TempDir none;
    HistoryModel a;
    a.pin(QmVolume{deckDrive(none, deck::StatsState::Normal, 0), "Q", true});
    EXPECT_EQ(a.status, HistoryModel::kNoHistoryStatus);
    EXPECT_TRUE(a.documents.isEmpty());

    TempDir noLog;
    QString root = handMadeHistory(noLog, "Notes.txt", {"one"}, "one");
    QDir(root + "/.qmv/Notes.txt").remove("history.log");
    HistoryModel b;
    b.pin(QmVolume{root, "Q", true});
    EXPECT_EQ(b.status, "unknown error");  // the core has no message of its own for a missing log
    EXPECT_TRUE(b.versions.isEmpty());

    TempDir missing;
    root = handMadeHistory(missing, "Notes.txt", {"one", "two"}, "two");
    QDir(root + "/.qmv/Notes.txt").remove("v1.txt");
    HistoryModel c;
    c.pin(QmVolume{root, "Q", true});
    c.selected = 1;
    c.show(false);
    EXPECT_TRUE(c.text.isEmpty());
    c.revert();
    EXPECT_EQ(c.status, "2 versions.");  // the failure text is replaced by the reload, as designed
    EXPECT_EQ(History::liveDocument(root, "Notes.txt"), "two");
}

TEST(HistoryChain, NoDrive) {
    HistoryModel m;
    EXPECT_EQ(m.status, HistoryModel::kNoDriveStatus);
    m.loadDocuments();
    EXPECT_TRUE(m.documents.isEmpty());
    EXPECT_FALSE(m.selected);
    EXPECT_EQ(HistoryModel::kindLabel('x'), "changed elsewhere");
    EXPECT_EQ(HistoryModel::kindLabel('q'), "auto");
}

}  // namespace
