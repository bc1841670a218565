#include "shell/ActivityModel.h"

#include <algorithm>
#include <filesystem>

#include <QDateTime>
#include <QLocale>

namespace {

bool sameRows(const std::vector<Change>& a, const std::vector<Change>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Change& x, const Change& y) {
        return x.id == y.id && x.state == y.state && x.target == y.target && x.keptAs == y.keptAs;
    });
}

} // namespace

bool ActivityModel::setChanges(std::vector<Change> changes)
{
    if (sameRows(changes, m_changes))
        return false;
    beginResetModel();
    m_changes = std::move(changes);
    endResetModel();
    return true;
}

QString ActivityModel::kindText(Change::Kind kind)
{
    switch (kind) {
    case Change::Kind::Connected: return tr("Connected");
    case Change::Kind::Disconnected: return tr("Disconnected");
    case Change::Kind::Downloaded: return tr("Downloaded");
    case Change::Kind::Uploaded: return tr("Uploaded");
    case Change::Kind::Replaced: return tr("Replaced");
    case Change::Kind::CreatedFolder: return tr("Created folder");
    case Change::Kind::DeletedFile: return tr("Deleted file");
    case Change::Kind::DeletedFolder: return tr("Deleted folder");
    case Change::Kind::Renamed: return tr("Renamed");
    }
    return {};
}

bool ActivityModel::removedOrReplaced(const Change& change)
{
    return change.kind == Change::Kind::Replaced || change.kind == Change::Kind::DeletedFile
        || change.kind == Change::Kind::DeletedFolder;
}

QString ActivityModel::keptText(const Change& change)
{
    switch (change.state) {
    case Change::State::Kept: return tr("kept");
    case Change::State::Restored:
        // Beside the original when its place was taken: the name says which.
        return change.target == change.path
            ? tr("restored")
            : tr("restored as %1").arg(QString::fromStdString(std::filesystem::path(change.target).filename().string()));
    case Change::State::Purged: return tr("kept, since purged");
    case Change::State::None: break;
    }
    if (!change.note.empty())
        return tr("not kept: %1").arg(QString::fromStdString(change.note));
    return removedOrReplaced(change) ? tr("not kept") : QString();
}

QString ActivityModel::text(const Change& change, int column) const
{
    switch (column) {
    case Time:
        return QDateTime::fromMSecsSinceEpoch(change.at).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    case Phone: return QString::fromStdString(change.device);
    case What: return kindText(change.kind);
    case Path:
        return change.kind == Change::Kind::Renamed
            ? tr("%1 → %2").arg(QString::fromStdString(change.path), QString::fromStdString(change.target))
            : QString::fromStdString(change.path);
    case Size: return change.size < 0 ? QString() : QLocale().formattedDataSize(change.size);
    case Kept: return keptText(change);
    }
    return {};
}

int ActivityModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_changes.size());
}

int ActivityModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant ActivityModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= rowCount())
        return {};
    const Change& c = change(index.row());
    if (role == Qt::DisplayRole)
        return text(c, index.column());
    if (role == Qt::ToolTipRole && index.column() == Kept && c.state == Change::State::Kept)
        return tr("In the trash as %1").arg(QString::fromStdString(c.keptAs));
    if (role == Qt::ToolTipRole && index.column() == Kept && c.state == Change::State::Restored)
        return tr("Restored to %1").arg(QString::fromStdString(c.target));
    if (role == Qt::ToolTipRole && index.column() == Path)
        return text(c, Path);
    if (role == Qt::TextAlignmentRole && index.column() == Size)
        return QVariant(Qt::AlignRight | Qt::AlignVCenter);
    return {};
}

QVariant ActivityModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    switch (section) {
    case Time: return tr("Time");
    case Phone: return tr("Phone");
    case What: return tr("What");
    case Path: return tr("Path");
    case Size: return tr("Size");
    case Kept: return tr("Kept");
    }
    return {};
}
