#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <QComboBox>
#include <QDesktopServices>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLocale>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTableView>
#include <QTest>
#include <QUrl>
#include <gtest/gtest.h>

#include "ShellTestSupport.h"
#include "support/TestSupport.h"
#include "journal/ActivityStore.h"
#include "journal/Trash.h"
#include "shell/ActivityModel.h"
#include "shell/ActivityWindow.h"

namespace fs = std::filesystem;

namespace {

// Stands in for the desktop's file manager.
class FolderOpener : public QObject {
    Q_OBJECT

public:
    std::vector<QUrl> opened;
    Q_INVOKABLE void open(const QUrl& url) { opened.push_back(url); }
};

class ActivityWindowTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_store = ActivityStore::open(nullptr, m_file);
        ASSERT_TRUE(m_store);
        m_kept = m_home.write("Music/song.mp3", "old song");
        Trash::Kept kept = Trash::keep(m_kept.string());
        ASSERT_TRUE(kept.kept) << kept.why;
        record(change(1000, "10.0.0.7", Change::Kind::Connected, ""));
        record(change(2000, "10.0.0.7", Change::Kind::Uploaded, m_home.path() / "Music/new.mp3"));
        Change deleted = change(3000, "10.0.0.7", Change::Kind::DeletedFile, m_kept);
        deleted.keptAs = kept.item;
        deleted.info = kept.info;
        deleted.keptSize = 8;
        deleted.state = Change::State::Kept;
        m_keptId = record(deleted);
        Change lost = change(4000, "10.0.0.9", Change::Kind::DeletedFolder, m_home.path() / "usb/Photos");
        lost.note = "its volume is read-only";
        record(lost);

        m_window = std::make_unique<ActivityWindow>(m_file);
        m_window->show();
        ASSERT_TRUE(waitUntil([&] { return rows() == 4; }));
    }

    void TearDown() override { QDesktopServices::unsetUrlHandler("file"); }

    static Change change(std::int64_t at, const std::string& device, Change::Kind kind, const fs::path& path)
    {
        Change c;
        c.at = at;
        c.device = device;
        c.kind = kind;
        c.path = path.string();
        return c;
    }

    std::int64_t record(Change c)
    {
        std::vector<Change> batch{std::move(c)};
        EXPECT_TRUE(m_store->insert(batch));
        return batch.front().id;
    }

    template <class T>
    T* control(const char* name) const
    {
        T* widget = m_window->findChild<T*>(name);
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }
    QTableView* table() const { return control<QTableView>("activityTable"); }
    int rows() const { return table()->model()->rowCount(); }
    QString cell(int row, int column) const { return table()->model()->index(row, column).data().toString(); }

    TempHome m_home;
    CapturedLog m_log;
    std::string m_file = (m_home.path() / "activity.sqlite").string();
    std::unique_ptr<ActivityStore> m_store;
    fs::path m_kept;
    std::int64_t m_keptId = 0;
    std::unique_ptr<ActivityWindow> m_window;
    FolderOpener m_opener;
};

TEST_F(ActivityWindowTest, TableShowsTheJournalNewestFirstFollowsItAndFilters)
{
    // Newest first; a removal says whether it was kept, and why not.
    EXPECT_EQ(cell(0, ActivityModel::What), "Deleted folder");
    EXPECT_EQ(cell(0, ActivityModel::Phone), "10.0.0.9");
    EXPECT_EQ(cell(0, ActivityModel::Kept), "not kept: its volume is read-only");
    EXPECT_EQ(cell(1, ActivityModel::Path), QString::fromStdString(m_kept.string()));
    EXPECT_EQ(cell(1, ActivityModel::Kept), "kept");
    EXPECT_EQ(cell(3, ActivityModel::What), "Connected");

    record(change(5000, "10.0.0.7", Change::Kind::Renamed, m_home.path() / "a.txt"));
    EXPECT_TRUE(waitUntil([&] { return rows() == 5; })) << "a shown window follows the journal";

    auto* phone = control<QComboBox>("phoneFilter");
    ASSERT_EQ(phone->count(), 3);
    phone->setCurrentIndex(phone->findText("10.0.0.9"));
    EXPECT_TRUE(waitUntil([&] { return rows() == 1; }));
    phone->setCurrentIndex(0);
    auto* kind = control<QComboBox>("kindFilter");
    kind->setCurrentIndex(kind->findText("Deleted"));
    EXPECT_TRUE(waitUntil([&] { return rows() == 2; }));

    // A damaged journal is set aside and a new one started: the window follows the new one.
    m_store.reset();
    for (const char* suffix : {"", "-wal", "-shm"})
        fs::rename(m_file + suffix, m_file + ".damaged" + suffix);
    m_store = ActivityStore::open(nullptr, m_file);
    record(change(6000, "10.0.0.7", Change::Kind::DeletedFile, m_home.path() / "b.txt"));
    EXPECT_TRUE(waitUntil([&] { return rows() == 1; }));
}

