#pragma once

#include <cstdint>

#include <QGroupBox>

class QCheckBox;
class QSpinBox;
class Settings;

// The settings window's "Safety" group: whether what phones delete or
// replace is kept in the trash, for how many days and how much of each
// volume, and the way to the activity window. GUI thread only.
class SafetySettings : public QGroupBox {
    Q_OBJECT

public:
    // What the group holds, copied out for the save thread.
    struct Values {
        bool keepDeleted = true;
        bool keepReplaced = true;
        std::int32_t keepDays = 30;
        std::int32_t keepPercent = 10;
    };

    explicit SafetySettings(QWidget* parent = nullptr);

    void load(const Settings& settings);
    Values values() const;
    static void apply(Settings& settings, const Values& values);

signals:
    // The "Activity" button was pressed.
    void activityRequested();

private:
    void updateLimits();

    QCheckBox* m_keepDeleted = nullptr;
    QCheckBox* m_keepReplaced = nullptr;
    QSpinBox* m_days = nullptr;
    QSpinBox* m_percent = nullptr;
};
