#include "main_window.h"

#include <QTabWidget>
#include <QVBoxLayout>

#include "tabs.h"

MainWindow::MainWindow(QuillmateFlasherApp* app, QWidget* parent) : QWidget(parent) {
    setWindowTitle(QStringLiteral("Quillmate"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->setSizeConstraint(QLayout::SetFixedSize);  // the window follows its content

    tabs_ = new QTabWidget;
    tabs_->setFixedSize(kTabWidth, kTabHeight);
    for (const TabEntry& tab : tabTable()) tabs_->addTab(tab.create(app), tr(tab.label));
    layout->addWidget(tabs_, 0, Qt::AlignHCenter);
}

void MainWindow::paintEvent(QPaintEvent* e) {
    QWidget::paintEvent(e);
    if (painted_) return;
    painted_ = true;
    emit firstPainted();
}
