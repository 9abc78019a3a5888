// The baseline for the start-up benchmark: the smallest Qt Widgets program that paints one
// empty window of the same size and quits, as the real program does under QM_REPORT_WINDOW.
#include <QApplication>
#include <QTimer>
#include <QWidget>

class Window : public QWidget {
protected:
    void paintEvent(QPaintEvent*) override {
        if (!painted_) QTimer::singleShot(0, qApp, &QApplication::quit);
        painted_ = true;
    }
    bool painted_ = false;
};

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    Window w;
    w.resize(580, 560);
    w.show();
    return QApplication::exec();
}
