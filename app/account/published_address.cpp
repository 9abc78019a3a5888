#include "published_address.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QUrl>

namespace {
const QString kPublishedTo = QStringLiteral("Published to");
}  // namespace

PublishedAddress::PublishedAddress(QWidget* parent) : QWidget(parent) {
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    link_ = new QLabel;
    link_->setTextFormat(Qt::RichText);
    link_->setOpenExternalLinks(true);
    link_->setTextInteractionFlags(Qt::TextBrowserInteraction);
    // One line, cut at the edge rather than widening the window: Copy has the whole address.
    link_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    copy_ = new QPushButton(tr("Copy"));
    copy_->setToolTip(tr("Copy the page's address"));
    row->addWidget(link_, 1);
    row->addWidget(copy_);
    connect(copy_, &QPushButton::clicked, this, [this] { QGuiApplication::clipboard()->setText(address_); });
    setVisible(false);
}

QString PublishedAddress::setMessage(const QString& message) {
    QString rest = message.startsWith(kPublishedTo + QLatin1Char(' ')) ? message.mid(kPublishedTo.size() + 1).trimmed()
                                                                       : QString();
    QUrl url(rest, QUrl::StrictMode);
    bool isAddress = url.isValid() && !url.host().isEmpty() && (url.scheme() == "https" || url.scheme() == "http");
    address_ = isAddress ? rest : QString();
    link_->setText(isAddress ? QStringLiteral("<a href=\"%1\">%2</a>")
                                   .arg(url.toString(QUrl::FullyEncoded).toHtmlEscaped(), rest.toHtmlEscaped())
                             : QString());
    setVisible(isAddress);
    return isAddress ? kPublishedTo : message;
}
