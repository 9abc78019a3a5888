#include "main_window.h"

#include <QTabWidget>
#include <QVBoxLayout>

#include "app_object.h"
#include "tabs.h"
#include "update_banner.h"

MainWindow::MainWindow(QuillmateFlasherApp* app, QWidget* parent) : QWidget(parent), app_(app) {
    setWindowTitle(QStringLiteral("Quillmate"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->setSizeConstraint(QLayout::SetFixedSize);  // the window follows its content

    banner_ = new UpdateBanner(&app->settings);
    banner_->setFixedWidth(kTabWidth);
    layout->addWidget(banner_, 0, Qt::AlignHCenter);

    tabs_ = new QTabWidget;
    tabs_->setFixedSize(kTabWidth, kTabHeight);
    for (const TabEntry& tab : tabTable()) tabs_->addTab(tab.create(app), tr(tab.label));
    layout->addWidget(tabs_, 0, Qt::AlignHCenter);
}

void MainWindow::showEvent(QShowEvent* e) {
    QWidget::showEvent(e);
    if (shown_) return;
    shown_ = true;
    app_->settings.checkOnLaunch();
}

void MainWindow::paintEvent(QPaintEvent* e) {
    QWidget::paintEvent(e);
    if (painted_) return;
    painted_ = true;
    emit firstPainted();
}
