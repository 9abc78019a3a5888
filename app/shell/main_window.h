// The single window: the update banner's row (empty until updates land) over the fixed
// 580 x 560 tab view.
#pragma once
#include <QWidget>

class QTabWidget;
class QuillmateFlasherApp;

class MainWindow : public QWidget {
    Q_OBJECT
public:
    static constexpr int kTabWidth = 580;
    static constexpr int kTabHeight = 560;
    enum Tab { Install, Statistics, History, Backup, Account, Settings };

    explicit MainWindow(QuillmateFlasherApp* app, QWidget* parent = nullptr);
    QTabWidget* tabs() const { return tabs_; }
    // The view of one tab on its own, as the screenshot mode draws it; null for tabs not built.
    static QWidget* createTabView(QuillmateFlasherApp* app, Tab tab, QWidget* parent = nullptr);

signals:
    void firstPainted();

protected:
    void paintEvent(QPaintEvent* e) override;

private:
    QTabWidget* tabs_;
    bool painted_ = false;
};
