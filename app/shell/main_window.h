// The single window: the update banner's row (shown while an update is found and the banner
// has not been closed) over the tab view, 580 x 560 at the least. The first time it is shown it asks for
// the launch check of updates. Closing it (Ctrl+Q too) while work runs asks first.
#pragma once
#include <QWidget>

class QTabWidget;
class QuillmateFlasherApp;
class UpdateBanner;

class MainWindow : public QWidget {
    Q_OBJECT
public:
    static constexpr int kTabWidth = 580;
    static constexpr int kTabHeight = 560;

    explicit MainWindow(QuillmateFlasherApp* app, QWidget* parent = nullptr);
    QTabWidget* tabs() const { return tabs_; }
    UpdateBanner* banner() const { return banner_; }

signals:
    void firstPainted();

protected:
    void paintEvent(QPaintEvent* e) override;
    void showEvent(QShowEvent* e) override;
    void closeEvent(QCloseEvent* e) override;

private:
    bool confirmQuit();
    void addKeyboardShortcuts();

    QuillmateFlasherApp* app_;
    UpdateBanner* banner_;
    QTabWidget* tabs_;
    bool shown_ = false;
    bool painted_ = false;
};
