#include <filesystem>
#include <memory>
#include <thread>

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>
#include <QTest>
#include <QTextEdit>
#include <QToolButton>
#include <gtest/gtest.h>

#include "ShellTestSupport.h"
#include "support/TestSupport.h"
#include "server/App.h"
#include "bridge/UIBridge.h"
#include "settings/HostInfo.h"
#include "settings/Settings.h"
#include "shell/BackgroundJobs.h"
#include "shell/SettingsDialog.h"

namespace fs = std::filesystem;

namespace {

class SettingsDialogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_settings = std::make_shared<Settings>();
        m_settings->setPort(freePort());
        m_app = std::make_shared<App>(m_settings);
        m_app->setDiscoveryEnabled(false);
        m_app->start();
        ASSERT_TRUE(m_app->waitUntilRunning(std::chrono::seconds(5)).has_value());
        m_dialog = std::make_unique<SettingsDialog>();
        m_app->addSettingsDialog(m_dialog->progressView());
        m_dialog->show();
        m_dialog->addApp(m_app, nullptr);
    }

    void TearDown() override
    {
        BackgroundJobs::stopAll();
        m_dialog.reset();
        m_app->stop();
    }

    template <class T>
    T* control(const char* name) const
    {
        T* widget = m_dialog->findChild<T*>(name);
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }
    QLineEdit* port() const { return control<QLineEdit>("portField"); }
    QLineEdit* password() const { return control<QLineEdit>("passwordField"); }
    QPushButton* saveButton() const { return control<QPushButton>("saveButton"); }

    // Replaces a field's text the way a person does, key by key.
    static void type(QLineEdit* field, const QString& text)
    {
        field->selectAll();
        QTest::keyClick(field, Qt::Key_Backspace);
        QTest::keyClicks(field, text);
    }

    // Presses Save and waits for the window to close.
    void save()
    {
        QTest::mouseClick(saveButton(), Qt::LeftButton);
        ASSERT_TRUE(waitUntil([&] { return !m_dialog->isVisible(); }, std::chrono::seconds(10)));
    }

    TempHome m_home;
    CapturedLog m_log;
    std::shared_ptr<Settings> m_settings;
    std::shared_ptr<App> m_app;
    std::unique_ptr<SettingsDialog> m_dialog;
};

TEST_F(SettingsDialogTest, SaveNeedsAPortFrom1024To65535AndSaysSoButNotAPassword)
{
    auto* hint = control<QLabel>("saveHint");
    EXPECT_TRUE(saveButton()->isEnabled());
    EXPECT_TRUE(hint->text().isEmpty());
    // The port field drops what is not a digit, where it is typed.
    type(port(), "35a0b0");
    EXPECT_EQ(port()->text(), "3500");
    port()->setCursorPosition(1);
    QTest::keyClicks(port(), "x");
    EXPECT_EQ(port()->text(), "3500");
    EXPECT_EQ(port()->cursorPosition(), 1);

    for (const char* text : {"1023", "65536", "0", "99999999999"}) {
        type(port(), text);
        EXPECT_FALSE(saveButton()->isEnabled()) << text;
        EXPECT_EQ(hint->text(), "Enter a port from 1024 to 65535 to save") << text;
    }
    for (auto [text, password] : {std::pair{"1024", "secret"}, {"65535", "secret"}, {"1024", ""}, {"65535", ""}}) {
        type(this->password(), password);
        type(port(), text);
        EXPECT_TRUE(saveButton()->isEnabled()) << text << " with password '" << password << "'";
        EXPECT_TRUE(hint->text().isEmpty()) << text;
    }
    m_dialog->_updateForm();
    EXPECT_TRUE(hint->text().isEmpty()) << "a refilled form starts without a hint";
}

TEST_F(SettingsDialogTest, SaveRestartsTheServerOnTheNewPortAndAnEmptyPasswordFieldKeepsTheHash)
{
    const std::string before = m_settings->getHashedPassword();
    const fs::path entry = Settings::autostartEntryPath();
    ASSERT_TRUE(fs::exists(entry));
    const std::uint16_t newPort = freePort();
    type(port(), QString::number(newPort)); // a port-only edit
    control<QCheckBox>("startOnLoginCheckbox")->setChecked(false);
    EXPECT_TRUE(fs::exists(entry)) << "nothing changes before Save";
    save();
    EXPECT_EQ(saveButton()->text(), "Saving...");
    EXPECT_FALSE(saveButton()->isEnabled());
    EXPECT_FALSE(control<QPushButton>("cancelButton")->isEnabled());
    ASSERT_EQ(m_app->waitUntilRunning(std::chrono::seconds(5)), newPort);
    EXPECT_FALSE(fs::exists(entry)) << "unticked: the login item goes";
    Settings stored(Settings::NoLoginItems{});
    EXPECT_EQ(stored.getPort(), newPort);
    EXPECT_EQ(stored.getHashedPassword(), before);
    EXPECT_FALSE(stored.getStartOnLogin());

    m_dialog->_updateForm();
    EXPECT_EQ(saveButton()->text(), "Save");
    EXPECT_TRUE(saveButton()->isEnabled());
    type(password(), "secret");
    QTest::mouseClick(saveButton(), Qt::LeftButton); // the window is hidden already
    EXPECT_TRUE(waitUntil([] { return Settings(Settings::NoLoginItems{}).getHashedPassword()
                                   == Settings::hashPasswordWithSalt("secret"); }));
}

