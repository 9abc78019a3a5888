// The label styles the tabs share.
#pragma once
#include <QFont>
#include <QString>

class QLabel;

namespace Labels {
// A tab's title: 18 points, bold.
QLabel* title(const QString& text);
// A section's heading: bold, two points over the body text.
QLabel* heading(const QString& text);
// A small caption above a list or a figure, in the secondary colour.
QLabel* caption(const QString& text, int pointSize = 11);
// A status line that wraps.
QLabel* status();
QFont monospaced(int pointSize);
}  // namespace Labels
