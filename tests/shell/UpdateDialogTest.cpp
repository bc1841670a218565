#include <filesystem>
#include <string>

#include <QCryptographicHash>
#include <QProgressBar>
#include <QPushButton>
#include <gtest/gtest.h>

#include "ShellTestSupport.h"
#include "support/TestSupport.h"
#include "shell/BackgroundJobs.h"
#include "shell/UpdateCheck.h"
#include "shell/UpdateDialog.h"

namespace fs = std::filesystem;

namespace {

const QString kInfoPath = QStringLiteral("/downloads/CurrentZandrelMac.txt");
const QString kPackagePath = QStringLiteral("/downloads/ZandrelSync 1.5.2.pkg");
const QByteArray kPackage = QByteArray("installer package bytes\n").repeated(1000);
const QByteArray kDigest = QCryptographicHash::hash(kPackage, QCryptographicHash::Md5).toHex();

class UpdateDialogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        UpdateCheck::setUpdateInfoURL(m_server.url(kInfoPath));
        UpdateCheck::setTrustedDownloadPrefix(m_server.root());
        m_server.serve(kPackagePath, kPackage);
        UpdateDialog::setInstaller({[this](const QString& path) { m_opened.push_back(path); },
                                    [this] { ++m_quits; }});
    }

    void TearDown() override
    {
        m_dialog.reset();
        BackgroundJobs::stopAll();
        UpdateDialog::setInstaller({[](const QString&) {}, [] {}});
    }

    void describe(const QByteArray& body) { m_server.serve(kInfoPath, body); }
    // Version 1.5.2 offered with the package at the URL (ours by default).
    void offer(const QByteArray& digest, const QString& packageURL = {})
    {
        describe("1.5.2%" + digest + "%" + (packageURL.isEmpty() ? m_server.url(kPackagePath) : packageURL).toUtf8()
                 + "%Fixes");
    }

    // Opens the window and waits for its check to end.
    void open()
    {
        m_dialog = std::make_unique<UpdateDialog>();
        m_dialog->show();
        const QString initial = m_dialog->statusMessage();
        m_dialog->fireItUp(nullptr);
        ASSERT_TRUE(waitUntil([&] { return m_dialog->statusMessage() != initial; }));
    }

    // Presses the button and waits for a message (or the installer).
    void download()
    {
        const QString before = m_dialog->statusMessage();
        m_dialog->updatePressed();
        ASSERT_TRUE(waitUntil([&] { return m_dialog->statusMessage() != before || m_quits > 0; }));
    }

    QPushButton* button() const { return m_dialog->findChild<QPushButton*>("updateButton"); }
    QProgressBar* progress() const { return m_dialog->findChild<QProgressBar*>("progressBar"); }
    fs::path downloads() const { return m_home.path() / "Downloads"; }
    fs::path package() const { return downloads() / "ZandrelSync 1.5.2.pkg"; }

    TempHome m_home;
    LocalHttpServer m_server;
    std::unique_ptr<UpdateDialog> m_dialog;
    std::vector<QString> m_opened;
    int m_quits = 0;
};

TEST_F(UpdateDialogTest, OnlyANewerVersionShowsTheOfferAndTheButton)
{
    offer(kDigest);
    open();
    EXPECT_EQ(m_dialog->statusMessage(), "Zandrel Sync Ver. 1.5.2 is available now\r\rChangeLog:\rFixes");
    EXPECT_TRUE(button()->isVisible());
    EXPECT_FALSE(progress()->isVisible());
    ASSERT_EQ(m_server.hits(kInfoPath), 1);
    EXPECT_TRUE(m_server.requests().front().toLower().contains("\r\npragma: no-cache\r\n"));

    describe("1.5.0%" + kDigest + "%" + m_server.url(kPackagePath).toUtf8() + "%Fixes");
    open();
    EXPECT_EQ(m_dialog->statusMessage(), "No update available");
    EXPECT_FALSE(button()->isVisible());

    // Three fields are no offer, neither to the check nor to the download.
    describe("1.5.2%" + kDigest + "%" + m_server.url(kPackagePath).toUtf8());
    open();
    EXPECT_EQ(m_dialog->statusMessage(), "Retrieval Error");
    download();
    EXPECT_EQ(m_dialog->statusMessage(), "\r\rRetrieval Error");
    EXPECT_FALSE(fs::exists(package()));
}

TEST_F(UpdateDialogTest, ForeignPackageHostIsRefusedBeforeDownloading)
{
    // Never contacted: the address is refused before any request.
    offer(kDigest, QStringLiteral("http://10.255.255.1/ZandrelSync.pkg"));
    open();
    download();
    EXPECT_EQ(m_dialog->statusMessage(), "\rInvalid file path");
    EXPECT_FALSE(fs::exists(downloads()));
    EXPECT_EQ(m_server.hits(kPackagePath), 0);
}

TEST_F(UpdateDialogTest, ChecksumMismatchAfterTwoQueuedPressesKeepsTheOneFileAndTheButtonDisabled)
{
    // Upper case is a mismatch too: the digest is compared exactly.
    offer(kDigest.toUpper());
    open();
    // Both presses are queued before either is handled, as with a fast
    // double click.
    m_dialog->updatePressed();
    m_dialog->updatePressed();
    ASSERT_TRUE(waitUntil([&] { return m_dialog->statusMessage() == "\rBad file checksum"; }));
    EXPECT_EQ(m_server.hits(kInfoPath), 2) << "one check, one download";
    EXPECT_EQ(m_server.hits(kPackagePath), 1);
    EXPECT_EQ(readFile(package()), kPackage.toStdString());
    EXPECT_FALSE(button()->isEnabled());
    EXPECT_FALSE(progress()->isVisible());
    EXPECT_TRUE(m_opened.empty());
}

TEST_F(UpdateDialogTest, MatchingDigestReplacesOldPackageOpensItAndQuits)
{
    m_home.write("Downloads/ZandrelSync 1.5.2.pkg", "an older download");
    offer(kDigest);
    open();
    download();
    EXPECT_EQ(readFile(package()), kPackage.toStdString());
    ASSERT_EQ(m_opened.size(), 1u);
    EXPECT_EQ(m_opened.front().toStdString(), package().string());
    EXPECT_EQ(m_quits, 1);
    EXPECT_EQ(m_server.hits(kInfoPath), 2) << "the description is read afresh for the download";
    // The server sees the cache policy: the re-read revalidates, the package ignores caches.
    ASSERT_EQ(m_server.requests().size(), 3u);
    EXPECT_FALSE(m_server.requests()[1].toLower().contains("cache-control"));
    EXPECT_TRUE(m_server.requests()[2].toLower().contains("\r\ncache-control: no-cache\r\n"));
}

TEST(UpdateCheckTest, PlaceholdersAreFilledInOrderOnce)
{
    EXPECT_EQ(UpdateCheck::fillPlaceholders("a %@ b %@ c %@", {"%@", "2"}), "a %@ b 2 c %@");
    EXPECT_EQ(UpdateCheck::fields(QByteArray("1.5.2%x%\xff%y")), QStringList{""});
}

} // namespace
