// The History tab's model: documents with a history, their versions newest first, a version's
// text or its comparison with the document now, and restoring it. Main thread only.
#pragma once
#include <QColor>
#include <QList>
#include <QObject>
#include <QPair>
#include <optional>

#include "history.h"
#include "volumes.h"

class HistoryModel : public QObject {
    Q_OBJECT
public:
    static const QString kNoDriveStatus;
    static const QString kNoHistoryStatus;
    static QColor equalColour();
    static QColor deletedColour();
    static QColor addedColour();
    // "saved point", "changed elsewhere" or "auto".
    static QString kindLabel(QChar kind);
    // The versions list's row text: when, kind label and tag.
    static QString versionLabel(const DocVersion& v);

    explicit HistoryModel(QObject* parent = nullptr);

    QList<QmVolume> volumes;
    std::optional<QString> root;
    QStringList documents;
    std::optional<QString> document;
    QList<DocVersion> versions;
    std::optional<int32_t> selected;
    QString text;
    QList<QPair<QString, QColor>> diffLines;
    bool showingDiff = false;
    QString status = kNoDriveStatus;
    bool pinned = false;

    void rescan();
    void loadDocuments();
    void loadVersions();
    void show(bool asDiff);
    void revert();
    // Makes one volume the only one and keeps it: Refresh does nothing afterwards.
    void pin(const QmVolume& volume);

signals:
    void changed();

private:
    void fillComparison(const QString& old, const QString& now);
};
