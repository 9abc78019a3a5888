#include "account_tab.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "labels.h"

namespace {
QLabel* note(const QString& text, int pointSize) {
    QLabel* l = Labels::caption(text, pointSize);
    l->setWordWrap(true);
    return l;
}
}  // namespace

AccountTab::AccountTab(AccountModel* model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(10);

    layout->addWidget(Labels::title(tr("Account")));
    layout->addWidget(note(tr("Signing in lets you publish. Reading your own statistics does not need it."),
                           font().pointSize()));

    auto* form = new QFormLayout;
    email_ = new QLineEdit;
    email_->setPlaceholderText(tr("Email"));
    email_->setAccessibleName(tr("Email"));
    password_ = new QLineEdit;
    password_->setEchoMode(QLineEdit::Password);
    password_->setPlaceholderText(tr("Password"));
    password_->setAccessibleName(tr("Password"));
    form->addRow(tr("Email"), email_);
    form->addRow(tr("Password"), password_);
    layout->addLayout(form);

    auto* signInRow = new QHBoxLayout;
    signIn_ = new QPushButton(tr("Sign in"));
    signIn_->setDefault(true);
    signInRow->addStretch();
    signInRow->addWidget(signIn_);
    layout->addLayout(signInRow);

    auto* statusRow = new QHBoxLayout;
    status_ = Labels::status();
    status_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    signOut_ = new QPushButton(tr("Sign out"));
    statusRow->addWidget(status_, 1);
    statusRow->addWidget(signOut_, 0, Qt::AlignTop);
    layout->addLayout(statusRow);
    layout->addStretch();

    int small = font().pointSize() - 1;
    layout->addWidget(note(tr("Your statistics are always readable on the deck itself, for free, and they always stay "
                              "on your drive. Only the counts are ever uploaded, never a word of what you wrote."),
                           small));

    connect(email_, &QLineEdit::textEdited, model_, &AccountModel::setEmail);
    connect(password_, &QLineEdit::textEdited, model_, &AccountModel::setPassword);
    connect(password_, &QLineEdit::returnPressed, model_, &AccountModel::signIn);
    connect(signIn_, &QPushButton::clicked, model_, &AccountModel::signIn);
    connect(signOut_, &QPushButton::clicked, model_, &AccountModel::signOut);
    connect(model_, &AccountModel::changed, this, &AccountTab::refreshFromModel);
    refreshFromModel();
}

void AccountTab::refreshFromModel() {
    // Only replaced when the model differs, so typing keeps its cursor.
    if (email_->text() != model_->email()) email_->setText(model_->email());
    if (password_->text() != model_->password()) password_->setText(model_->password());
    signIn_->setEnabled(model_->canSignIn());
    signOut_->setEnabled(!model_->busy() && model_->signedIn());
    status_->setText(model_->accountStatus());
}
