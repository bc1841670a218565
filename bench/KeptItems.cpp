// What keeping removed and replaced items in the trash costs a phone: a
// folder of 10,000 files deleted (one rename instead of 10,000 unlinks) and
// 1,000 small files replaced by an upload, keeping on against keeping off,
// sides taking turns; each row is the median ratio of several rounds.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <fstream>
#include <string>
#include <vector>

#include "LoopbackServer.h"
#include "client/ProtocolClient.h"

namespace fs = std::filesystem;

namespace {

constexpr int kFolderFiles = 10000;
constexpr int kReplaced = 1000;
constexpr int kRounds = 5;

double seconds(const std::function<void()>& work)
{
    auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double deleteFolder(LoopbackServer& server, ProtocolClient& phone)
{
    fs::path folder = server.home().path() / "album";
    fs::create_directories(folder);
    for (int i = 0; i < kFolderFiles; ++i)
        std::ofstream(folder / ("track" + std::to_string(i) + ".mp3")) << "x";
    return seconds([&] { phone.deleteFolders({folder.string()}); });
}

double replaceFiles(LoopbackServer& server, ProtocolClient& phone)
{
    fs::path folder = server.home().path() / "photos";
    fs::create_directories(folder);
    std::vector<ProtocolClient::UploadItem> items;
    for (int i = 0; i < kReplaced; ++i) {
        fs::path file = folder / ("p" + std::to_string(i) + ".jpg");
        std::ofstream(file) << std::string(2000, 'o');
        items.push_back({file.string(), 2000, 1, ""});
    }
    ProtocolClient::UploadHandler handler;
    handler.read = [](std::size_t, std::int64_t, std::uint8_t* buffer, std::size_t length) {
        std::fill(buffer, buffer + length, 'n');
        return length;
    };
    return seconds([&] { phone.uploadFiles(items, false, handler); });
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main()
{
    LoopbackServer server;
    ProtocolClient phone;
    server.attach(phone);
    // A thousand files synced one by one on a busy disk take a while.
    phone.setTimeout(std::chrono::minutes(5));
    std::vector<double> deleteRatio, replaceRatio;
    for (int round = 0; round < kRounds; ++round) {
        double time[2][2] = {};
        for (int turn = 0; turn < 2; ++turn) {
            bool keep = (round + turn) % 2 == 0;
            server.settings().setKeepDeleted(keep);
            server.settings().setKeepReplaced(keep);
            time[keep][0] = deleteFolder(server, phone);
            time[keep][1] = replaceFiles(server, phone);
        }
        deleteRatio.push_back(time[1][0] / time[0][0]);
        replaceRatio.push_back(time[1][1] / time[0][1]);
    }
    std::printf("delete a folder of %d files, keeping on / off:   %.2f (median of %d)\n", kFolderFiles,
        median(deleteRatio), kRounds);
    std::printf("upload replacing %d small files, on / off:      %.2f (median of %d)\n", kReplaced,
        median(replaceRatio), kRounds);
    return 0;
}
