#include "audio/Routing.h"

#include <gtest/gtest.h>

namespace {

using Routing::Matrix;
using V = std::vector<std::int64_t>;

TEST(Routing, ParseReadsNumbersRangesAndSeparators) {
    EXPECT_EQ(Routing::parse(""), V{});
    EXPECT_EQ(Routing::parse("auto"), V{});
    EXPECT_EQ(Routing::parse("3"), V{2});
    EXPECT_EQ(Routing::parse("1-4"), (V{0, 1, 2, 3}));
    EXPECT_EQ(Routing::parse("1,3 5、7-8"), (V{0, 2, 4, 6, 7}));
    EXPECT_EQ(Routing::parse(" 2 , 2 "), (V{1, 1})); // duplicates stay
    // Out of range, reversed, three numbers and words contribute nothing.
    EXPECT_EQ(Routing::parse("0 65 4-2 1-2-3 x +5"), (V{4}));
    EXPECT_EQ(Routing::parse("60-70"), (V{59, 60, 61, 62, 63}));
    EXPECT_EQ(Routing::parse("5-5"), V{4}); // a range of one output
    EXPECT_EQ(Routing::parse("64-64 1-1"), (V{63, 0}));
}

TEST(Routing, AutomaticRoutingPlaysMonoOnTheFirstPairAndChannelsInOrder) {
    EXPECT_EQ(Routing::routes("", 1, 2), (RouteList{{0, 0}, {0, 1}}));
    EXPECT_EQ(Routing::routes("auto", 1, 1), (RouteList{{0, 0}}));
    EXPECT_EQ(Routing::routes("auto", 4, 8), (RouteList{{0, 0}, {1, 1}, {2, 2}, {3, 3}}));
    // Eight channels on a stereo device: all kept, outputs 3–8 reach only the meters.
    EXPECT_EQ(Routing::routes("", 8, 2).size(), 8u);
    // Twelve channels on a stereo device wrap around the device's two outputs.
    EXPECT_EQ(Routing::routes("", 12, 2)[11], (Route{11, 1}));
}

TEST(Routing, ListedOutputsFanOutStartOrPair) {
    EXPECT_EQ(Routing::routes("3", 2, 8), (RouteList{{0, 2}, {1, 3}}));
    EXPECT_EQ(Routing::routes("1,4", 1, 8), (RouteList{{0, 0}, {0, 3}}));
    EXPECT_EQ(Routing::routes("5 6 7", 2, 8), (RouteList{{0, 4}, {1, 5}}));
    // Outputs beyond the device are dropped above the first eight.
    const RouteList fromTen = Routing::routes("10", 8, 16);
    ASSERT_EQ(fromTen.size(), 7u);
    EXPECT_EQ(fromTen.back(), (Route{6, 15}));
    EXPECT_EQ(Routing::routes("9", 1, 2), RouteList{});
}

TEST(Routing, MatrixWinsOverTheText) {
    const Matrix m{{5}, {0, 7}};
    EXPECT_EQ(Routing::routes(m, "3", 2, 8), (RouteList{{0, 5}, {1, 0}, {1, 7}}));
    EXPECT_EQ(Routing::routes(Matrix{}, "3", 2, 8), RouteList{});
    EXPECT_EQ(Routing::routes(Matrix{{1}, {2}, {3}}, "", 2, 8), (RouteList{{0, 1}, {1, 2}}));
    EXPECT_EQ(Routing::routes(Matrix{{12}}, "", 1, 8), RouteList{});
    EXPECT_EQ(Routing::matrix(std::nullopt, "3", 2, 8), (Matrix{{2}, {3}}));
}

TEST(Routing, DescribeNamesEveryRouteAndWarnsOfMeterOnlyOutputs) {
    EXPECT_EQ(Routing::describe(std::nullopt, "3", 2, 8), "1→3 2→4");
    EXPECT_EQ(Routing::describe(Matrix{}, "", 2, 8), "出力先なし");
    EXPECT_EQ(Routing::describe(std::nullopt, "1", 3, 2),
              "1→1 2→2 3→3（3ch 以降はデバイスになくメーターのみ）");
}

TEST(Routing, ToggleAddsSortedOrRemovesAndPadsRows) {
    EXPECT_EQ(Routing::toggle({}, 1, 4, 2), (Matrix{{}, {4}}));
    EXPECT_EQ(Routing::toggle({{5, 1}}, 0, 3, 1), (Matrix{{1, 3, 5}}));
    EXPECT_EQ(Routing::toggle({{1, 3}}, 0, 3, 1), (Matrix{{1}}));
}

} // namespace
