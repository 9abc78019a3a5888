// A list model over rows that its owner replaces as a whole. Rows present before and after stay
// the same rows, so a view keeps its selection and scroll position: gone rows are removed, new ones
// inserted, moved ones moved and changed ones reported; only a list from another source (another
// drive, another document) resets the model.
#pragma once
#include <QAbstractListModel>
#include <QList>
#include <QSet>
#include <functional>
#include <type_traits>

template <typename Row>
class SyncedListModel : public QAbstractListModel {
public:
    using QAbstractListModel::QAbstractListModel;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override {
        return parent.isValid() ? 0 : int(rows_.size());
    }
    const QList<Row>& rows() const { return rows_; }

    // Replaces the rows by next, matching rows by keyOf(row) (keys are unique within a list) and
    // comparing matched rows with same(old, new).
    template <typename KeyOf, typename Same = std::equal_to<Row>>
    void sync(const QList<Row>& next, KeyOf keyOf, Same same = {}) {
        using Key = std::decay_t<decltype(keyOf(next.first()))>;
        QSet<Key> nextKeys;
        for (const Row& r : next) nextKeys.insert(keyOf(r));
        removeRowsNotIn(nextKeys, keyOf);
        QSet<Key> kept;
        for (const Row& r : rows_) kept.insert(keyOf(r));
        // Rows before i are in their final order, so a kept row is always found at i or later.
        for (int i = 0; i < next.size();) {
            if (!kept.contains(keyOf(next[i]))) {
                i = insertNewRun(next, i, kept, keyOf);
                continue;
            }
            moveRowTo(i, keyOf(next[i]), keyOf);
            if (!same(rows_[i], next[i])) {
                rows_[i] = next[i];
                emit dataChanged(index(i), index(i));
            }
            ++i;
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

    // Inserts the run of new rows starting at next[from]; returns where the run ends.
    template <typename Key, typename KeyOf>
    int insertNewRun(const QList<Row>& next, int from, const QSet<Key>& kept, KeyOf keyOf) {
        int end = from;
        while (end < next.size() && !kept.contains(keyOf(next[end]))) ++end;
        beginInsertRows(QModelIndex(), from, end - 1);
        for (int k = from; k < end; ++k) rows_.insert(k, next[k]);
        endInsertRows();
        return end;
    }

    template <typename Key, typename KeyOf>
    void moveRowTo(int to, const Key& key, KeyOf keyOf) {
        int at = to;
        while (keyOf(rows_[at]) != key) ++at;
        if (at == to) return;
        beginMoveRows(QModelIndex(), at, at, QModelIndex(), to);
        rows_.move(at, to);
        endMoveRows();
    }

    QList<Row> rows_;
};
