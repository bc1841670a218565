#include <cstdint>
#include <memory>

#include <gtest/gtest.h>

#include "bridge/UIBridge.h"

namespace {

class RecordingView : public ProgressView {
public:
    void setProgress(int percent) override { values.push_back(percent); }
    std::vector<int> values;
};

} // namespace

TEST(UIBridge, ProgressIsA64BitPercentHeldTo0To100)
{
    EXPECT_EQ(UIBridge::percent(1, 3), 33);
    EXPECT_EQ(UIBridge::percent(5, 0), 0);
    constexpr std::int64_t k3GB = 3'000'000'000, k6GB = 6'000'000'000; // 32 bits wrapped past 21 MB and 4 GiB
    EXPECT_EQ(UIBridge::percent(k3GB / 2, k3GB), 50);
    EXPECT_EQ(UIBridge::percent(k6GB * 3 / 4, k6GB), 75);
    EXPECT_EQ(UIBridge::percent(INT64_MAX - 1, INT64_MAX), 99);
    EXPECT_EQ(UIBridge::percent(k6GB + 1, k6GB), 100); // a file that grew meanwhile

    UIBridge bridge;
    bridge.setProgress(1, 2); // nobody attached: nothing happens
    auto view = std::make_shared<RecordingView>();
    bridge.setSettingsDialog(view);
    bridge.setProgress(50, 200);
    EXPECT_EQ(view->values, std::vector<int>{25});
}
