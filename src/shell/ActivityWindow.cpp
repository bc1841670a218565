#include "shell/ActivityWindow.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <set>
#include <utility>

#include <QCheckBox>
#include <QComboBox>
#include <QDateTimeEdit>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTableView>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>

#include "shell/ActivityModel.h"
#include "shell/TrayIcon.h"

namespace {

// How often the shown window looks for new entries; a look at an unchanged
// journal costs two stat calls on the reader's thread.
constexpr int kRefreshMs = 2000;

struct KindGroup {
    const char* name;
    std::vector<Change::Kind> kinds;
};

using K = Change::Kind;
const std::array<KindGroup, 9> kKindGroups{{
    {QT_TRANSLATE_NOOP("ActivityWindow", "Everything"), {}},
    {QT_TRANSLATE_NOOP("ActivityWindow", "Changes to files"),
     {K::Uploaded, K::Replaced, K::CreatedFolder, K::DeletedFile, K::DeletedFolder, K::Renamed}},
    {QT_TRANSLATE_NOOP("ActivityWindow", "Deleted"), {K::DeletedFile, K::DeletedFolder}},
    {QT_TRANSLATE_NOOP("ActivityWindow", "Replaced"), {K::Replaced}},
    {QT_TRANSLATE_NOOP("ActivityWindow", "Uploaded"), {K::Uploaded, K::Replaced}},
    {QT_TRANSLATE_NOOP("ActivityWindow", "Created folders"), {K::CreatedFolder}},
    {QT_TRANSLATE_NOOP("ActivityWindow", "Renamed"), {K::Renamed}},
    {QT_TRANSLATE_NOOP("ActivityWindow", "Downloaded"), {K::Downloaded}},
    {QT_TRANSLATE_NOOP("ActivityWindow", "Phones coming and going"), {K::Connected, K::Disconnected}},
}};

// The minute shown, from its first millisecond or to its last, so that
// "until 13:20" takes in 13:20:59.
std::int64_t minuteStart(const QDateTimeEdit* edit)
{
    QDateTime at = edit->dateTime();
    at.setTime(QTime(at.time().hour(), at.time().minute()));
    return at.toMSecsSinceEpoch();
}

// The folder to show for an entry: the one that holds the item now, or the
// nearest one that still exists above where it was.
std::filesystem::path folderOf(const Change& change)
{
    const bool moved = change.state == Change::State::Restored || change.kind == Change::Kind::Renamed;
    std::filesystem::path folder = std::filesystem::path(moved ? change.target : change.path).parent_path();
    std::error_code ec;
    while (!folder.empty() && !std::filesystem::is_directory(folder, ec) && folder != folder.root_path())
        folder = folder.parent_path();
    return folder;
}

} // namespace

ActivityWindow::ActivityWindow(std::string file, QWidget* parent)
    : QWidget(parent, Qt::Window), m_reader(std::make_unique<ActivityReader>(std::move(file), this))
{
    setObjectName("activityWindow");
    setWindowTitle(tr("Activity"));
    setWindowIcon(TrayIcon::icon());

    m_model = new ActivityModel(this);
    m_table = new QTableView(this);
    m_table->setObjectName("activityTable");
    m_table->setModel(m_model);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_table->setWordWrap(false);
    m_table->verticalHeader()->hide();
    m_table->verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 8);
    m_table->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    m_table->horizontalHeader()->setSectionResizeMode(ActivityModel::Path, QHeaderView::Stretch);
    m_table->setTextElideMode(Qt::ElideMiddle);

    m_summary = new QLabel(this);
    m_summary->setObjectName("activitySummary");
    m_summary->setWordWrap(true);
    m_report = new QPlainTextEdit(this);
    m_report->setObjectName("restoreReport");
    m_report->setReadOnly(true);
    m_report->setMaximumHeight(fontMetrics().lineSpacing() * 6);
    m_report->hide();

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(makeFilters());
    layout->addWidget(m_table, 1);
    layout->addWidget(m_summary);
    layout->addWidget(m_report);
    layout->addWidget(makeButtons());
    resize(900, 520);

    connect(m_table->selectionModel(), &QItemSelectionModel::selectionChanged, this, &ActivityWindow::updateButtons);
    m_timer = new QTimer(this);
    m_timer->setInterval(kRefreshMs);
    connect(m_timer, &QTimer::timeout, this, [this] {
        if (isVisible())
            ask(false);
    });
    m_timer->start();
    updateButtons();
}

