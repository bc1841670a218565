#include "shell/AboutDialog.h"

#include "shell/TrayIcon.h"
#include "shell/UpdateCheck.h"
#include "ui_AboutForm.h"

AboutDialog::AboutDialog(QWidget* parent)
    : QDialog(parent)
    , m_ui(std::make_unique<Ui::AboutForm>())
{
    m_ui->setupUi(this);
    m_ui->iconLabel->setPixmap(TrayIcon::pixmap(64, devicePixelRatio()));
}

AboutDialog::~AboutDialog() = default;

void AboutDialog::fireItUp()
{
    const QString notice = tr("© 2012 Orvantics | Zandrel Sync is a trademark of Orvantics | "
                              "Phone platform names are trademarks of their respective owners");
    const QString version = tr("Zandrel Sync Version: ") + UpdateCheck::bundleVersion();
    m_ui->versionLabel->setText(version);
    m_ui->copyrightLabel->setText(notice);
}
