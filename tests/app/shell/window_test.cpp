// The real window on a real X display (run under xvfb-run), where growing and key presses behave as for a user.
#include <gtest/gtest.h>

#include <QComboBox>
#include <QLabel>
#include <QListView>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <filesystem>

#include "app_object.h"
#include "deck_drive.h"
#include "drive_header.h"
#include "main_window.h"
#include "stats_tab.h"

namespace {

bool showsText(QWidget* tab, const QString& text) {
    for (QLabel* l : tab->findChildren<QLabel*>())
        if (l->isVisibleTo(tab) && l->text().contains(text)) return true;
    return false;
}

TEST(RealWindow, FrameGrowthHistoryStatusAndARemovedDrive) {
    ASSERT_EQ(QGuiApplication::platformName(), "xcb") << "meant to run on a real X display";
    TempDir made, holder;
    ASSERT_FALSE(deckDrive(made, deck::StatsState::Normal, 2).isEmpty());
    // Inside a folder of the test's own, so that moving it away and back leaves nothing behind.
    const std::filesystem::path drive = holder / "Deck", away = holder / "Away";
    std::filesystem::rename(made.path(), drive);

    QuillmateFlasherApp app;
    app.start({"quillmate-flasher", "--drive", q(drive.string())});
    MainWindow w(&app);
    w.show();
    w.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&w));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app.busy(); }, 20000));
    EXPECT_EQ(w.tabs()->currentIndex(), 0);  // its title and tabs are window_under_xvfb's
    EXPECT_EQ(w.tabs()->size(), QSize(580, 560));  // opens at its smallest
    for (DriveHeader* header : w.findChildren<DriveHeader*>())
        EXPECT_EQ(header->findChild<QComboBox*>()->currentText(), "Deck");

    QWidget* history = w.tabs()->widget(2);
    auto* stats = qobject_cast<StatsTab*>(w.tabs()->widget(1));
    auto* text = history->findChild<QPlainTextEdit*>();
    auto* documents = history->findChild<QListView*>();
    ASSERT_TRUE(stats && text && documents);
    EXPECT_EQ(documents->model()->rowCount(), 2);
    w.tabs()->setCurrentWidget(history);
    const QSize textBefore = text->size(), listBefore = documents->size();
    w.resize(w.width() + 420, w.height() + 240);
    ASSERT_TRUE(QTest::qWaitFor([&] { return text->width() > textBefore.width() + 200; }, 5000));
    EXPECT_GT(text->height(), textBefore.height() + 100);
    EXPECT_GT(documents->width(), listBefore.width());

    // The newest version is what the drive holds; once another is read, that verdict is gone.
    const QString identical = "This version is identical to the document on the drive now.";
    withText(history, "Compare with now")->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app.history.busy(); }, 10000));
    ASSERT_TRUE(showsText(history, identical));
    withText(history, "View")->click();
    app.history.selectVersion(app.history.versions().last().id);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app.history.busy(); }, 10000));
    EXPECT_FALSE(showsText(history, identical));

    std::filesystem::rename(drive, away);
    ASSERT_TRUE(QTest::qWaitFor([&] { return app.drives.gone().has_value() && !app.busy(); }, 10000));
    const QString gone = DriveSelection::goneText("Deck");
    for (int tab : {1, 2, 3}) EXPECT_TRUE(showsText(w.tabs()->widget(tab), gone)) << "tab " << tab;
    EXPECT_EQ(documents->model()->rowCount(), 0);
    EXPECT_TRUE(text->toPlainText().isEmpty());
    EXPECT_FALSE(stats->publishButton()->isEnabled());

    std::filesystem::rename(away, drive);
    QPushButton* refresh = withText(history, "Refresh");
    refresh->setFocus();
    ASSERT_TRUE(refresh->hasFocus());
    QTest::keyClick(refresh, Qt::Key_Return);
    ASSERT_TRUE(QTest::qWaitFor([&] { return documents->model()->rowCount() == 2 && !app.busy(); }, 10000));
    EXPECT_FALSE(showsText(history, gone));
}

}  // namespace