ActivityWindow::~ActivityWindow() = default;

QWidget* ActivityWindow::makeFilters()
{
    auto* box = new QWidget(this);
    m_phone = new QComboBox(box);
    m_phone->setObjectName("phoneFilter");
    m_phone->addItem(tr("All phones"));
    m_phone->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    m_kind = new QComboBox(box);
    m_kind->setObjectName("kindFilter");
    for (const KindGroup& group : kKindGroups)
        m_kind->addItem(tr(group.name));

    const QDateTime now = QDateTime::currentDateTime();
    m_sinceOn = new QCheckBox(tr("From"), box);
    m_sinceOn->setObjectName("sinceCheckBox");
    m_since = new QDateTimeEdit(QDateTime(now.date(), QTime(0, 0)), box);
    m_since->setObjectName("sinceField");
    m_untilOn = new QCheckBox(tr("To"), box);
    m_untilOn->setObjectName("untilCheckBox");
    m_until = new QDateTimeEdit(QDateTime(now.date(), QTime(now.time().hour(), now.time().minute())), box);
    m_until->setObjectName("untilField");
    for (QDateTimeEdit* edit : {m_since, m_until}) {
        edit->setDisplayFormat(QStringLiteral("yyyy-MM-dd HH:mm"));
        edit->setCalendarPopup(true);
        edit->setEnabled(false);
        connect(edit, &QDateTimeEdit::dateTimeChanged, this, [this] { ask(false); });
    }
    connect(m_sinceOn, &QCheckBox::toggled, m_since, &QWidget::setEnabled);
    connect(m_untilOn, &QCheckBox::toggled, m_until, &QWidget::setEnabled);
    for (QCheckBox* on : {m_sinceOn, m_untilOn})
        connect(on, &QCheckBox::toggled, this, [this] { ask(false); });
    for (QComboBox* combo : {m_phone, m_kind})
        connect(combo, &QComboBox::currentIndexChanged, this, [this] { ask(false); });

    auto* row = new QHBoxLayout(box);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(new QLabel(tr("Phone:"), box));
    row->addWidget(m_phone);
    row->addWidget(new QLabel(tr("What:"), box));
    row->addWidget(m_kind);
    row->addSpacing(12);
    row->addWidget(m_sinceOn);
    row->addWidget(m_since);
    row->addWidget(m_untilOn);
    row->addWidget(m_until);
    row->addStretch(1);
    return box;
}

QWidget* ActivityWindow::makeButtons()
{
    auto* box = new QWidget(this);
    m_keptLabel = new QLabel(box);
    m_keptLabel->setObjectName("keptBytesLabel");
    m_empty = new QPushButton(tr("Empty Kept Items"), box);
    m_empty->setObjectName("emptyKeptButton");
    m_empty->setToolTip(tr("Removes for good what Zandrel Sync kept in the trash; what you put there stays"));
    m_showInFolder = new QPushButton(tr("Show in Folder"), box);
    m_showInFolder->setObjectName("showInFolderButton");
    m_restore = new QPushButton(tr("Restore"), box);
    m_restore->setObjectName("restoreButton");
    m_restore->setToolTip(tr("Puts the selected kept items back where they were, or beside what stands there now"));
    m_restoreAll = new QPushButton(tr("Restore All Shown"), box);
    m_restoreAll->setObjectName("restoreAllButton");
    m_restoreAll->setToolTip(tr("Puts back every kept item the table shows"));
    connect(m_empty, &QPushButton::clicked, this, &ActivityWindow::emptyKept);
    connect(m_showInFolder, &QPushButton::clicked, this, &ActivityWindow::showInFolder);
    connect(m_restore, &QPushButton::clicked, this, &ActivityWindow::restoreSelected);
    connect(m_restoreAll, &QPushButton::clicked, this, &ActivityWindow::restoreAllShown);

    auto* row = new QHBoxLayout(box);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(m_keptLabel);
    row->addWidget(m_empty);
    row->addStretch(1);
    row->addWidget(m_showInFolder);
    row->addWidget(m_restore);
    row->addWidget(m_restoreAll);
    return box;
}

