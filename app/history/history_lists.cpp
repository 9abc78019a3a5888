#include "history_lists.h"

QVariant DocumentList::data(const QModelIndex& index, int role) const {
    const QString* doc = rowAt(index);
    return doc && role == Qt::DisplayRole ? QVariant(*doc) : QVariant();
}

QHash<int, QByteArray> DocumentList::roleNames() const { return {{Qt::DisplayRole, "name"}}; }

QString VersionList::kindLabel(QChar kind) {
    if (kind == QLatin1Char('t')) return QStringLiteral("saved point");
    if (kind == QLatin1Char('x')) return QStringLiteral("changed elsewhere");
    return QStringLiteral("auto");
}

QString VersionList::label(const DocVersion& v) {
    QString label = QStringLiteral("#%1   ").arg(v.id) + v.when + QStringLiteral("   ") + kindLabel(v.kind);
    if (!v.tag.isEmpty()) label += QStringLiteral("   ") + v.tag;
    return label;
}

int VersionList::rowOf(int32_t id) const {
    for (int row = 0; row < rows().size(); ++row)
        if (rows()[row].id == id) return row;
    return -1;
}

QVariant VersionList::data(const QModelIndex& index, int role) const {
    const DocVersion* v = rowAt(index);
    if (!v) return {};
    switch (role) {
        case Qt::DisplayRole:
        case Qt::ToolTipRole: return label(*v);  // a narrow list cuts the tag short
        case IdRole: return v->id;
        case WhenRole: return v->when;
        case KindRole: return kindLabel(v->kind);
        case TagRole: return v->tag;
        default: return {};
    }
}

QHash<int, QByteArray> VersionList::roleNames() const {
    return {{Qt::DisplayRole, "label"}, {IdRole, "id"}, {WhenRole, "when"}, {KindRole, "kind"}, {TagRole, "tag"}};
}

QColor DiffLineList::colourOf(DiffOp op) {
    switch (op) {
        case DiffOp::del:
        case DiffOp::change: return QColor(Qt::red);
        case DiffOp::add: return QColor(0, 160, 0);
        case DiffOp::equal: break;
    }
    return QColor::fromRgbF(0.35f, 0.35f, 0.35f);
}

QVariant DiffLineList::data(const QModelIndex& index, int role) const {
    const DiffLine* line = rowAt(index);
    if (!line) return {};
    switch (role) {
        case Qt::DisplayRole: return line->text;
        case Qt::ForegroundRole: return colourOf(line->op);
        case OpRole: return int(line->op);
        default: return {};
    }
}

QHash<int, QByteArray> DiffLineList::roleNames() const { return {{Qt::DisplayRole, "text"}, {OpRole, "op"}}; }
