#include "history_model.h"

const QString HistoryModel::kNoDriveStatus = QStringLiteral("Plug in a Quillmate drive and press Refresh.");
const QString HistoryModel::kNoHistoryStatus = QStringLiteral(
    "No snapshot history on this drive yet. Save a named document on the deck and it will start keeping one.");

QColor HistoryModel::equalColour() { return QColor::fromRgbF(0.35f, 0.35f, 0.35f); }
QColor HistoryModel::deletedColour() { return QColor(Qt::red); }
QColor HistoryModel::addedColour() { return QColor(0, 160, 0); }

QString HistoryModel::kindLabel(QChar kind) {
    if (kind == QLatin1Char('t')) return QStringLiteral("saved point");
    if (kind == QLatin1Char('x')) return QStringLiteral("changed elsewhere");
    return QStringLiteral("auto");
}

QString HistoryModel::versionLabel(const DocVersion& v) {
    QString label = v.when + QStringLiteral("   ") + kindLabel(v.kind);
    if (!v.tag.isEmpty()) label += QStringLiteral("   ") + v.tag;
    return label;
}

HistoryModel::HistoryModel(QObject* parent) : QObject(parent) {}

void HistoryModel::rescan() {
    if (pinned) return;
    volumes = Volumes::scan();
    root = volumes.isEmpty() ? std::nullopt : std::optional<QString>(volumes.first().path);
    loadDocuments();
}

void HistoryModel::pin(const QmVolume& volume) {
    pinned = true;
    volumes = {volume};
    root = volume.path;
    loadDocuments();
}

void HistoryModel::loadDocuments() {
    documents = root ? History::documents(*root) : QStringList();
    document = documents.isEmpty() ? std::nullopt : std::optional<QString>(documents.first());
    loadVersions();
    if (documents.isEmpty()) status = kNoHistoryStatus;
    emit changed();
}

void HistoryModel::loadVersions() {
    versions.clear();
    selected.reset();  // an id means nothing in another document's history
    text.clear();
    diffLines.clear();
    if (root && document) {
        QmError error = QmError::ok;
        std::unique_ptr<History> h = History::open(*root, *document, &error);
        if (!h) {
            status = qmErrorMessage(error);
        } else {
            const QList<DocVersion>& log = h->versions();
            versions = QList<DocVersion>(log.rbegin(), log.rend());
            selected = versions.isEmpty() ? std::nullopt : std::optional<int32_t>(versions.first().id);
            status = QStringLiteral("%1 version%2.").arg(versions.size()).arg(versions.size() == 1 ? "" : "s");
            show(false);
        }
    }
    emit changed();
}

void HistoryModel::show(bool asDiff) {
    showingDiff = asDiff;
    diffLines.clear();
    text.clear();
    std::unique_ptr<History> h = root && document && selected ? History::open(*root, *document, nullptr) : nullptr;
    if (h) {
        QString old = h->read(*selected);
        if (asDiff)
            fillComparison(old, History::liveDocument(*root, *document));
        else
            text = old;
    }
    emit changed();
}

void HistoryModel::fillComparison(const QString& old, const QString& now) {
    auto lines = [](QString t) { return t.replace(QStringLiteral("\r\n"), QStringLiteral("\n")).split('\n'); };
    QStringList a = lines(old), b = lines(now);
    auto line = [](const QStringList& l, int32_t i) { return i >= 0 && i < l.size() ? l[i] : QString(); };
    QList<DiffRow> rows = History::diff(old, now);
    int differences = 0;
    for (const DiffRow& r : rows) {
        if (r.op == DiffOp::equal) {
            diffLines.append({QStringLiteral("  ") + line(a, r.aLine), equalColour()});
            continue;
        }
        ++differences;
        if (r.op == DiffOp::change || r.op == DiffOp::del)
            diffLines.append({QStringLiteral("- ") + line(a, r.aLine), deletedColour()});
        if (r.op == DiffOp::change || r.op == DiffOp::add)
            diffLines.append({QStringLiteral("+ ") + line(b, r.bLine), addedColour()});
    }
    status = differences == 0 || rows.isEmpty()
                 ? QStringLiteral("This version is identical to the document on the drive now.")
                 : QStringLiteral("%1 line%2 differ from the document on the drive now.")
                       .arg(differences)
                       .arg(differences == 1 ? "" : "s");
}

void HistoryModel::revert() {
    std::unique_ptr<History> h = root && document && selected ? History::open(*root, *document, nullptr) : nullptr;
    if (!h) return;
    QmError result = h->revert(*selected);
    h.reset();
    status = result == QmError::ok
                 ? QStringLiteral("Restored. Eject the drive before unplugging it.")
                 : QStringLiteral("Could not restore: ") + qmErrorMessage(result);
    loadVersions();
}
