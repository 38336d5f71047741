#include "TobrinMixer.h"

#include <gtest/gtest.h>

TEST(Mixer, CreatesWithUnityMaster) {
    TBMixer* mixer = tb_mixer_create(48000, 4);
    ASSERT_NE(mixer, nullptr);
    EXPECT_EQ(tb_mixer_get_master(mixer), 1.0f);
    tb_mixer_destroy(mixer);
}
