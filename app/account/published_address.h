// The address of the public page that publishing gave, as a link that opens in the browser,
// with a button that copies it. Shown under a status line that would otherwise wrap the address
// at any slash.
#pragma once
#include <QWidget>

class QLabel;
class QPushButton;

class PublishedAddress : public QWidget {
    Q_OBJECT
public:
    explicit PublishedAddress(QWidget* parent = nullptr);

    // Takes a status message: for "Published to ADDRESS" shows the address and returns what the
    // status line keeps ("Published to"); for any other text hides and returns it unchanged.
    QString setMessage(const QString& message);
    const QString& address() const { return address_; }
    QLabel* link() const { return link_; }
    QPushButton* copyButton() const { return copy_; }

private:
    QString address_;
    QLabel* link_;
    QPushButton* copy_;
};
