// The History tab's lists as item models: the documents, the versions and the lines of a
// comparison. The history model fills them; views only read them.
#pragma once
#include <QColor>

#include "history.h"
#include "synced_list_model.h"

// One line of a comparison as shown: a changed row becomes a deleted and an added line.
struct DiffLine {
    QString text;
    DiffOp op = DiffOp::equal;  // equal, del or add
    bool operator==(const DiffLine&) const = default;
};

class DocumentList : public SyncedListModel<QString> {
public:
    using SyncedListModel::SyncedListModel;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
};

class VersionList : public SyncedListModel<DocVersion> {
public:
    enum Role { IdRole = Qt::UserRole + 1, WhenRole, KindRole, TagRole };
    using SyncedListModel::SyncedListModel;
    // "saved point", "changed elsewhere" or "auto".
    static QString kindLabel(QChar kind);
    // A row's text: number (as tags such as "reverted to version 4" name it), when, kind label and tag.
    static QString label(const DocVersion& v);
    // The row of the version with that id, or -1.
    int rowOf(int32_t id) const;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
};

class DiffLineList : public SyncedListModel<DiffLine> {
public:
    enum Role { OpRole = Qt::UserRole + 1 };
    using SyncedListModel::SyncedListModel;
    // The colour a comparison line is drawn in.
    static QColor colourOf(DiffOp op);
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
};
