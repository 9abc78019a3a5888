// A list model over rows that its owner replaces as a whole. Rows present before and after keep
// their place, so a view keeps its selection and scroll position: gone rows are removed, new ones
// inserted and changed ones reported; only a list from another source (another drive, another
// document) resets the model.
#pragma once
#include <QAbstractListModel>
#include <QList>
#include <QSet>
#include <type_traits>

template <typename Row>
class SyncedListModel : public QAbstractListModel {
public:
    using QAbstractListModel::QAbstractListModel;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override {
        return parent.isValid() ? 0 : int(rows_.size());
    }
    const QList<Row>& rows() const { return rows_; }

    // Replaces the rows by next, matching rows by keyOf(row). Keys are unique within a list.
    template <typename KeyOf>
    void sync(const QList<Row>& next, KeyOf keyOf) {
        using Key = std::decay_t<decltype(keyOf(next.first()))>;
        QSet<Key> nextKeys;
        for (const Row& r : next) nextKeys.insert(keyOf(r));
        removeRowsNotIn(nextKeys, keyOf);
        QSet<Key> kept;
        for (const Row& r : rows_) kept.insert(keyOf(r));
        if (!keepsOrder(next, kept, keyOf)) return reset(next);
        for (int i = 0; i < next.size();) {
            if (kept.contains(keyOf(next[i]))) {
                if (!(rows_[i] == next[i])) {
                    rows_[i] = next[i];
                    emit dataChanged(index(i), index(i));
                }
                ++i;
                continue;
            }
            int end = i;
            while (end < next.size() && !kept.contains(keyOf(next[end]))) ++end;
            beginInsertRows(QModelIndex(), i, end - 1);
            for (int k = i; k < end; ++k) rows_.insert(k, next[k]);
            endInsertRows();
            i = end;
        }
    }

    // Rows from another source: nothing of the old list stays, not even a selection.
    void reset(const QList<Row>& next) {
        beginResetModel();
        rows_ = next;
        endResetModel();
    }

    // Resets only when the rows differ: a list without keys that is replaced whole or not at all.
    void replace(const QList<Row>& next) {
        if (rows_ != next) reset(next);
    }

protected:
    const Row* rowAt(const QModelIndex& index) const {
        return checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)
                   ? &rows_[index.row()]
                   : nullptr;
    }

private:
    template <typename Key, typename KeyOf>
    void removeRowsNotIn(const QSet<Key>& keys, KeyOf keyOf) {
        for (int last = int(rows_.size()) - 1; last >= 0; --last) {
            if (keys.contains(keyOf(rows_[last]))) continue;
            int first = last;
            while (first > 0 && !keys.contains(keyOf(rows_[first - 1]))) --first;
            beginRemoveRows(QModelIndex(), first, last);
            rows_.remove(first, last - first + 1);
            endRemoveRows();
            last = first;
        }
    }

    // The rows left have the order the same rows have in next.
    template <typename Key, typename KeyOf>
    bool keepsOrder(const QList<Row>& next, const QSet<Key>& kept, KeyOf keyOf) const {
        int i = 0;
        for (const Row& r : next)
            if (kept.contains(keyOf(r)) && keyOf(rows_[i++]) != keyOf(r)) return false;
        return true;
    }

    QList<Row> rows_;
};
