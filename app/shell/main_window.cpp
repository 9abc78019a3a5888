#include "main_window.h"

#include <QApplication>
#include <QCloseEvent>
#include <QMessageBox>
#include <QPushButton>
#include <QShortcut>
#include <QTabWidget>
#include <QVBoxLayout>

#include "app_object.h"
#include "restart_window.h"
#include "return_key.h"
#include "running_work.h"
#include "tabs.h"
#include "update_banner.h"

MainWindow::MainWindow(QuillmateFlasherApp* app, QWidget* parent) : QWidget(parent), app_(app) {
    setWindowTitle(QStringLiteral("Quillmate"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    // 580 x 560 is the smallest the tabs get; a larger window gives the lists and texts the room.
    layout->setSizeConstraint(QLayout::SetMinimumSize);

    banner_ = new UpdateBanner(&app->settings);
    layout->addWidget(banner_);

    tabs_ = new QTabWidget;
    tabs_->setMinimumSize(kTabWidth, kTabHeight);
    for (const TabEntry& tab : tabTable()) tabs_->addTab(tab.create(app), tr(tab.label));
    layout->addWidget(tabs_, 1);
    addKeyboardShortcuts();
    resize(minimumSizeHint());  // opens at the smallest size; the tabs' own wishes would make it larger
    // After an update's restart: the old copy's place and tab, and telling it when painted.
    RestartWindow::attach(this, tabs_, &app->settings);
}

// Ctrl+Q goes through the same question as closing the window; Alt+1 to Alt+6 pick a tab; Return
// presses the focused button.
void MainWindow::addKeyboardShortcuts() {
    qApp->installEventFilter(new ReturnPressesButtons(this));
    new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q), this, this, &QWidget::close);
    for (int i = 0; i < tabs_->count(); ++i)
        new QShortcut(QKeySequence(Qt::ALT | (Qt::Key_1 + i)), this, this, [this, i] { tabs_->setCurrentIndex(i); });
}

void MainWindow::closeEvent(QCloseEvent* e) {
    if (!confirmQuit()) return e->ignore();
    QWidget::closeEvent(e);
}

// Asks only while work runs; pressing Return or Escape keeps the program open.
bool MainWindow::confirmQuit() {
    std::optional<RunningWork::QuitWarning> warning =
        RunningWork::quitWarning(app_->flash, app_->backup, app_->history);
    if (!warning) return true;
    QMessageBox box(QMessageBox::Warning, tr("Quit Quillmate Flasher?"), warning->question, QMessageBox::NoButton,
                    this);
    box.setInformativeText(warning->text);
    QPushButton* quit = box.addButton(tr("Quit anyway"), QMessageBox::DestructiveRole);
    QPushButton* stay = box.addButton(tr("Keep running"), QMessageBox::RejectRole);
    box.setDefaultButton(stay);
    box.setEscapeButton(stay);
    box.exec();
    return box.clickedButton() == quit;
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
