#pragma once

#include <QString>
#include <QWidget>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QToolButton;
class Settings;

// The settings window's "Advanced" section: the opt-in switches that narrow
// what phones on the network may do. It sits collapsed below the form and
// opens by itself when a switch is on, so a narrowed server shows it.
// GUI thread only.
class AdvancedSettings : public QWidget {
    Q_OBJECT

public:
    // What the section holds, copied out for the save thread.
    struct Values {
        bool confineToBasePath = false;
        bool strictIdentify = false;
        bool readOnly = false;
        QString listenAddress;
        // "everyone", "ask" or "known".
        QString admission;
    };

    explicit AdvancedSettings(QWidget* parent = nullptr);

    void load(const Settings& settings);
    Values values() const;
    // Empty (every address) or one IPv4 address.
    bool listenAddressIsValid() const;
    static void apply(Settings& settings, const Values& values);

signals:
    // The listen address was edited by the person.
    void textEdited();

private:
    void setExpanded(bool expanded);

    QToolButton* m_toggle = nullptr;
    QWidget* m_body = nullptr;
    QCheckBox* m_confine = nullptr;
    QCheckBox* m_strictIdentify = nullptr;
    QCheckBox* m_readOnly = nullptr;
    QLineEdit* m_listenAddress = nullptr;
    QComboBox* m_admission = nullptr;
};