void ActivityWindow::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    refresh();
}

void ActivityWindow::refresh()
{
    ask(true);
}

ActivityQuery ActivityWindow::query() const
{
    ActivityQuery q;
    if (m_sinceOn->isChecked())
        q.filter.since = minuteStart(m_since);
    if (m_untilOn->isChecked())
        q.filter.until = minuteStart(m_until) + 59999;
    if (m_phone->currentIndex() > 0)
        q.filter.device = m_phone->currentText().toStdString();
    q.kinds = kKindGroups.at(static_cast<std::size_t>(std::max(m_kind->currentIndex(), 0))).kinds;
    return q;
}

void ActivityWindow::ask(bool force)
{
    m_reader->list(query(), force, [this](ActivityListing listing) { display(std::move(listing)); });
}

void ActivityWindow::display(ActivityListing listing)
{
    if (!listing.error.empty()) {
        m_summary->setText(tr("The activity journal cannot be read: %1").arg(QString::fromStdString(listing.error)));
        return;
    }
    showDevices(listing.devices);
    showKept(listing.keptCount, listing.keptBytes);
    const std::vector<std::int64_t> ids = selectedIds();
    const std::set<std::int64_t> selected(ids.begin(), ids.end());
    const std::size_t count = listing.changes.size();
    if (m_model->setChanges(std::move(listing.changes))) {
        // New rows come in at the top; the person's selection stays on its entries.
        QItemSelection selection;
        for (int row = 0; row < m_model->rowCount() && !selected.empty(); ++row)
            if (selected.count(m_model->change(row).id))
                selection.select(m_model->index(row, 0), m_model->index(row, ActivityModel::ColumnCount - 1));
        m_table->selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect);
    }
    m_summary->setText(count == 0 ? tr("Nothing phones did matches.")
                                  : count == 1 ? tr("1 entry") : tr("%1 entries").arg(count));
    updateButtons();
}

void ActivityWindow::showDevices(const std::vector<std::string>& devices)
{
    QStringList wanted;
    for (const std::string& device : devices)
        wanted << QString::fromStdString(device);
    // The chosen phone stays listed while the time range leaves it out.
    const QString chosen = m_phone->currentIndex() > 0 ? m_phone->currentText() : QString();
    if (!chosen.isEmpty() && !wanted.contains(chosen))
        wanted << chosen;
    QStringList shown;
    for (int i = 1; i < m_phone->count(); ++i)
        shown << m_phone->itemText(i);
    if (shown == wanted)
        return;
    const QSignalBlocker quiet(m_phone);
    while (m_phone->count() > 1)
        m_phone->removeItem(1);
    m_phone->addItems(wanted);
    m_phone->setCurrentIndex(chosen.isEmpty() ? 0 : m_phone->findText(chosen));
}

void ActivityWindow::showKept(std::size_t count, std::int64_t bytes)
{
    m_keptCount = count;
    m_keptBytes = bytes;
    m_keptLabel->setText(count > 0 ? tr("Kept items use %1").arg(QLocale().formattedDataSize(bytes))
                                   : tr("Nothing is kept at the moment"));
}

std::vector<int> ActivityWindow::selectedRows() const
{
    std::vector<int> rows;
    for (const QModelIndex& index : m_table->selectionModel()->selectedRows())
        rows.push_back(index.row());
    std::sort(rows.begin(), rows.end());
    return rows;
}

