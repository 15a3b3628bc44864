#include <gtest/gtest.h>

#include "platform/media_info.h"

TEST(Skeleton, Builds) { EXPECT_EQ(sizeof(MediaInfo), 5448u); }
