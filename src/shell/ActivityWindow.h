#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <QWidget>

#include "journal/ActivityDatabase.h"
#include "shell/ActivityReader.h"

class ActivityModel;
class QCheckBox;
class QComboBox;
class QDateTimeEdit;
class QLabel;
class QPlainTextEdit;
class QPushButton;
class QTableView;
class QTimer;

// The "Activity" window: what phones did, live while it is shown, filtered
// by phone, kind and time; kept items put back (the selection or all that
// is shown), their folder opened, and all of them emptied for good. The
// journal is read and changed on ActivityReader's thread; the widgets are
// touched on the GUI thread only.
class ActivityWindow : public QWidget {
    Q_OBJECT

public:
    explicit ActivityWindow(std::string file = ActivityDatabase::defaultFile(), QWidget* parent = nullptr);
    ~ActivityWindow() override;

    // Reads the journal again now, whether it changed or not.
    void refresh();
    // Asked before Empty Kept Items removes anything; true goes ahead. A
    // message box unless a test puts something else.
    void setEmptyConfirmation(std::function<bool(const QString&)> confirm) { m_confirmEmpty = std::move(confirm); }

public slots:
    void restoreSelected();
    void restoreAllShown();
    void showInFolder();
    void emptyKept();

protected:
    void showEvent(QShowEvent* event) override;

private:
    QWidget* makeFilters();
    QWidget* makeButtons();
    ActivityQuery query() const;
    void ask(bool force);
    void display(ActivityListing listing);
    void showDevices(const std::vector<std::string>& devices);
    void showKept(std::size_t count, std::int64_t bytes);
    void restore(std::vector<std::int64_t> ids);
    void report(const std::vector<RestoreResult>& results);
    void setBusy(bool busy);
    void updateButtons();
    std::vector<int> selectedRows() const;
    std::vector<std::int64_t> selectedIds() const;

    std::unique_ptr<ActivityReader> m_reader;
    ActivityModel* m_model = nullptr;
    QTableView* m_table = nullptr;
    QComboBox* m_phone = nullptr;
    QComboBox* m_kind = nullptr;
    QCheckBox* m_sinceOn = nullptr;
    QDateTimeEdit* m_since = nullptr;
    QCheckBox* m_untilOn = nullptr;
    QDateTimeEdit* m_until = nullptr;
    QLabel* m_summary = nullptr;
    QPlainTextEdit* m_report = nullptr;
    QLabel* m_keptLabel = nullptr;
    QPushButton* m_restore = nullptr;
    QPushButton* m_restoreAll = nullptr;
    QPushButton* m_showInFolder = nullptr;
    QPushButton* m_empty = nullptr;
    QTimer* m_timer = nullptr;
    std::size_t m_keptCount = 0;
    std::int64_t m_keptBytes = 0;
    bool m_busy = false;
    std::function<bool(const QString&)> m_confirmEmpty;
};
