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

    explicit MainWindow(QuillmateFlasherApp* app, QWidget* parent = nullptr);
    QTabWidget* tabs() const { return tabs_; }

signals:
    void firstPainted();

protected:
    void paintEvent(QPaintEvent* e) override;

private:
    QTabWidget* tabs_;
    bool painted_ = false;
};
