// Screenshot mode: renders each tab that exists to a PNG file, off screen, and ends.
#pragma once
#include <QStringList>

namespace Shots {
// Runs inside an existing QApplication; returns the process's exit status.
int run(const QStringList& args);
}
