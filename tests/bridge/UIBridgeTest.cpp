#include <memory>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "bridge/UIBridge.h"
#include "settings/Settings.h"

namespace {

class RecordingView : public ProgressView {
public:
    void setProgress(int percent) override { values.push_back(percent); }
    std::vector<int> values;
};

} // namespace

TEST(UIBridge, ProgressIsThirtyTwoBitPercent)
{
    EXPECT_EQ(UIBridge::percent(50, 200), 25);
    EXPECT_EQ(UIBridge::percent(1, 3), 33);
    EXPECT_EQ(UIBridge::percent(5, 0), 0);
    // done * 100 wraps past 21,474,836, as it always has.
    EXPECT_EQ(UIBridge::percent(21474837, 21474837), (21474837 * 100LL - (1LL << 32)) / 21474837);

    UIBridge bridge;
    bridge.setProgress(1, 2); // nobody attached: nothing happens
    auto view = std::make_shared<RecordingView>();
    bridge.setSettingsDialog(view);
    bridge.setProgress(50, 200);
    EXPECT_EQ(view->values, std::vector<int>{25});
}

TEST(UIBridge, TraceGatesEveryLevelButTheLinesMeantForAlways)
{
    TempHome home;
    CapturedLog log;
    auto settings = std::make_shared<Settings>(Settings::NoLoginItems{});
    log.sink().clear();
    UIBridge bridge(settings);
    settings->setVerbose(true);
    for (bool trace : {false, true}) {
        settings->setTrace(trace);
        bridge.logError("e");
        bridge.logInfo("i");
        bridge.logMessage("m");
        bridge.logAlways("a");
    }
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"a", "e", "i", "m", "a"}));
}
