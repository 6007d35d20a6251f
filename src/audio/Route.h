#pragma once

#include <cstdint>
#include <vector>

// One route of a voice: a clip's source channel feeding a device output channel (both 0-based).
struct Route {
    std::int64_t source = 0;
    std::int64_t output = 0;

    friend bool operator==(const Route&, const Route&) = default;
};

using RouteList = std::vector<Route>;
