#include "update_banner.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

#include "settings_model.h"
#include "update_notes.h"

namespace {

// A filled circle holding a downward arrow, in the palette's highlight colour.
QPixmap downloadSymbol(const QPalette& palette, int size) {
    qreal ratio = 2.0;
    QPixmap pixmap(int(size * ratio), int(size * ratio));
    pixmap.setDevicePixelRatio(ratio);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(palette.color(QPalette::Highlight));
    p.drawEllipse(QRectF(0.5, 0.5, size - 1, size - 1));
    QPen arrow(palette.color(QPalette::HighlightedText), size / 9.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    p.setPen(arrow);
    qreal c = size / 2.0;
    p.drawLine(QPointF(c, size * 0.25), QPointF(c, size * 0.72));
    QPainterPath head;
    head.moveTo(size * 0.3, size * 0.52);
    head.lineTo(c, size * 0.74);
    head.lineTo(size * 0.7, size * 0.52);
    p.setBrush(Qt::NoBrush);
    p.drawPath(head);
    return pixmap;
}

}  // namespace

UpdateBanner::UpdateBanner(SettingsModel* model, QWidget* parent) : QFrame(parent), model_(model) {
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::AlternateBase);
    setFrameShape(QFrame::StyledPanel);
    auto* rows = new QVBoxLayout(this);
    rows->setContentsMargins(12, 6, 6, 6);
    auto* row = new QHBoxLayout;
    rows->addLayout(row);
    auto* symbol = new QLabel;
    constexpr int kSymbol = 20;
    symbol->setPixmap(downloadSymbol(palette(), kSymbol));
    row->addWidget(symbol);
    text_ = new QLabel;
    text_->setTextFormat(Qt::PlainText);
    row->addWidget(text_, 1);
    notes_ = new QPushButton(tr("What's new"));
    install_ = new QPushButton(tr("Install now"));
    install_->setDefault(true);
    skip_ = new QPushButton(tr("Skip this version"));
    close_ = new QPushButton(QStringLiteral("\u2715"));
    close_->setFlat(true);
    close_->setToolTip(tr("Close"));
    close_->setFixedWidth(28);
    for (QPushButton* b : {notes_, install_, skip_, close_}) row->addWidget(b);
    problem_ = new QLabel;
    problem_->setTextFormat(Qt::PlainText);
    problem_->setWordWrap(true);
    problem_->setContentsMargins(kSymbol + row->spacing(), 0, 6, 2);  // under the text, not the symbol
    rows->addWidget(problem_);

    connect(notes_, &QPushButton::clicked, model_, [this] { model_->setShowingNotes(true); });
    connect(install_, &QPushButton::clicked, model_, &SettingsModel::updateNow);
    connect(skip_, &QPushButton::clicked, model_, &SettingsModel::skip);
    connect(close_, &QPushButton::clicked, model_, &SettingsModel::dismissBanner);
    connect(model_, &SettingsModel::changed, this, &UpdateBanner::refreshFromModel);
    refreshFromModel();
}

void UpdateBanner::refreshFromModel() {
    setVisible(model_->bannerShown());
    // While it installs, the banner says how far it has got: the Settings tab may not be in view.
    if (model_->busy()) text_->setText(model_->status());
    else if (model_->found()) text_->setText(tr("Version %1 is available.").arg(model_->found()->version));
    problem_->setText(model_->installProblem());
    problem_->setVisible(!model_->busy() && !model_->installProblem().isEmpty());
    for (QPushButton* b : {notes_, install_, skip_}) b->setEnabled(!model_->busy());
    if (model_->showingNotes() && model_->found()) {
        if (!dialog_) dialog_ = new UpdateNotes(model_, window());
        dialog_->show();
        dialog_->raise();
    } else if (dialog_ && dialog_->isVisible()) {
        dialog_->hide();
    }
}
