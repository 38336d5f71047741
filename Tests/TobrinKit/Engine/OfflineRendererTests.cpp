#include "BuiltInPacks.h"

#include "TobrinKit/Engine/OfflineRenderer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace tobrin {
namespace {

float constantStrength(int, int) { return 1.0f; }

TEST(TypingScript, TypesOnlyKnownCharactersWithHumanTiming) {
    EXPECT_TRUE(OfflineRenderer::typingScript("€→ü", 60, 1, constantStrength).empty());

    // Upper case types the same keys; skipped characters take no time.
    std::vector<std::pair<int, int>> asked;
    const auto script = OfflineRenderer::typingScript("Hi, Ü yo\n", 40, 3, [&](int i, int n) {
        asked.emplace_back(i, n);
        return float(i) * 0.5f;
    });
    const std::vector<std::uint16_t> codes{4, 34, 43, 49, 49, 16, 31, 36};
    ASSERT_EQ(script.size(), codes.size() * 2);
    EXPECT_EQ(script.front().time, 0.15);
    const double beat = 60.0 / (40 * 5.0);
    for (std::size_t i = 0; i < codes.size(); ++i) {
        const auto& press = script[2 * i];
        const auto& release = script[2 * i + 1];
        EXPECT_EQ(std::pair(press.code, press.action), std::pair(codes[i], KeyAction::down));
        EXPECT_EQ(std::pair(release.code, release.action), std::pair(codes[i], KeyAction::up));
        EXPECT_EQ(press.position, 0.5f * float(i));
        EXPECT_EQ(asked[i], std::make_pair(int(i), int(codes.size())));
        EXPECT_GE(release.time - press.time, 0.06);
        EXPECT_LE(release.time - press.time, 0.10);
        if (i + 1 < codes.size()) {
            const double gap = script[2 * i + 2].time - press.time;
            const double extra = codes[i] == 49 ? 0.3 * beat : 0.0;
            EXPECT_GE(gap, extra + 0.6 * beat - 1e-9) << i;
            EXPECT_LE(gap, extra + 1.4 * beat + 1e-9) << i;
        }
    }
}

using fixtures::cream;

TEST(OfflineRendererTest, EmptyScriptWithoutTailRendersNothing) {
    const auto out = OfflineRenderer::render(*cream(), {}, EngineSettings(), 0, 48000);
    EXPECT_TRUE(out.left.empty());
    EXPECT_TRUE(out.right.empty());
    EXPECT_EQ(OfflineRenderer::render(*cream(), {}, EngineSettings(), 0.5, 48000).left.size(), 24000u);
}

TEST(OfflineRendererTest, TwoRendersOfOneScriptAreBitIdentical) {
    const auto script = OfflineRenderer::typingScript("the quick brown fox", 80, 9,
                                                      [](int i, int n) { return 3.0f * float(i) / float(n); });
    const auto a = OfflineRenderer::render(*cream(), script, EngineSettings(), 0.5, 48000);
    const auto b = OfflineRenderer::render(*cream(), script, EngineSettings(), 0.5, 48000);
    ASSERT_EQ(a.left.size(), std::size_t(std::floor(48000 * (0.5 + script.back().time))));
    EXPECT_EQ(a.left, b.left);
    EXPECT_EQ(a.right, b.right);
    EXPECT_GT(*std::max_element(a.left.begin(), a.left.end()), 0.01f);
    EXPECT_NE(a.left, a.right); // keys are placed in the stereo field
}

TEST(OfflineRendererTest, OnsetsAreQuantisedToTheirSixtyFourFrameBlock) {
    EngineSettings settings;
    settings.volume = 1.0f; // no master ramp in the first block
    settings.releaseSounds = false;
    const auto render = [&](double time) {
        return OfflineRenderer::render(*cream(), {ScriptedKey{time, 0, KeyAction::down, 1.0f}}, settings, 0.3, 48000);
    };
    const auto atZero = render(0.0);
    const auto early = render(0.0001); // frame 4: same block as frame 0
    const auto later = render(0.0014); // frame 67: starts at frame 64
    ASSERT_EQ(atZero.left.size(), 14400u);
    EXPECT_EQ(early.left.size(), 14404u);
    EXPECT_TRUE(std::equal(atZero.left.begin(), atZero.left.end(), early.left.begin()));
    EXPECT_GT(*std::max_element(atZero.left.begin(), atZero.left.end()), 0.01f);
    for (std::size_t i = 0; i < 64; ++i) ASSERT_EQ(later.left[i], 0.0f) << i;
    EXPECT_TRUE(std::equal(atZero.left.begin(), atZero.left.end() - 64, later.left.begin() + 64));
}

// A NaN position is a defined value on every path a stroke takes (tier,
// strength, weights, release): the render equals that of the softest position.
TEST(OfflineRendererTest, NaNPositionsPlayAsTheSoftest) {
    auto script = OfflineRenderer::typingScript("nan keys", 120, 5, [](int, int) { return NAN; });
    const auto withNaN = OfflineRenderer::render(*cream(), script, EngineSettings(), 0.3, 48000);
    for (ScriptedKey& key : script) key.position = 0.0f;
    const auto soft = OfflineRenderer::render(*cream(), script, EngineSettings(), 0.3, 48000);
    EXPECT_EQ(withNaN.left, soft.left);
    EXPECT_EQ(withNaN.right, soft.right);
    EXPECT_GT(*std::max_element(soft.left.begin(), soft.left.end()), 0.01f);
}

TEST(OfflineRenderer, ScriptPositionsRoundToATierForTheirStrength) {
    // NaN is the softest position, as the tier weights take it.
    const std::pair<float, float> cases[] = {{2.6f, 4.0f}, {2.5f, 4.0f},     {2.4f, 2.2f},     {1.49f, 1.0f},
                                             {0.5f, 1.0f}, {0.49f, 0.4f},    {-1.0f, 0.4f},    {7.0f, 4.0f},
                                             {NAN, 0.4f},  {INFINITY, 4.0f}, {-INFINITY, 0.4f}};
    for (const auto& [position, relative] : cases)
        EXPECT_EQ(OfflineRenderer::relativeStrength(position), relative) << position;
}

} // namespace
} // namespace tobrin
