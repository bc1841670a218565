#pragma once

#include <memory>

#include <QDialog>

namespace Ui {
class AboutForm;
}

// The about window: the running version and the maker's legal notice.
// GUI thread only. Loaded once by the tray menu and only re-shown after.
class AboutDialog : public QDialog {
    Q_OBJECT

public:
    explicit AboutDialog(QWidget* parent = nullptr);
    ~AboutDialog() override;

    // Fills the labels; called once, right after the window is first shown.
    void fireItUp();

private:
    std::unique_ptr<Ui::AboutForm> m_ui;
};
