#include "main_window.h"

#include <QTabWidget>
#include <QVBoxLayout>

#include "app_object.h"
#include "history_tab.h"
#include "stats_tab.h"

QWidget* MainWindow::createTabView(QuillmateFlasherApp* app, Tab tab, QWidget* parent) {
    switch (tab) {
        case Statistics: return new StatsTab(&app->stats, parent);
        case History: return new HistoryTab(&app->history, parent);
        default: return nullptr;
    }
}

MainWindow::MainWindow(QuillmateFlasherApp* app, QWidget* parent) : QWidget(parent) {
    setWindowTitle(QStringLiteral("Quillmate"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->setSizeConstraint(QLayout::SetFixedSize);  // the window follows its content

    tabs_ = new QTabWidget;
    tabs_->setFixedSize(kTabWidth, kTabHeight);
    const std::pair<Tab, const char*> order[] = {{Install, "Install"}, {Statistics, "Statistics"},
                                                 {History, "History"}, {Backup, "Backup"},
                                                 {Account, "Account"}, {Settings, "Settings"}};
    for (auto [tab, label] : order)
        if (QWidget* view = createTabView(app, tab)) tabs_->addTab(view, tr(label));
    layout->addWidget(tabs_, 0, Qt::AlignHCenter);
}

void MainWindow::paintEvent(QPaintEvent* e) {
    QWidget::paintEvent(e);
    if (painted_) return;
    painted_ = true;
    emit firstPainted();
}
