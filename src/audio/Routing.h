#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "audio/Route.h"

// Which device outputs a key's audio channels go to. Pure functions; any thread. Channel
// numbers are 0-based here, 1-based in texts the user types and reads.
//
// `outputMap` is the typed text: empty or "auto" for automatic routing, else output numbers
// and ranges ("1,3 5、7-8"). A `matrix`, when present, lists the outputs of each source channel
// and wins over the text; present but empty means no routes at all.
namespace Routing {

using Matrix = std::vector<std::vector<std::int64_t>>;

// Output numbers of a routing text (0-based, 0…63, in order, duplicates kept). Unreadable parts
// are ignored.
std::vector<std::int64_t> parse(const std::string& text);

RouteList routes(const std::string& spec, std::int64_t sourceChannels, std::int64_t outputChannels);
RouteList routes(const std::optional<Matrix>& matrix, const std::string& outputMap,
                 std::int64_t sourceChannels, std::int64_t outputChannels);

// One row per source channel with the outputs its routes reach, in route order.
Matrix matrix(const std::optional<Matrix>& matrix, const std::string& outputMap,
              std::int64_t sourceChannels, std::int64_t outputChannels);

// "1→3 2→4", "出力先なし", with a note when outputs beyond the device only reach the meters.
std::string describe(const std::optional<Matrix>& matrix, const std::string& outputMap,
                     std::int64_t sourceChannels, std::int64_t outputChannels);

// The matrix view's click: `current` padded to the clip's channels, then `output` removed from
// the source's row if there, else added and the row sorted.
Matrix toggle(Matrix current, std::int64_t source, std::int64_t output,
              std::int64_t sourceChannels);

} // namespace Routing
