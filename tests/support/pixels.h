// Pictures that have to be the same.
#pragma once

#include "pipeline/picture/image.h"

#include <gtest/gtest.h>

namespace kelpatest {

/// Expects two pictures to be the same bit for bit, in all their channels.
inline void expectSamePixels(pipeline::Image const& image, pipeline::Image const& expected) {
    EXPECT_EQ(image.rgb, expected.rgb);
    EXPECT_EQ(image.alpha, expected.alpha);
    EXPECT_EQ(image.depth, expected.depth);
    EXPECT_EQ(image.id, expected.id);
    EXPECT_EQ(image.normal, expected.normal);
    EXPECT_EQ(image.position, expected.position);
}

} // namespace kelpatest
