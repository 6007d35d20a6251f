#include "audio/Routing.h"

#include <gtest/gtest.h>

namespace {

using Routing::Matrix;
using V = std::vector<std::int64_t>;

// Pieces split at commas, spaces and 、; a number n is output n, a ≤ b is a range, anything else
// adds nothing; only outputs 1–64 stay, in their order, duplicates included.
TEST(Routing, ParseReadsNumbersAndRangesOfOutputs1To64) {
    const std::pair<const char*, V> rows[] = {
        {"", {}},
        {"auto", {}},
        {"3", {2}},
        {"1-4", {0, 1, 2, 3}},
        {"1,3 5、7-8", {0, 2, 4, 6, 7}},
        {" 2 , 2 ", {1, 1}},
        {"0", {}},
        {"1", {0}},
        {"64", {63}},
        {"65", {}},
        {"5-5", {4}},
        {"4-2", {}},
        {"1-2-3", {}},
        {"x", {}},
        {"+5", {4}},
        {"0-2", {0, 1}},
        {"60-70", {59, 60, 61, 62, 63}},
        {"64-64 1-1", {63, 0}},
    };
    for (const auto& [text, outputs] : rows)
        EXPECT_EQ(Routing::parse(text), outputs) << '"' << text << '"';
}

// Automatic routing: mono on the first pair (the first output alone on a one-output device),
// more channels in order, wrapping round the device's outputs. Listed outputs: mono to each, one
// output as the first of consecutive ones, several paired in order. Outputs 1–8 always exist
// (metered scratch outputs on a smaller device); beyond 8 only the device's. A matrix, when
// there is one, wins over the text, row by row for the clip's channels.
TEST(Routing, RoutesOfTheTextOrTheMatrixForAClipOnADevice) {
    struct Row {
        std::optional<Matrix> matrix;
        const char* text;
        std::int64_t sources, outputs;
        RouteList routes;
    };
    const Row rows[] = {
        {{}, "", 1, 2, {{0, 0}, {0, 1}}},
        {{}, "auto", 1, 1, {{0, 0}}},
        {{}, "", 1, 0, {{0, 0}}},
        {{}, "auto", 4, 8, {{0, 0}, {1, 1}, {2, 2}, {3, 3}}},
        {{}, "", 3, 2, {{0, 0}, {1, 1}, {2, 0}}},
        {{}, "", 2, 0, {{0, 0}, {1, 0}}},
        {{}, "3", 2, 8, {{0, 2}, {1, 3}}},
        {{}, "1,4", 1, 8, {{0, 0}, {0, 3}}},
        {{}, "5 6 7", 2, 8, {{0, 4}, {1, 5}}},
        {{}, "1 2", 3, 8, {{0, 0}, {1, 1}}},
        {{}, "10", 8, 16, {{0, 9}, {1, 10}, {2, 11}, {3, 12}, {4, 13}, {5, 14}, {6, 15}}},
        {{}, "8", 1, 2, {{0, 7}}},
        {{}, "9", 1, 2, {}},
        {{}, "9", 1, 9, {{0, 8}}},
        {{}, "10", 1, 9, {}},
        {Matrix{{5}, {0, 7}}, "3", 2, 8, {{0, 5}, {1, 0}, {1, 7}}},
        {Matrix{}, "3", 2, 8, {}},
        {Matrix{{1}, {2}, {3}}, "", 2, 8, {{0, 1}, {1, 2}}},
        {Matrix{{}, {1}}, "", 2, 8, {{1, 1}}},
        {Matrix{{7}}, "", 1, 2, {{0, 7}}},
        {Matrix{{8}}, "", 1, 2, {}},
        {Matrix{{8}}, "", 1, 9, {{0, 8}}},
        {Matrix{{9, 3}}, "", 1, 9, {{0, 3}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << (row.matrix ? "a matrix, " : "") << '"' << row.text << "\", " << row.sources
                     << " channels on " << row.outputs << " outputs");
        EXPECT_EQ(Routing::routes(row.matrix, row.text, row.sources, row.outputs), row.routes);
        if (!row.matrix) {
            EXPECT_EQ(Routing::routes(row.text, row.sources, row.outputs), row.routes);
        }
        Matrix rows(static_cast<std::size_t>(row.sources));
        for (const Route& route : row.routes)
            rows[static_cast<std::size_t>(route.source)].push_back(route.output);
        EXPECT_EQ(Routing::matrix(row.matrix, row.text, row.sources, row.outputs), rows);
    }
}

TEST(Routing, DescribeNamesEveryRouteAndWarnsOfMeterOnlyOutputs) {
    const std::tuple<std::optional<Matrix>, const char*, std::int64_t, std::int64_t, std::string>
        rows[] = {
            {{}, "3", 2, 8, "1→3 2→4"},
            {Matrix{}, "", 2, 8, "出力先なし"},
            {{}, "1", 3, 2, "1→1 2→2 3→3（3ch 以降はデバイスになくメーターのみ）"},
            {{}, "2", 1, 2, "1→2"},
            {Matrix{{0, 7}}, "", 1, 2, "1→1 1→8（3ch 以降はデバイスになくメーターのみ）"},
            {{}, "8", 1, 8, "1→8"},
        };
    for (const auto& [matrix, text, sources, outputs, said] : rows)
        EXPECT_EQ(Routing::describe(matrix, text, sources, outputs), said) << text;
}

TEST(Routing, ToggleAddsSortedOrRemovesAndPadsRows) {
    EXPECT_EQ(Routing::toggle({}, 1, 4, 2), (Matrix{{}, {4}}));
    EXPECT_EQ(Routing::toggle({{5, 1}}, 0, 3, 1), (Matrix{{1, 3, 5}}));
    EXPECT_EQ(Routing::toggle({{1, 3}}, 0, 3, 1), (Matrix{{1}}));
}

} // namespace
