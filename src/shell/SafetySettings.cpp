#include "shell/SafetySettings.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>

#include "settings/Settings.h"

namespace {

// The journal forgets entries after 90 days, and with them what was kept.
constexpr int kMaxDays = 90;

} // namespace

SafetySettings::SafetySettings(QWidget* parent) : QGroupBox(tr("Safety"), parent)
{
    setObjectName("safetySettings");
    m_keepDeleted = new QCheckBox(tr("Keep what phones delete"), this);
    m_keepDeleted->setObjectName("keepDeletedCheckBox");
    m_keepDeleted->setToolTip(tr("Deleted files and folders go to the trash, where they can be restored"));
    m_keepReplaced = new QCheckBox(tr("Keep what uploads replace"), this);
    m_keepReplaced->setObjectName("keepReplacedCheckBox");
    m_keepReplaced->setToolTip(tr("A file an upload overwrites goes to the trash first"));
    m_days = new QSpinBox(this);
    m_days->setObjectName("keepDaysField");
    m_days->setRange(1, kMaxDays);
    m_days->setSuffix(tr(" days"));
    m_percent = new QSpinBox(this);
    m_percent->setObjectName("keepPercentField");
    m_percent->setRange(1, 100);
    m_percent->setSuffix(tr(" % of the disk"));
    m_percent->setToolTip(tr("The oldest kept items go first when they use more of a disk than this"));
    auto* activity = new QPushButton(tr("Activity..."), this);
    activity->setObjectName("activityButton");
    activity->setToolTip(tr("What phones did, and restoring what they deleted or replaced"));

    auto* limits = new QHBoxLayout;
    limits->addWidget(new QLabel(tr("For at most"), this));
    limits->addWidget(m_days);
    limits->addWidget(m_percent);
    limits->addStretch(1);
    limits->addWidget(activity);
    auto* form = new QFormLayout(this);
    form->addRow(m_keepDeleted);
    form->addRow(m_keepReplaced);
    form->addRow(limits);

    connect(m_keepDeleted, &QCheckBox::toggled, this, &SafetySettings::updateLimits);
    connect(m_keepReplaced, &QCheckBox::toggled, this, &SafetySettings::updateLimits);
    connect(activity, &QPushButton::clicked, this, &SafetySettings::activityRequested);
}

void SafetySettings::updateLimits()
{
    const bool keeping = m_keepDeleted->isChecked() || m_keepReplaced->isChecked();
    m_days->setEnabled(keeping);
    m_percent->setEnabled(keeping);
}

void SafetySettings::load(const Settings& settings)
{
    m_keepDeleted->setChecked(settings.getKeepDeleted());
    m_keepReplaced->setChecked(settings.getKeepReplaced());
    m_days->setValue(settings.getKeepDays());
    m_percent->setValue(settings.getKeepPercent());
    updateLimits();
}

SafetySettings::Values SafetySettings::values() const
{
    return {m_keepDeleted->isChecked(), m_keepReplaced->isChecked(), m_days->value(), m_percent->value()};
}

void SafetySettings::apply(Settings& settings, const Values& values)
{
    // Only what differs is set: a key is written to the file once set, and
    // until then follows the defaults.
    if (values.keepDeleted != settings.getKeepDeleted())
        settings.setKeepDeleted(values.keepDeleted);
    if (values.keepReplaced != settings.getKeepReplaced())
        settings.setKeepReplaced(values.keepReplaced);
    if (values.keepDays != settings.getKeepDays())
        settings.setKeepDays(values.keepDays);
    if (values.keepPercent != settings.getKeepPercent())
        settings.setKeepPercent(values.keepPercent);
}
