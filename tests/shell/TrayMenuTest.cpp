#include <algorithm>
#include <memory>
#include <atomic>

#include <QAction>
#include <QCoreApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPointer>
#include <QPushButton>
#include <QTcpServer>
#include <QTreeWidget>
#include <QSystemTrayIcon>
#include <QTest>
#include <gtest/gtest.h>

#include "ShellTestSupport.h"
#include "support/TestSupport.h"
#include "server/App.h"
#include "settings/Settings.h"
#include "client/SyncClient.h"
#include "shell/AboutDialog.h"
#include "shell/ActivityWindow.h"
#include "shell/PhonesWindow.h"
#include "wire/BitHelper.h"
#include "wire/StreamIO.h"
#include "shell/BackgroundJobs.h"
#include "shell/SettingsDialog.h"
#include "shell/TrayMenu.h"
#include "shell/UpdateCheck.h"
#include "shell/UpdateDialog.h"

namespace {

class TrayMenuTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        UpdateCheck::setUpdateInfoURL(unansweredURL());
        Settings settings(Settings::NoLoginItems{});
        settings.setPort(freePort());
        settings.writePreferences();
        m_tray = std::make_unique<TrayMenu>(m_notifier);
        m_tray->applicationDidFinishLaunching();
    }

    void TearDown() override { m_tray.reset(); }

    TempHome m_home;
    CapturedLog m_log;
    std::shared_ptr<RecordingNotifier> m_notifier = std::make_shared<RecordingNotifier>();
    std::unique_ptr<TrayMenu> m_tray;
};

TEST_F(TrayMenuTest, MenuHasItsEntriesWithTheToolTipsAndActivityOpensFromItAndTheSettings)
{
    QStringList entries;
    for (QAction* action : m_tray->menu()->actions())
        entries << (action->isSeparator() ? "-" : action->text());
    EXPECT_EQ(entries, (QStringList{"Open Settings", "Activity", "Phones", "Check For Update", "About", "-", "Quit"}));
    EXPECT_EQ(m_tray->menu()->actions().back()->toolTip(), "Click to Quit this App");
    EXPECT_TRUE(m_tray->menu()->toolTipsVisible());
    ASSERT_TRUE(m_tray->app()->waitUntilRunning(std::chrono::seconds(5)).value_or(0) > 0);
    m_tray->updateToolTip();
    EXPECT_EQ(m_tray->statusItem()->toolTip(), "Serving — no phone connected");
    EXPECT_EQ(m_tray->statusItem()->contextMenu(), m_tray->menu());

    m_tray->menu()->actions().at(1)->trigger();
    QWidget* activity = m_tray->activityWindow();
    ASSERT_NE(activity, nullptr);
    EXPECT_TRUE(activity->isVisible());
    activity->hide();
    m_tray->openSettings();
    QTest::mouseClick(m_tray->settingsWindow()->findChild<QPushButton*>("activityButton"), Qt::LeftButton);
    EXPECT_EQ(m_tray->activityWindow(), activity) << "one window, shown again";
    EXPECT_TRUE(activity->isVisible());
}