std::vector<std::int64_t> ActivityWindow::selectedIds() const
{
    std::vector<std::int64_t> ids;
    for (int row : selectedRows())
        ids.push_back(m_model->change(row).id);
    return ids;
}

void ActivityWindow::updateButtons()
{
    const std::vector<int> rows = selectedRows();
    bool anyKept = false;
    bool anyShownKept = false;
    for (int row : rows)
        anyKept = anyKept || m_model->change(row).state == Change::State::Kept;
    for (const Change& change : m_model->changes())
        anyShownKept = anyShownKept || change.state == Change::State::Kept;
    const bool hasPath = !rows.empty() && !m_model->change(rows.front()).path.empty();
    m_restore->setEnabled(!m_busy && anyKept);
    m_restoreAll->setEnabled(!m_busy && anyShownKept);
    m_showInFolder->setEnabled(hasPath);
    m_empty->setEnabled(!m_busy && m_keptCount > 0);
}

void ActivityWindow::restoreSelected()
{
    std::vector<std::int64_t> ids;
    // Only what was removed or replaced: the others would only say that
    // nothing was kept.
    for (int row : selectedRows())
        if (ActivityModel::removedOrReplaced(m_model->change(row)))
            ids.push_back(m_model->change(row).id);
    restore(std::move(ids));
}

void ActivityWindow::restoreAllShown()
{
    std::vector<std::int64_t> ids;
    for (const Change& change : m_model->changes())
        if (change.state == Change::State::Kept)
            ids.push_back(change.id);
    restore(std::move(ids));
}

void ActivityWindow::restore(std::vector<std::int64_t> ids)
{
    if (ids.empty() || m_busy)
        return;
    setBusy(true);
    m_reader->restore(std::move(ids), [this](std::vector<RestoreResult> results) {
        setBusy(false);
        report(results);
        refresh();
    });
}

void ActivityWindow::report(const std::vector<RestoreResult>& results)
{
    QStringList lines;
    int restored = 0;
    for (const RestoreResult& result : results) {
        const QString path = result.path.empty() ? QStringLiteral("#%1").arg(result.id) : QString::fromStdString(result.path);
        if (result.restoredTo) {
            ++restored;
            lines << tr("%1: restored to %2").arg(path, QString::fromStdString(*result.restoredTo));
        } else {
            lines << tr("%1: not restored: %2").arg(path, QString::fromStdString(result.why));
        }
    }
    lines.prepend(tr("Restored %1 of %2.").arg(restored).arg(results.size()));
    m_report->setPlainText(lines.join(QLatin1Char('\n')));
    m_report->show();
}

void ActivityWindow::setBusy(bool busy)
{
    m_busy = busy;
    if (busy)
        m_summary->setText(tr("Working..."));
    updateButtons();
}

void ActivityWindow::showInFolder()
{
    const std::vector<int> rows = selectedRows();
    if (rows.empty())
        return;
    const std::filesystem::path folder = folderOf(m_model->change(rows.front()));
    if (!folder.empty())
        QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(folder.string())));
}

void ActivityWindow::emptyKept()
{
    if (m_busy)
        return;
    const QString question = tr("Remove for good everything phones deleted or replaced that Zandrel Sync keeps in the "
                                "trash (%1)? It cannot be restored afterwards. What you put in the trash yourself stays.")
                                 .arg(QLocale().formattedDataSize(m_keptBytes));
    const bool go = m_confirmEmpty
        ? m_confirmEmpty(question)
        : QMessageBox::question(this, tr("Empty Kept Items?"), question) == QMessageBox::Yes;
    if (!go)
        return;
    setBusy(true);
    m_reader->emptyKept([this](int removed) {
        setBusy(false);
        m_report->setPlainText(tr("Kept items removed for good: %1.").arg(removed));
        m_report->show();
        refresh();
    });
}
