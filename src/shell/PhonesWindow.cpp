#include "shell/PhonesWindow.h"

#include <chrono>

#include <QComboBox>
#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QInputDialog>
#include <QLineEdit>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "server/App.h"
#include "server/DeviceBook.h"
#include "server/SocketListener.h"
#include "settings/Settings.h"
#include "shell/PhoneRequests.h"

namespace {

const char* const kAdmissionRules[] = {Settings::kAdmitEveryone, Settings::kAdmitAsk, Settings::kAdmitKnown};

QString dataSize(std::int64_t bytes)
{
    return QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}

QString when(std::int64_t secondsSince1970)
{
    if (secondsSince1970 <= 0)
        return PhonesWindow::tr("never");
    const QDateTime at = QDateTime::fromSecsSinceEpoch(secondsSince1970);
    // Today's times need no date.
    if (at.date() == QDate::currentDate())
        return QLocale().toString(at.time(), QLocale::ShortFormat);
    return QLocale().toString(at, QLocale::ShortFormat);
}

QTreeWidget* makeList(QWidget* parent, const char* name, const QStringList& columns)
{
    auto* list = new QTreeWidget(parent);
    list->setObjectName(name);
    list->setHeaderLabels(columns);
    list->setRootIsDecorated(false);
    list->setAlternatingRowColors(true);
    list->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    return list;
}

QLabel* heading(const QString& text, QWidget* parent)
{
    auto* label = new QLabel(QStringLiteral("<b>%1</b>").arg(text.toHtmlEscaped()), parent);
    return label;
}

QPushButton* button(const QString& text, const char* name, QWidget* parent)
{
    auto* b = new QPushButton(text, parent);
    b->setObjectName(name);
    return b;
}

} // namespace

PhonesWindow::PhonesWindow(std::shared_ptr<App> app, PhoneRequests* requests, QWidget* parent)
    : QWidget(parent), m_app(std::move(app)), m_requests(requests)
{
    setObjectName("phonesWindow");
    setWindowTitle(tr("Phones"));
    m_summary = new QLabel(this);
    m_summary->setObjectName("phonesSummary");
    m_admission = new QComboBox(this);
    m_admission->setObjectName("admissionChoice");
    m_admission->addItems({tr("Everyone"), tr("Ask for new phones"), tr("Known phones only")});
    m_admission->setToolTip(tr("Blocked phones are kept out whatever this says"));

    m_connected = makeList(
        this, "connectedList", {tr("Phone"), tr("Since"), tr("Doing"), tr("File"), tr("Progress"), tr("Moved")});
    m_waitingBox = new QWidget(this);
    m_waiting = makeList(m_waitingBox, "waitingList", {tr("Phone"), tr("Name")});
    m_waiting->setMaximumHeight(m_waiting->fontMetrics().height() * 6);
    m_known = makeList(this, "knownList",
        {tr("Phone"), tr("Name"), tr("Standing"), tr("Hardware address"), tr("Last seen"), tr("Sessions"),
            tr("Sent"), tr("Received")});

    auto* waitingButtons = new QHBoxLayout;
    auto* allowWaiting = button(tr("Allow"), "allowWaitingButton", m_waitingBox);
    auto* blockWaiting = button(tr("Block"), "blockWaitingButton", m_waitingBox);
    waitingButtons->addStretch();
    waitingButtons->addWidget(allowWaiting);
    waitingButtons->addWidget(blockWaiting);
    auto* waitingLayout = new QVBoxLayout(m_waitingBox);
    waitingLayout->setContentsMargins(0, 0, 0, 0);
    waitingLayout->addWidget(heading(tr("Waiting for your answer"), m_waitingBox));
    waitingLayout->addWidget(m_waiting);
    waitingLayout->addLayout(waitingButtons);

    auto* knownButtons = new QHBoxLayout;
    auto* allow = button(tr("Allow"), "allowButton", this);
    auto* block = button(tr("Block"), "blockButton", this);
    auto* rename = button(tr("Rename…"), "renameButton", this);
    auto* forget = button(tr("Forget"), "forgetButton", this);
    knownButtons->addStretch();
    for (auto* b : {allow, block, rename, forget})
        knownButtons->addWidget(b);

    auto* top = new QHBoxLayout;
    top->addWidget(m_summary, 1);
    top->addWidget(new QLabel(tr("Who may connect:"), this));
    top->addWidget(m_admission);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(heading(tr("Connected now"), this));
    layout->addWidget(m_connected, 1);
    layout->addWidget(m_waitingBox);
    layout->addWidget(heading(tr("Known phones"), this));
    layout->addWidget(m_known, 2);
    layout->addLayout(knownButtons);
    resize(760, 520);

    using Standing = Doorkeeper::Standing;
    connect(allowWaiting, &QPushButton::clicked, this, [this] { decideSelected(m_waiting, int(Standing::Allowed)); });
    connect(blockWaiting, &QPushButton::clicked, this, [this] { decideSelected(m_waiting, int(Standing::Blocked)); });
    connect(allow, &QPushButton::clicked, this, [this] { decideSelected(m_known, int(Standing::Allowed)); });
    connect(block, &QPushButton::clicked, this, [this] { decideSelected(m_known, int(Standing::Blocked)); });
    connect(rename, &QPushButton::clicked, this, &PhonesWindow::renameSelected);
    connect(forget, &QPushButton::clicked, this, &PhonesWindow::forgetSelected);
    connect(m_admission, &QComboBox::activated, this, &PhonesWindow::admissionChosen);
    connect(m_requests, &PhoneRequests::changed, this, &PhonesWindow::refresh);
    connect(&m_timer, &QTimer::timeout, this, &PhonesWindow::refresh);
    m_timer.setInterval(1000);
    refresh();
}