TEST_F(TrayMenuTest, LaunchStartsTheServerAndWithoutATrayShowsTheSettings)
{
    ASSERT_TRUE(m_tray->app()->waitUntilRunning(std::chrono::seconds(5)).value_or(0) > 0);
    if (QSystemTrayIcon::isSystemTrayAvailable())
        GTEST_SKIP() << "this platform has a system tray";
    SettingsDialog* window = m_tray->settingsWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(window->isVisible());
    EXPECT_TRUE(m_log.contains("No system tray available; showing the settings window instead"));
    EXPECT_TRUE(m_tray->statusItem()->isVisible()) << "ready for a tray that comes up later";
    // Opened again, the one window comes back.
    window->hide();
    m_tray->openSettings();
    EXPECT_EQ(m_tray->settingsWindow(), window);
    EXPECT_TRUE(window->isVisible());
    EXPECT_NE(m_tray->app()->settingsDialog(), nullptr);

    // Without a tray the window itself offers the menu's other entries; there
    // is one about window.
    ASSERT_TRUE(window->findChild<QWidget*>("appButtons")->isVisible());
    auto* aboutButton = window->findChild<QPushButton*>("aboutButton");
    aboutButton->click();
    AboutDialog* about = m_tray->aboutWindow();
    ASSERT_NE(about, nullptr);
    EXPECT_EQ(about->findChild<QLabel*>("versionLabel")->text(), "Zandrel Sync Version: 1.5.0");
    EXPECT_FALSE(about->findChild<QLabel*>("copyrightLabel")->text().isEmpty());
    about->close();
    aboutButton->click();
    EXPECT_EQ(m_tray->aboutWindow(), about);
    EXPECT_TRUE(about->isVisible());
    window->findChild<QPushButton*>("checkForUpdateButton")->click();
    EXPECT_TRUE(waitUntil([&] { return m_tray->updateWindow() != nullptr; }));

    // Save and Cancel leave the only window open; closing it quits, after asking.
    auto* port = window->findChild<QLineEdit*>("portField");
    port->setText("4000");
    window->findChild<QPushButton*>("cancelButton")->click();
    EXPECT_EQ(port->text(), QString::number(m_tray->app()->settings()->getPort())) << "edits dropped";
    auto* save = window->findChild<QPushButton*>("saveButton");
    save->click();
    ASSERT_TRUE(waitUntil([&] { return save->text() == "Save"; }, std::chrono::seconds(10))) << "refilled";
    int quits = 0;
    QObject::connect(window, &SettingsDialog::quitRequested, [&] { ++quits; });
    for (bool answer : {false, true}) {
        window->setQuitConfirmation([answer] { return answer; });
        EXPECT_FALSE(window->close()) << "still open while it asks, and after a no";
        EXPECT_EQ(quits, answer ? 1 : 0);
    }
    EXPECT_TRUE(window->isVisible()) << "after Cancel, Save and closing";
}

TEST_F(TrayMenuTest, AnUnreadableSettingsFileIsNamedInOneNotice)
{
    m_home.write("Library/Preferences/com.orvantics.ZandrelSync.plist", "<plist><dict><key>port</key>");
    m_tray = std::make_unique<TrayMenu>(m_notifier);
    m_tray->applicationDidFinishLaunching();
    const RecordingNotifier::Notice unread{"Zandrel Sync Settings Not Read", "The settings file "
        + Settings::preferencesPath() + " could not be read (malformed XML property list). The default settings are "
        "in use; saving the settings window replaces the file with them.", "SETTINGSERROR"};
    const auto notices = m_notifier->notices();
    EXPECT_EQ(std::count(notices.begin(), notices.end(), unread), 1);
}

TEST_F(TrayMenuTest, APortInUseIsNotifiedAndShownInTheStatusLine)
{
    QTcpServer other;
    ASSERT_TRUE(other.listen(QHostAddress::AnyIPv4, freePort()));
    auto app = m_tray->app();
    ASSERT_TRUE(app->waitUntilRunning(std::chrono::seconds(5)).value_or(0) > 0);
    // As a save does: stop, the new port, start.
    app->stop();
    app->settings()->setPort(other.serverPort());
    app->start();
    m_tray->watchServer();
    ASSERT_TRUE(waitUntil([&] { return !m_notifier->notices().empty(); }));
    const auto notice = m_notifier->notices().back();
    EXPECT_EQ(notice.name, "SERVERERROR");
    EXPECT_EQ(notice.title, "Zandrel Sync Is Not Serving");
    const std::string inUse = "Port " + std::to_string(other.serverPort()) + " is used by another program";
    EXPECT_EQ(notice.description.rfind(inUse, 0), 0u) << notice.description;

    m_tray->openSettings();
    auto* status = m_tray->settingsWindow()->findChild<QLabel*>("statusLine");
    EXPECT_TRUE(status->text().startsWith(QString::fromStdString(inUse)));
    QCoreApplication::processEvents(); // the text wraps: the window makes room, not laying it over the log box
    EXPECT_LT(m_tray->settingsWindow()->findChild<QWidget*>("logView")->geometry().bottom(), status->geometry().top());
    m_tray->updateToolTip();
    EXPECT_EQ(m_tray->statusItem()->toolTip(),
        QString("Not serving — port %1 is used by another program").arg(other.serverPort()));
}

