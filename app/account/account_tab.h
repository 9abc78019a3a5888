// The Account tab: signing in so that statistics can be published, and signing out.
#pragma once
#include <QWidget>

#include "account_model.h"

class QLabel;
class QLineEdit;
class QPushButton;

class AccountTab : public QWidget {
    Q_OBJECT
public:
    explicit AccountTab(AccountModel* model, QWidget* parent = nullptr);

    QLineEdit* emailField() const { return email_; }
    QLineEdit* passwordField() const { return password_; }
    QPushButton* signInButton() const { return signIn_; }
    QPushButton* signOutButton() const { return signOut_; }
    QLabel* statusLine() const { return status_; }

private:
    void refreshFromModel();

    AccountModel* model_;
    QLineEdit* email_;
    QLineEdit* password_;
    QPushButton* signIn_;
    QLabel* status_;
    QPushButton* signOut_;
};
