// What an update's restart hands the new copy: the window's place as text both ways, the
// arguments carried over, and the new window taking its place and saying when it was painted.
#include <gtest/gtest.h>

#include <QFile>
#include <QTabWidget>
#include <QTest>

#include "restart_state.h"
#include "restart_window.h"
#include "settings_model.h"
#include "temp_dir.h"

namespace {

using RestartState::Place;

TEST(RestartState, PlaceTravelsAsTextAndNothingElseIsTaken) {
    struct {
        const char* text;
        std::optional<Place> place;
    } cases[] = {
        {"tab=2;x=120;y=-40;w=640;h=600", Place{2, QPoint(120, -40), QSize(640, 600)}},
        {"tab=0", Place{0, std::nullopt, std::nullopt}},
        {"h=7;y=5;tab=1;w=9;x=3", Place{1, QPoint(3, 5), QSize(9, 7)}},
        {"", std::nullopt},
        {"tab=1;tab=2", std::nullopt},
        {"tab=-1", std::nullopt},
        {"tab=1;x=5", std::nullopt},
        {"tab=1;w=0;h=5", std::nullopt},
        {"tab=1;x=2147483647;y=0", std::nullopt},
        {"tab=1;z=3", std::nullopt},
        {"tab=1;", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RestartState::decode(c.text), c.place) << c.text;
        if (c.place) {
            EXPECT_EQ(RestartState::decode(RestartState::encode(*c.place)), c.place) << c.text;
        }
    }
}

TEST(RestartState, CarriesTheArgumentsButNotTheProgramOrAnEarlierUpdate) {
    EXPECT_EQ(RestartState::carriedArguments({"/opt/q/bin/q", "--updated", "0.2.0", "--drive", "/media/Deck"}),
              QStringList({"--drive", "/media/Deck"}));
    EXPECT_EQ(RestartState::carriedArguments({"/q", "--drive", "--updated dir", "--updated"}),
              QStringList({"--drive", "--updated dir"}));
}

// The new copy opens on the old window's tab and place, takes the variables out of its own
// environment, and creates the flag only once the window has been painted.
TEST(RestartWindow, TakesThePlaceAndReportsTheFirstPaint) {
    TempDir dir;
    const QString flag = QString::fromStdString(dir / "started");
    qputenv(RestartState::kPlaceVariable, "tab=2;x=30;y=40;w=500;h=300");
    qputenv(RestartState::kStartedVariable, flag.toUtf8());
    QWidget window;
    auto* tabs = new QTabWidget(&window);
    for (const char* label : {"a", "b", "c"}) tabs->addTab(new QWidget, label);
    SettingsModel settings(UpdateIdentity{}, std::nullopt);
    RestartWindow::attach(&window, tabs, &settings);
    EXPECT_FALSE(qEnvironmentVariableIsSet(RestartState::kPlaceVariable));
    EXPECT_FALSE(qEnvironmentVariableIsSet(RestartState::kStartedVariable));
    EXPECT_EQ(tabs->currentIndex(), 2);
    EXPECT_EQ(window.size(), QSize(500, 300));
    EXPECT_FALSE(QFile::exists(flag));
    window.show();
    EXPECT_TRUE(QTest::qWaitFor([&] { return QFile::exists(flag); }, 5000));
    EXPECT_EQ(window.pos(), QPoint(30, 40));
}

}  // namespace
