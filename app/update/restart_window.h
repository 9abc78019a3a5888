// The main window's part in an update's restart: it opens where the window of the copy it
// replaces stood, as large and on the same tab; it tells that copy once it has been painted, so that the old
// copy may go; and it lets the settings model know where it stands, for the next restart.
#pragma once

class QTabWidget;
class QWidget;
class SettingsModel;

namespace RestartWindow {
// Call before the window is first shown.
void attach(QWidget* window, QTabWidget* tabs, SettingsModel* settings);
}