void PhonesWindow::showEvent(QShowEvent* event)
{
    refresh();
    m_timer.start();
    QWidget::showEvent(event);
}

void PhonesWindow::hideEvent(QHideEvent* event)
{
    m_timer.stop();
    QWidget::hideEvent(event);
}

void PhonesWindow::refresh()
{
    const std::string rule = m_app->settings()->getAdmission();
    for (int i = 0; i < 3; ++i)
        if (rule == kAdmissionRules[i])
            m_admission->setCurrentIndex(i);
    fillConnected();
    fillWaiting();
    fillKnown();
}

void PhonesWindow::fillConnected()
{
    auto listener = m_app->listener();
    const auto sessions = listener ? listener->statuses() : std::vector<SessionStatus>{};
    m_summary->setText(sessions.empty()       ? tr("No phone connected")
            : sessions.size() == 1 ? tr("1 phone connected")
                                   : tr("%1 phones connected").arg(sessions.size()));
    m_connected->clear();
    for (const auto& s : sessions) {
        QString doing = s.heldOut ? tr("held out") : QString::fromStdString(SessionWork::commandName(s.command));
        if (doing.isEmpty())
            doing = tr("idle");
        const QString file = QString::fromStdString(s.file);
        const QString progress = file.isEmpty() ? QString()
                                                : tr("%1 of %2 (%3%)")
                                                      .arg(dataSize(s.done), dataSize(s.total))
                                                      .arg(s.total > 0 ? s.done * 100 / s.total : 100);
        const auto since = std::chrono::duration_cast<std::chrono::seconds>(s.since.time_since_epoch()).count();
        auto* item = new QTreeWidgetItem(m_connected,
            {QString::fromStdString(s.peer.text()), when(since), doing, file.section(QLatin1Char('/'), -1), progress,
                tr("%1 to it, %2 from it").arg(dataSize(s.sent), dataSize(s.received))});
        item->setToolTip(3, file);
        item->setData(0, Qt::UserRole, QString::fromStdString(s.peer.address));
    }
}

void PhonesWindow::fillWaiting()
{
    const QStringList waiting = m_requests->waiting();
    const QString selected = selectedAddress(m_waiting);
    m_waiting->clear();
    auto book = m_requests->doorkeeper()->book();
    for (const auto& address : waiting) {
        auto device = book ? book->find(address.toStdString()) : std::nullopt;
        auto* item = new QTreeWidgetItem(m_waiting, {address, device ? QString::fromStdString(device->name) : ""});
        item->setData(0, Qt::UserRole, address);
        if (address == selected || !m_waiting->currentItem())
            m_waiting->setCurrentItem(item);
    }
    m_waitingBox->setVisible(!waiting.isEmpty());
}

void PhonesWindow::fillKnown()
{
    const QString selected = selectedAddress(m_known);
    m_known->clear();
    auto book = m_requests->doorkeeper()->book();
    if (!book)
        return;
    for (const auto& d : book->all()) {
        const QString address = QString::fromStdString(d.address);
        auto* item = new QTreeWidgetItem(m_known,
            {address, QString::fromStdString(d.name), QString::fromStdString(DeviceBook::standingName(d.standing)),
                QString::fromStdString(d.hardware), when(d.lastSeen), QString::number(d.sessions), dataSize(d.bytesSent),
                dataSize(d.bytesReceived)});
        item->setData(0, Qt::UserRole, address);
        if (address == selected)
            m_known->setCurrentItem(item);
    }
}

QString PhonesWindow::selectedAddress(QTreeWidget* list)
{
    auto* item = list->currentItem();
    return item ? item->data(0, Qt::UserRole).toString() : QString();
}

void PhonesWindow::decideSelected(QTreeWidget* list, int standing)
{
    const QString address = selectedAddress(list);
    if (!address.isEmpty())
        m_requests->setStanding(address, static_cast<Doorkeeper::Standing>(standing));
}

void PhonesWindow::renameSelected()
{
    const QString address = selectedAddress(m_known);
    if (address.isEmpty())
        return;
    bool ok = false;
    const QString name = QInputDialog::getText(this, tr("Rename Phone"), tr("Name for the phone at %1:").arg(address),
        QLineEdit::Normal, m_known->currentItem()->text(1), &ok);
    if (ok)
        m_requests->rename(address, name.trimmed());
}

void PhonesWindow::forgetSelected()
{
    const QString address = selectedAddress(m_known);
    if (!address.isEmpty())
        m_requests->forget(address);
}

void PhonesWindow::admissionChosen(int index)
{
    auto settings = m_app->settings();
    if (index < 0 || index > 2 || settings->getAdmission() == kAdmissionRules[index])
        return;
    // In force from every phone's next command; no restart needed.
    settings->setAdmission(kAdmissionRules[index]);
    settings->writePreferences();
}
