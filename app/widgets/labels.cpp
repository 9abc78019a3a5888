#include "labels.h"

#include <QFontDatabase>
#include <QLabel>

namespace Labels {

QLabel* title(const QString& text) {
    auto* l = new QLabel(text);
    QFont f = l->font();
    f.setPointSize(18);
    f.setBold(true);
    l->setFont(f);
    return l;
}

QLabel* heading(const QString& text) {
    auto* l = new QLabel(text);
    QFont f = l->font();
    f.setBold(true);
    f.setPointSize(f.pointSize() + 2);
    l->setFont(f);
    return l;
}

QLabel* caption(const QString& text, int pointSize) {
    auto* l = new QLabel(text);
    QFont f = l->font();
    f.setPointSize(pointSize);
    l->setFont(f);
    l->setForegroundRole(QPalette::PlaceholderText);
    return l;
}

QLabel* status() {
    auto* l = new QLabel;
    l->setWordWrap(true);
    return l;
}

QFont monospaced(int pointSize) {
    QFont f = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    f.setPointSize(pointSize);
    return f;
}

}  // namespace Labels
