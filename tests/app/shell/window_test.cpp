// The real window on a real X display (run under xvfb-run): it grows beyond its smallest size,
// History never shows a status that belongs to another text, a drive that is removed leaves
// nothing behind in any tab, and Return on a focused button brings it back once it is returned.
#include <gtest/gtest.h>

#include <QLabel>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <filesystem>

#include "app_object.h"
#include "deck_drive.h"
#include "history_tab.h"
#include "main_window.h"
#include "stats_tab.h"

namespace {

const QString kIdentical = "This version is identical to the document on the drive now.";

bool showsText(QWidget* tab, const QString& text) {
    for (QLabel* l : tab->findChildren<QLabel*>())
        if (l->isVisibleTo(tab) && l->text().contains(text)) return true;
    return false;
}

QPushButton* buttonNamed(QWidget* tab, const QString& text) {
    for (QPushButton* b : tab->findChildren<QPushButton*>())
        if (b->text() == text) return b;
    return nullptr;
}

// The first version whose text differs from the document now, found through the model itself.
std::optional<int32_t> versionThatDiffers(HistoryModel& history) {
    for (const DocVersion& v : history.versions()) {
        history.selectVersion(v.id);
        if (!QTest::qWaitFor([&] { return !history.busy(); }, 10000)) return std::nullopt;
        if (history.status() != kIdentical) return v.id;
    }
    return std::nullopt;
}

TEST(RealWindow, GrowsStaysTruthfulAndLetsGoOfARemovedDrive) {
    ASSERT_EQ(QGuiApplication::platformName(), "xcb") << "meant to run on a real X display";
    TempDir made, holder;
    ASSERT_FALSE(deckDrive(made, deck::StatsState::Normal, 2).isEmpty());
    // Kept inside a folder of the test's own, so that moving it away and back leaves nothing behind.
    const std::filesystem::path drive = holder / "Deck", away = holder / "Away";
    std::filesystem::rename(made.path(), drive);
    QString root = QString::fromStdString(drive.string());

    QuillmateFlasherApp app;
    app.start({"quillmate-flasher", "--drive", root});
    MainWindow w(&app);
    w.show();
    w.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&w));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app.busy(); }, 20000));
    auto* history = qobject_cast<HistoryTab*>(w.tabs()->widget(2));
    auto* stats = qobject_cast<StatsTab*>(w.tabs()->widget(1));
    ASSERT_TRUE(history && stats);
    w.tabs()->setCurrentWidget(history);

    // Larger than its smallest size, the lists and the shown text take the room.
    auto* text = history->findChild<QPlainTextEdit*>();
    auto* documents = history->findChild<QListWidget*>();
    ASSERT_TRUE(text && documents);
    EXPECT_EQ(w.tabs()->minimumSize(), QSize(580, 560));
    QSize textBefore = text->size(), listBefore = documents->size();
    w.resize(w.width() + 420, w.height() + 240);
    ASSERT_TRUE(QTest::qWaitFor([&] { return text->width() > textBefore.width() + 200; }, 5000));
    EXPECT_GT(text->height(), textBefore.height() + 100);
    EXPECT_GT(documents->width(), listBefore.width());

    // A comparison's verdict goes when another version is shown, in either mode.
    ASSERT_GE(app.history.versions().size(), 2);
    std::optional<int32_t> differing = versionThatDiffers(app.history);
    ASSERT_TRUE(differing);
    app.history.selectVersion(app.history.versions().first().id);
    app.history.show(true);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app.history.busy(); }, 10000));
    ASSERT_EQ(app.history.status(), kIdentical);  // the newest version is what the drive holds now
    EXPECT_TRUE(showsText(history, kIdentical));
    buttonNamed(history, "View")->click();
    app.history.selectVersion(*differing);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app.history.busy(); }, 10000));
    EXPECT_FALSE(showsText(history, kIdentical));

    // The drive goes: every tab that showed it says so and keeps nothing of it.
    std::filesystem::rename(drive, away);
    ASSERT_TRUE(QTest::qWaitFor([&] { return app.drives.gone().has_value() && !app.busy(); }, 10000));
    QString gone = DriveSelection::goneText(*app.drives.gone());
    for (int tab : {1, 2, 3}) EXPECT_TRUE(showsText(w.tabs()->widget(tab), gone)) << "tab " << tab;
    EXPECT_EQ(documents->count(), 0);
    EXPECT_TRUE(text->toPlainText().isEmpty());
    EXPECT_FALSE(stats->publishButton()->isEnabled());

    // Put back, and Refresh pressed with Return from the keyboard, the drive is shown again.
    std::filesystem::rename(away, drive);
    QPushButton* refresh = buttonNamed(history, "Refresh");
    ASSERT_TRUE(refresh);
    refresh->setFocus();
    ASSERT_TRUE(refresh->hasFocus());
    QTest::keyClick(refresh, Qt::Key_Return);
    ASSERT_TRUE(QTest::qWaitFor([&] { return documents->count() == 2 && !app.busy(); }, 10000));
    EXPECT_FALSE(showsText(history, gone));
}

}  // namespace