TEST_F(ActivityWindowTest, RestoreOfTheSelectionPutsTheKeptItemBackAndSaysWhere)
{
    auto* restore = control<QPushButton>("restoreButton");
    EXPECT_FALSE(restore->isEnabled()) << "nothing selected";
    table()->selectRow(0);
    EXPECT_FALSE(restore->isEnabled()) << "what was not kept cannot come back";
    table()->selectRow(1);
    ASSERT_TRUE(restore->isEnabled());

    QDesktopServices::setUrlHandler("file", &m_opener, "open");
    QTest::mouseClick(control<QPushButton>("showInFolderButton"), Qt::LeftButton);
    ASSERT_EQ(m_opener.opened.size(), 1u);
    EXPECT_EQ(m_opener.opened[0], QUrl::fromLocalFile(QString::fromStdString((m_home.path() / "Music").string())));

    QTest::mouseClick(restore, Qt::LeftButton);
    auto* report = control<QPlainTextEdit>("restoreReport");
    ASSERT_TRUE(waitUntil([&] { return report->isVisible(); }));
    EXPECT_EQ(readFile(m_kept), "old song");
    const QString path = QString::fromStdString(m_kept.string());
    EXPECT_EQ(report->toPlainText(), QString("Restored 1 of 1.\n%1: restored to %1").arg(path));
    EXPECT_TRUE(waitUntil([&] { return cell(1, ActivityModel::Kept) == "restored"; }));
    EXPECT_EQ(table()->selectionModel()->selectedRows().size(), 1) << "the selection outlives the refresh";
    EXPECT_TRUE(control<QPushButton>("showInFolderButton")->isEnabled());
    EXPECT_FALSE(restore->isEnabled());
    EXPECT_FALSE(control<QPushButton>("restoreAllButton")->isEnabled()) << "nothing shown is kept any more";
}

TEST_F(ActivityWindowTest, EmptyKeptItemsAsksFirstAndRemovesOnlyWhatWasKept)
{
    const fs::path trashed = m_home.write(".local/share/Trash/files/mine.txt", "the person's own");
    auto* empty = control<QPushButton>("emptyKeptButton");
    auto* kept = control<QLabel>("keptBytesLabel");
    EXPECT_EQ(kept->text(), "Kept items use " + QLocale().formattedDataSize(8));
    QStringList asked;
    m_window->setEmptyConfirmation([&](const QString& question) {
        asked << question;
        return asked.size() > 1;
    });
    QTest::mouseClick(empty, Qt::LeftButton);
    ASSERT_EQ(asked.size(), 1);
    EXPECT_TRUE(fs::exists(m_store->find(m_keptId)->keptAs)) << "declined";

    QTest::mouseClick(empty, Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return kept->text() == "Nothing is kept at the moment"; }));
    EXPECT_FALSE(fs::exists(m_store->find(m_keptId)->keptAs));
    EXPECT_TRUE(fs::exists(trashed));
    EXPECT_FALSE(empty->isEnabled());
}

} // namespace

#include "ActivityWindowTest.moc"
