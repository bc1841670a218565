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

TEST(UIBridge, ProgressIsThirtyTwoBitPercent)
{
    EXPECT_EQ(UIBridge::percent(1, 3), 33);
    EXPECT_EQ(UIBridge::percent(5, 0), 0);
    // done * 100 wraps past 21,474,836 (kept: see docs/protocol.md).
    EXPECT_EQ(UIBridge::percent(21474837, 21474837), (21474837 * 100LL - (1LL << 32)) / 21474837);

    UIBridge bridge;
    bridge.setProgress(1, 2); // nobody attached: nothing happens
    auto view = std::make_shared<RecordingView>();
    bridge.setSettingsDialog(view);
    bridge.setProgress(50, 200);
    EXPECT_EQ(view->values, std::vector<int>{25});
}