// Under "ask" a phone held out becomes a request; with no notification
// service the Phones window opens with it. Allowed there, its next command
// is served; blocked among the known phones, its session ends.
TEST_F(TrayMenuTest, AskedPhonesWaitInThePhonesWindowUntilAllowedOrBlocked)
{
    const auto port = m_tray->app()->waitUntilRunning(std::chrono::seconds(5)).value_or(0);
    ASSERT_GT(port, 0);
    m_tray->app()->settings()->setAdmission("ask");
    SyncClient c;
    c.connect("127.0.0.1", port);
    c.sendCommandWithPassword(14, "");
    Bytes refused = StreamIO::dataPacket(16, {});
    refused += StreamIO::dataPacket(16, {});
    EXPECT_EQ(c.readExact(36), refused);
    ASSERT_TRUE(waitUntil([&] { return m_tray->phonesWindow() && m_tray->phonesWindow()->isVisible(); }));
    PhonesWindow* window = m_tray->phonesWindow();
    auto* waiting = window->findChild<QTreeWidget*>("waitingList");
    ASSERT_TRUE(waitUntil([&] { return waiting->topLevelItemCount() == 1; }));
    EXPECT_EQ(waiting->topLevelItem(0)->text(0), "127.0.0.1");
    m_tray->updateToolTip();
    EXPECT_EQ(m_tray->statusItem()->toolTip(), "Serving — 1 phone connected");

    window->findChild<QPushButton*>("allowWaitingButton")->click();
    c.sendCommandWithPassword(17, "");
    EXPECT_EQ(c.readExact(18), StreamIO::dataPacket(16, {})) << "a wrong password is still one";
    EXPECT_EQ(c.readExact(19), StreamIO::dataPacket(17, BitHelper::encodeBool(true)));
    window->refresh();
    EXPECT_FALSE(waiting->isVisible());
    EXPECT_EQ(window->findChild<QTreeWidget*>("connectedList")->topLevelItemCount(), 1);
    auto* known = window->findChild<QTreeWidget*>("knownList");
    ASSERT_EQ(known->topLevelItemCount(), 1);
    EXPECT_EQ(known->topLevelItem(0)->text(2), "allowed");
    known->setCurrentItem(known->topLevelItem(0));
    window->findChild<QPushButton*>("blockButton")->click();
    EXPECT_TRUE(c.waitForClose(std::chrono::seconds(5)));
    EXPECT_EQ(known->topLevelItem(0)->text(2), "blocked");
}

TEST_F(TrayMenuTest, UpdateWindowIsReshownWhileOpenAndRebuiltAfterClosing)
{
    m_tray->openCheckForUpdate();
    ASSERT_TRUE(waitUntil([&] { return m_tray->updateWindow() != nullptr; }));
    QPointer<UpdateDialog> first = m_tray->updateWindow();
    ASSERT_TRUE(waitUntil([&] { return first->statusMessage() == "Retrieval Error"; }));

    m_tray->openCheckForUpdate();
    QCoreApplication::processEvents();
    EXPECT_EQ(m_tray->updateWindow(), first.data());

    first->reject();
    EXPECT_EQ(m_tray->updateWindow(), nullptr);
    ASSERT_TRUE(waitUntil([&] { return first.isNull(); }));

    m_tray->openCheckForUpdate();
    ASSERT_TRUE(waitUntil([&] { return m_tray->updateWindow() != nullptr; }));
    UpdateDialog* second = m_tray->updateWindow();
    EXPECT_NE(second->statusMessage(), "Retrieval Error") << "a new window starts its own check";
    EXPECT_TRUE(waitUntil([&] { return second->statusMessage() == "Retrieval Error"; }));
}

// The silent check at launch, driven directly against a local server: a
// notice only for a newer version.
TEST(BackgroundCheckTest, OnlyANewerVersionPostsTheUpdateNotice)
{
    LocalHttpServer server;
    UpdateCheck::setUpdateInfoURL(server.url("/CurrentZandrelMac.txt"));
    auto check = [&](const QByteArray& body) {
        server.serve("/CurrentZandrelMac.txt", body);
        auto notifier = std::make_shared<RecordingNotifier>();
        auto done = std::make_shared<std::atomic<bool>>(false);
        BackgroundJobs::start([notifier, done] {
            TrayMenu::_checkForUpdate(notifier);
            done->store(true);
        });
        EXPECT_TRUE(waitUntil([&] { return done->load(); }));
        return notifier->notices();
    };
    EXPECT_TRUE(check("1.5.0%d%http://127.0.0.1/p.pkg%Fixes").empty()) << "equal versions";
    const auto notices = check("1.5.1%0123456789abcdef0123456789abcdef%http://127.0.0.1/p.pkg%Fixes%");
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].name, "UPDATE");
    EXPECT_EQ(notices[0].title, "Update Available");
    EXPECT_EQ(notices[0].description, "Zandrel Sync Ver. 1.5.1 is available now\r\rChangeLog:\rFixes");
    BackgroundJobs::stopAll();
}

} // namespace
