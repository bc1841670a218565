#include "shell/AdvancedSettings.h"

#include <algorithm>

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLineEdit>
#include <QToolButton>
#include <QVBoxLayout>

#include "settings/Settings.h"

AdvancedSettings::AdvancedSettings(QWidget* parent) : QWidget(parent)
{
    setObjectName("advancedSettings");
    m_toggle = new QToolButton(this);
    m_toggle->setObjectName("advancedToggle");
    m_toggle->setText(tr("Advanced"));
    m_toggle->setCheckable(true);
    m_toggle->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    m_toggle->setAutoRaise(true);

    m_body = new QWidget(this);
    m_confine = new QCheckBox(tr("Only the base folder"), m_body);
    m_confine->setObjectName("confineCheckBox");
    m_confine->setToolTip(tr("Phones see and change nothing outside the folder they are first shown"));
    m_strictIdentify = new QCheckBox(tr("Password needed to identify"), m_body);
    m_strictIdentify->setObjectName("strictIdentifyCheckBox");
    m_strictIdentify->setToolTip(tr("Without it, asking who this computer is logs a phone in"));
    m_readOnly = new QCheckBox(tr("Read only"), m_body);
    m_readOnly->setObjectName("readOnlyCheckBox");
    m_readOnly->setToolTip(tr("Phones may browse and download, but not upload, create, delete or rename"));
    m_listenAddress = new QLineEdit(m_body);
    m_listenAddress->setObjectName("listenAddressField");
    m_listenAddress->setPlaceholderText(tr("all addresses"));
    m_listenAddress->setToolTip(tr("One IPv4 address of this computer to serve on, or empty for all"));
    m_admission = new QComboBox(m_body);
    m_admission->setObjectName("admissionComboBox");
    m_admission->addItem(tr("Everyone"), QString(Settings::kAdmitEveryone));
    m_admission->addItem(tr("Ask for new phones"), QString(Settings::kAdmitAsk));
    m_admission->addItem(tr("Known phones only"), QString(Settings::kAdmitKnown));
    m_admission->setToolTip(tr("Which phones may connect; blocked phones never may (see Phones in the menu)"));

    auto* form = new QFormLayout(m_body);
    form->setContentsMargins(0, 0, 0, 0);
    form->addRow(m_confine);
    form->addRow(m_strictIdentify);
    form->addRow(m_readOnly);
    form->addRow(tr("Listen on:"), m_listenAddress);
    form->addRow(tr("Who may connect:"), m_admission);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_toggle, 0, Qt::AlignLeft);
    layout->addWidget(m_body);
    setExpanded(false);

    connect(m_toggle, &QToolButton::toggled, this, &AdvancedSettings::setExpanded);
    connect(m_listenAddress, &QLineEdit::textEdited, this, &AdvancedSettings::textEdited);
}

void AdvancedSettings::setExpanded(bool expanded)
{
    m_toggle->setChecked(expanded);
    m_toggle->setArrowType(expanded ? Qt::DownArrow : Qt::RightArrow);
    m_body->setVisible(expanded);
}

void AdvancedSettings::load(const Settings& settings)
{
    m_confine->setChecked(settings.getConfineToBasePath());
    m_strictIdentify->setChecked(settings.getStrictIdentify());
    m_readOnly->setChecked(settings.getReadOnly());
    m_listenAddress->setText(QString::fromStdString(settings.getListenAddress()));
    m_admission->setCurrentIndex(std::max(0, m_admission->findData(QString::fromStdString(settings.getAdmission()))));
    const Values v = values();
    setExpanded(v.confineToBasePath || v.strictIdentify || v.readOnly || !v.listenAddress.isEmpty()
        || v.admission != Settings::kAdmitEveryone);
}

AdvancedSettings::Values AdvancedSettings::values() const
{
    return {m_confine->isChecked(), m_strictIdentify->isChecked(), m_readOnly->isChecked(),
            m_listenAddress->text().trimmed(), m_admission->currentData().toString()};
}

bool AdvancedSettings::listenAddressIsValid() const
{
    const QString text = m_listenAddress->text().trimmed();
    return text.isEmpty() || Settings::isListenAddress(text.toStdString());
}

void AdvancedSettings::apply(Settings& settings, const Values& values)
{
    settings.setConfineToBasePath(values.confineToBasePath);
    settings.setStrictIdentify(values.strictIdentify);
    settings.setReadOnly(values.readOnly);
    settings.setListenAddress(values.listenAddress.toStdString());
    // Only a change is stored: left alone, a file without the key keeps none.
    if (values.admission.toStdString() != settings.getAdmission())
        settings.setAdmission(values.admission.toStdString());
}
