#pragma once

#include <memory>

#include <QTimer>
#include <QWidget>

class App;
class PhoneRequests;
class QComboBox;
class QLabel;
class QPushButton;
class QTreeWidget;
class Settings;

// The "Phones" window: the phones connected now and what each is doing,
// the requests waiting (admission "ask"), and every known phone with Allow,
// Block, Rename and Forget; and who may connect. Refreshed every second
// while shown. GUI thread only.
class PhonesWindow : public QWidget {
    Q_OBJECT

public:
    PhonesWindow(std::shared_ptr<App> app, PhoneRequests* requests, QWidget* parent = nullptr);

    // Reads the sessions, the requests and the known phones again.
    void refresh();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void fillConnected();
    void fillWaiting();
    void fillKnown();
    void decideSelected(QTreeWidget* list, int standing);
    void renameSelected();
    void forgetSelected();
    void admissionChosen(int index);
    static QString selectedAddress(QTreeWidget* list);

    std::shared_ptr<App> m_app;
    PhoneRequests* m_requests;
    QTimer m_timer;
    QLabel* m_summary = nullptr;
    QComboBox* m_admission = nullptr;
    QTreeWidget* m_connected = nullptr;
    QWidget* m_waitingBox = nullptr;
    QTreeWidget* m_waiting = nullptr;
    QTreeWidget* m_known = nullptr;
};