TEST_F(SettingsDialogTest, AdvancedAndSafetySettingsAreSavedAndABadListenAddressKeepsSaveDisabled)
{
    auto* address = control<QLineEdit>("listenAddressField");
    EXPECT_FALSE(address->isVisible()) << "collapsed while every switch is off";
    QTest::mouseClick(control<QToolButton>("advancedToggle"), Qt::LeftButton);
    EXPECT_TRUE(address->isVisible());
    type(password(), "secret");
    type(address, "127.0.0.300");
    EXPECT_FALSE(saveButton()->isEnabled());
    type(address, "127.0.0.1");
    EXPECT_TRUE(saveButton()->isEnabled());
    control<QCheckBox>("readOnlyCheckBox")->setChecked(true);
    control<QCheckBox>("keepDeletedCheckBox")->setChecked(false);
    control<QSpinBox>("keepDaysField")->setValue(7);
    control<QComboBox>("admissionComboBox")->setCurrentIndex(2);
    save();

    ASSERT_TRUE(m_app->waitUntilRunning(std::chrono::seconds(5)).value_or(0) != 0);
    Settings stored(Settings::NoLoginItems{});
    EXPECT_TRUE(stored.getReadOnly());
    EXPECT_FALSE(stored.getStrictIdentify());
    EXPECT_EQ(stored.getListenAddress(), "127.0.0.1");
    EXPECT_FALSE(stored.getKeepDeleted());
    EXPECT_EQ(stored.getKeepDays(), 7);
    // What was left alone is not written, so it keeps following the defaults.
    const std::string file = readFile(Settings::preferencesPath());
    EXPECT_EQ(file.find("keepReplaced"), std::string::npos);
    EXPECT_EQ(file.find("keepPercent"), std::string::npos);
    EXPECT_EQ(stored.getAdmission(), "known");
    m_dialog->hide();
    m_dialog->show();
    m_dialog->_updateForm();
    EXPECT_TRUE(address->isVisible()) << "open by itself while a switch is on";
}

TEST_F(SettingsDialogTest, ProgressArrivesFromAnyThreadAndTheLogViewStaysEmpty)
{
    std::thread session([bridge = m_app->uiBridge()] { bridge->setProgress(3, 4); });
    session.join();
    auto* bar = control<QProgressBar>("progressBar");
    EXPECT_TRUE(waitUntil([&] { return bar->value() == 75; }));

    m_dialog->logError("error line");
    m_dialog->logInfo("info line");
    m_dialog->logMessage("message line");
    save();
    EXPECT_TRUE(control<QTextEdit>("logView")->toPlainText().isEmpty());
}

TEST_F(SettingsDialogTest, HostDetailsAreShownAsWrittenAndStartAtLoginSaysWhatItNames)
{
    HostInfo::setMachineInfoPath(m_home.write("machine-info", "PRETTY_HOSTNAME=\"<b>Office</b>\"\n").string());
    m_dialog->_updateForm();
    HostInfo::setMachineInfoPath("/etc/machine-info");
    // What a person can select is what is shown.
    auto* host = control<QLabel>("hostnameField");
    host->setSelection(0, static_cast<int>(host->text().size()));
    EXPECT_EQ(host->selectedText(), "<b>Office</b>");
    // The product's name, while phones keep receiving the version label.
    EXPECT_EQ(control<QLabel>("versionField")->text(), "Zandrel Sync " ZANDREL_VERSION);
    EXPECT_EQ(m_settings->getIdentifier().rfind("ZandrelSync4Mac " ZANDREL_VERSION ":", 0), 0u);
    auto* box = control<QCheckBox>("startOnLoginCheckbox");
    EXPECT_EQ(box->toolTip(), "Starts /usr/bin/ZandrelSync when you log in");
    HostInfo::setProgramPath(""); // this test program, run from the build folder
    m_dialog->_updateForm();
    HostInfo::setProgramPath("/usr/bin/ZandrelSync");
    EXPECT_TRUE(box->toolTip().startsWith("This copy runs from the build folder /")) << box->toolTip().toStdString();
}

TEST_F(SettingsDialogTest, ChosenAddressBecomesTheLastIPAndIsListedFirstNextTime)
{
    auto* popup = control<QComboBox>("addressesPopup");
    if (popup->count() < 2)
        GTEST_SKIP() << "needs two IPv4 addresses: run inside a private network namespace";
    EXPECT_EQ(popup->currentIndex(), 0);
    EXPECT_EQ(control<QLabel>("statusLine")->text(),
              QStringLiteral("Serving on port %1 at %2").arg(m_settings->getPort()).arg(popup->itemText(0)));
    const QString second = popup->itemText(1);
    popup->setCurrentIndex(1);
    save();
    EXPECT_EQ(m_settings->getLastIP(), second.toStdString());
    EXPECT_EQ(Settings(Settings::NoLoginItems{}).getLastIP(), second.toStdString());

    m_dialog->_updateForm();
    EXPECT_EQ(popup->itemText(0), second);
    EXPECT_EQ(popup->currentIndex(), 0);
}

} // namespace
