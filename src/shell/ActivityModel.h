#pragma once

#include <cstdint>
#include <vector>

#include <QAbstractTableModel>
#include <QString>

#include "journal/Change.h"

// The activity window's table: one row per journal entry as a person reads
// it (time, phone, what, path, size, kept or not). GUI thread only.
class ActivityModel : public QAbstractTableModel {
    Q_OBJECT

public:
    enum Column { Time, Phone, What, Path, Size, Kept, ColumnCount };

    using QAbstractTableModel::QAbstractTableModel;

    // False when the rows say what they said already (nothing is reset).
    bool setChanges(std::vector<Change> changes);
    const std::vector<Change>& changes() const { return m_changes; }
    const Change& change(int row) const { return m_changes.at(static_cast<std::size_t>(row)); }

    static QString kindText(Change::Kind kind);
    static QString keptText(const Change& change);
    // Whether a restore of the entry can say anything but "nothing was kept".
    static bool removedOrReplaced(const Change& change);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    QString text(const Change& change, int column) const;

    std::vector<Change> m_changes;
};
