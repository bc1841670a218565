#pragma once

#include <functional>
#include <memory>

#include <QDialog>
#include <QPointer>
#include <QString>

#include "shell/GuiRelay.h"

class QTimer;
class TrayMenu;

namespace Ui {
class UpdateForm;
}

// The update window: 0.7 s after it opens it fetches the update description
// and says whether a newer version is offered; its button downloads the
// package into ~/Downloads, checks its MD5 and hands it to the desktop's
// installer, then quits. Widgets are touched on the GUI thread only; the
// check and the download run on worker threads that reach the window only
// through queued calls (displayStatusBox, showUpdateButton).
class UpdateDialog : public QDialog {
    Q_OBJECT

public:
    using Relay = GuiRelay<UpdateDialog>;

    // How a verified package is opened and the program ended. Process-wide;
    // tests put recorders in their place.
    struct Installer {
        std::function<void(const QString& packagePath)> open;
        std::function<void()> quit;
    };
    static void setInstaller(Installer installer);
    static Installer installer();

    explicit UpdateDialog(QWidget* parent = nullptr);
    ~UpdateDialog() override;

    // GUI thread, right after the window is shown.
    void fireItUp(TrayMenu* trayMenu);

    // The last status text as the checks wrote it, "\r" breaks included;
    // the label shows it with ordinary line breaks.
    QString statusMessage() const { return m_statusMessage; }

    // "~/Downloads/ZandrelSync <version>.pkg", expanded.
    static QString packagePath(const QString& version);

    // Any thread: queue onto the window, without waiting.
    static void displayStatusBox(const std::shared_ptr<Relay>& relay, const QString& text);
    static void displayNoUpdate(const std::shared_ptr<Relay>& relay);
    static void showUpdateButton(const std::shared_ptr<Relay>& relay);

public slots:
    void checkForUpdate();
    void updatePressed();

private:
    void _updatePressed();
    void _showUpdateButton();
    void _displayStatusBox(const QString& text);
    void windowWillClose();

    // Worker threads.
    static void _checkForUpdate(const std::shared_ptr<Relay>& relay);
    static void _downloadUpdate(const std::shared_ptr<Relay>& relay);

    std::unique_ptr<Ui::UpdateForm> m_ui;
    std::shared_ptr<Relay> m_relay;
    QPointer<TrayMenu> mTrayMenu;
    QTimer* _timer = nullptr;
    QString m_statusMessage;
};
