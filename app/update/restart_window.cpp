#include "restart_window.h"

#include <QEvent>
#include <QGuiApplication>
#include <QTabWidget>
#include <QTimer>
#include <QWidget>
#include <cstdio>

#include "restart_state.h"
#include "settings_model.h"

namespace {

// Reports the window's first paint, once it has been done, and goes.
class FirstPaint : public QObject {
public:
    FirstPaint(QWidget* window, QString flag) : QObject(window), flag_(std::move(flag)) {
        window->installEventFilter(this);
    }

    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Paint && watched == parent()) {
            watched->removeEventFilter(this);
            QTimer::singleShot(0, this, [this] {
                if (!RestartState::reportStarted(flag_))
                    std::fprintf(stderr, "update: could not tell the copy that started this one: %s\n",
                                 qPrintable(flag_));
                deleteLater();
            });
        }
        return false;
    }

private:
    QString flag_;
};

}  // namespace

void RestartWindow::attach(QWidget* window, QTabWidget* tabs, SettingsModel* settings) {
    if (std::optional<RestartState::Place> place = RestartState::takePlace()) {
        if (place->tab < tabs->count()) tabs->setCurrentIndex(place->tab);
        // Only onto a screen that is still there.
        if (place->position && QGuiApplication::screenAt(*place->position)) window->move(*place->position);
        if (place->size) window->resize(*place->size);  // never below the window's minimum
    }
    if (std::optional<QString> flag = RestartState::takeStartedFlag()) new FirstPaint(window, *flag);
    settings->setRestartPlace(
        [window, tabs] { return RestartState::encode({tabs->currentIndex(), window->pos(), window->size()}); });
}
