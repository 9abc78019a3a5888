// The application tests' main: a QApplication (offscreen unless told otherwise), test-mode paths,
// and settings of this process's own, since ctest runs many test processes at once.
#include <QApplication>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QStandardPaths::setTestModeEnabled(true);
    // A window's launch check of updates, and any other request, stays on this machine unless a
    // test points it at a service of its own.
    if (!qEnvironmentVariableIsSet("QM_SERVER")) qputenv("QM_SERVER", "http://127.0.0.1:9");
    QApplication app(argc, argv);
    QTemporaryDir settings;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
