// Several pictures of one run: their names, and what they show.

#include "tool/options.h"
#include "tool/outputname.h"

#include <gtest/gtest.h>

namespace {

using kelpatool::numberedName;

TEST(OutputNames, TakeTheNumberInTheirOnePlace) {
    EXPECT_EQ(numberedName("a.####.png", 7), "a.0007.png");
    EXPECT_EQ(numberedName("a%04d.exr", 123456), "a123456.exr");
    EXPECT_EQ(numberedName("%d", 0), "0");
    EXPECT_EQ(numberedName("#1/%d%/a#%b.png", 12), "#1/%d%/a12%b.png") << "a folder's name stays";
    EXPECT_TRUE(kelpatool::hasNumberPlace("x/#.png"));
    EXPECT_FALSE(kelpatool::hasNumberPlace("#/50%.png"));
    EXPECT_THROW(numberedName("a.png", 1), kelpatool::UsageError);
    EXPECT_THROW(numberedName("#-%d.png", 1), kelpatool::UsageError);
}

} // namespace
