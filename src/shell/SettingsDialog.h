#pragma once

#include <functional>
#include <memory>

#include <QColor>
#include <QDialog>
#include <QString>

#include "shell/AdvancedSettings.h"
#include "shell/GuiRelay.h"
#include "shell/SafetySettings.h"

class App;
class ProgressView;
class QLineEdit;
class Settings;
class TrayMenu;

namespace Ui {
class MainMenu;
}

// The settings window: shows the host's details, edits port, password and
// the three switches, and on save restarts the server with them. Widgets
// are touched on the GUI thread only; the save runs on a worker thread that
// is handed the form's values and sends the closing back as a queued call.
class SettingsDialog : public QDialog {
    Q_OBJECT

public:
    explicit SettingsDialog(QWidget* parent = nullptr);
    ~SettingsDialog() override;

    // First opening: keeps the core and the tray menu, takes the core's
    // settings as its own, fills the form.
    void addApp(std::shared_ptr<App> app, TrayMenu* trayMenu);
    // Every opening: fills the form from the settings.
    void _updateForm();

    // The progress bar as the core sees it: setProgress may be called on any
    // thread and lands here on the GUI thread without waiting.
    std::shared_ptr<ProgressView> progressView() const;
    void setProgress(int percent);

    // The window's log interface; nothing in the system calls it.
    void logError(const QString& text);
    void logInfo(const QString& text);
    void logMessage(const QString& text);

    // Where the server stands, in the status line under the form: serving
    // on which port and address, or why not. Refreshed while the window is
    // shown; public so the status is current the moment it is asked for.
    void updateStatusLine();
    // On desktops that show no tray icon the window is the whole interface:
    // it offers About, Check For Update and Quit itself, stays open after
    // Save and Cancel, and closing it quits, after asking.
    void setStandalone(bool standalone);
    // Asked before a standalone window's closing quits; true quits. A
    // message box unless a test puts something else.
    void setQuitConfirmation(std::function<bool()> confirm) { m_confirmQuit = std::move(confirm); }
    // The application is quitting: the window closes without asking (a
    // window that refuses to close would cancel the quit).
    void allowClosing() { m_quitting = true; }

    std::shared_ptr<Settings> settings() const { return m_settings; }
    void setSettings(std::shared_ptr<Settings> settings) { m_settings = std::move(settings); }

signals:
    // A standalone window was closed and the person confirmed quitting.
    void quitRequested();

public slots:
    void save();
    void cancel();
    // Escape and the window's close button.
    void reject() override;

private:
    // What the save thread applies, read from the form on the GUI thread.
    struct Form {
        QStringList addresses;
        QString selectedAddress;
        QString port;
        QString password;
        bool toast = false;
        bool trace = false;
        bool startOnLogin = false;
        AdvancedSettings::Values advanced;
        SafetySettings::Values safety;
    };

    void controlTextDidChange(QLineEdit* field);
    void _getAndSetIPAddresses();
    void updateSaveButton();
    void showLoginItemToolTip();
    void makeRoomForWrappedText();
    void _logToScreen(const QString& text, const QColor& colour, int level);
    void scrollToBottom();
    Form readForm() const;
    void closeAfterSave();
    void showSaveHint(bool portOutOfRange);

    static void saveSub(std::shared_ptr<App> app, std::shared_ptr<Settings> settings, Form form,
                        std::shared_ptr<GuiRelay<SettingsDialog>> relay);
    static void _updateSettings(Settings& settings, const Form& form);
    static void enforceLoginChoice(bool startAtLogin);
    static int intValue(const QString& text);

    std::unique_ptr<Ui::MainMenu> m_ui;
    std::shared_ptr<GuiRelay<SettingsDialog>> m_relay;
    std::shared_ptr<App> _app;
    std::shared_ptr<Settings> m_settings;
    TrayMenu* trayMenu = nullptr;
    class QTimer* m_statusTimer = nullptr;
    AdvancedSettings* m_advanced = nullptr;
    SafetySettings* m_safety = nullptr;
    bool m_standalone = false;
    bool m_quitting = false;
    std::function<bool()> m_confirmQuit;
};
