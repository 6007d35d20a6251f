#include "audio/Routing.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::int64_t kMaxOutputs = 64;
constexpr std::int64_t kMeteredOutputs = 8;

std::vector<std::string> splitPieces(const std::string& text) {
    // Separators: comma, space, and the ideographic comma (U+3001, E3 80 81 in UTF-8).
    static const std::string ideographicComma = "\xE3\x80\x81";
    std::vector<std::string> pieces;
    std::string piece;
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] == ',' || text[i] == ' ') {
            pieces.push_back(std::move(piece));
            piece.clear();
            ++i;
        } else if (text.compare(i, ideographicComma.size(), ideographicComma) == 0) {
            pieces.push_back(std::move(piece));
            piece.clear();
            i += ideographicComma.size();
        } else {
            piece += text[i++];
        }
    }
    pieces.push_back(std::move(piece));
    return pieces;
}

std::string trimmed(const std::string& s) {
    const auto first = s.find_first_not_of(" \t\r\n\v\f");
    if (first == std::string::npos)
        return {};
    const auto last = s.find_last_not_of(" \t\r\n\v\f");
    return s.substr(first, last - first + 1);
}

std::optional<std::int64_t> integer(const std::string& part) {
    std::string text = trimmed(part);
    if (!text.empty() && text.front() == '+')
        text.erase(0, 1);
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

// Outputs allowed for routing: the first eight always exist (metered scratch channels on a
// small device), beyond that only the device's own.
std::int64_t routableOutputs(std::int64_t outputChannels) {
    return std::max(outputChannels, kMeteredOutputs);
}

} // namespace

namespace Routing {

std::vector<std::int64_t> parse(const std::string& text) {
    std::vector<std::int64_t> outputs;
    for (const std::string& piece : splitPieces(text)) {
        const std::string item = trimmed(piece);
        if (item.empty())
            continue;
        std::vector<std::int64_t> numbers;
        std::size_t start = 0;
        for (;;) {
            const std::size_t dash = item.find('-', start);
            if (auto n =
                    integer(item.substr(start, dash == std::string::npos ? dash : dash - start)))
                numbers.push_back(*n);
            if (dash == std::string::npos)
                break;
            start = dash + 1;
        }
        if (numbers.size() == 1) {
            outputs.push_back(numbers[0] - 1);
        } else if (numbers.size() == 2 && numbers[0] <= numbers[1]) {
            for (std::int64_t n = numbers[0]; n <= numbers[1] && n - numbers[0] < 4096; ++n)
                outputs.push_back(n - 1);
        }
    }
    std::erase_if(outputs, [](std::int64_t v) { return v < 0 || v >= kMaxOutputs; });
    return outputs;
}

RouteList routes(const std::string& spec, std::int64_t sourceChannels,
                 std::int64_t outputChannels) {
    const std::vector<std::int64_t> outs = parse(spec);
    RouteList result;
    if (outs.empty()) {
        if (sourceChannels == 1) {
            result.push_back({0, 0});
            if (outputChannels >= 2)
                result.push_back({0, 1});
        } else {
            const std::int64_t wrap = std::max<std::int64_t>(outputChannels, 1);
            for (std::int64_t s = 0; s < sourceChannels; ++s)
                result.push_back({s, s % wrap});
        }
    } else if (sourceChannels == 1) {
        for (std::int64_t o : outs)
            result.push_back({0, o});
    } else if (outs.size() == 1) {
        for (std::int64_t s = 0; s < sourceChannels; ++s)
            result.push_back({s, outs[0] + s});
    } else {
        const auto count =
            std::min<std::int64_t>(sourceChannels, static_cast<std::int64_t>(outs.size()));
        for (std::int64_t s = 0; s < count; ++s)
            result.push_back({s, outs[static_cast<std::size_t>(s)]});
    }
    const std::int64_t limit = routableOutputs(outputChannels);
    std::erase_if(result, [limit](const Route& r) { return r.output >= limit; });
    return result;
}

RouteList routes(const std::optional<Matrix>& matrix, const std::string& outputMap,
                 std::int64_t sourceChannels, std::int64_t outputChannels) {
    if (!matrix)
        return routes(outputMap, sourceChannels, outputChannels);
    const std::int64_t limit = routableOutputs(outputChannels);
    RouteList result;
    for (std::size_t s = 0; s < matrix->size() && static_cast<std::int64_t>(s) < sourceChannels;
         ++s) {
        for (std::int64_t o : (*matrix)[s]) {
            if (o >= 0 && o < limit)
                result.push_back({static_cast<std::int64_t>(s), o});
        }
    }
    return result;
}

Matrix matrix(const std::optional<Matrix>& stored, const std::string& outputMap,
              std::int64_t sourceChannels, std::int64_t outputChannels) {
    Matrix rows(static_cast<std::size_t>(std::max<std::int64_t>(sourceChannels, 0)));
    for (const Route& r : routes(stored, outputMap, sourceChannels, outputChannels)) {
        if (r.source >= 0 && r.source < sourceChannels)
            rows[static_cast<std::size_t>(r.source)].push_back(r.output);
    }
    return rows;
}

std::string describe(const std::optional<Matrix>& stored, const std::string& outputMap,
                     std::int64_t sourceChannels, std::int64_t outputChannels) {
    const RouteList list = routes(stored, outputMap, sourceChannels, outputChannels);
    if (list.empty())
        return "出力先なし";
    std::string text;
    bool beyondDevice = false;
    for (const Route& r : list) {
        if (!text.empty())
            text += ' ';
        text += std::to_string(r.source + 1) + "→" + std::to_string(r.output + 1);
        beyondDevice = beyondDevice || r.output >= outputChannels;
    }
    if (beyondDevice)
        text += "（" + std::to_string(outputChannels + 1) + "ch 以降はデバイスになくメーターのみ）";
    return text;
}

Matrix toggle(Matrix current, std::int64_t source, std::int64_t output,
              std::int64_t sourceChannels) {
    while (static_cast<std::int64_t>(current.size()) < sourceChannels)
        current.emplace_back();
    if (source < 0 || source >= static_cast<std::int64_t>(current.size()))
        return current;
    auto& row = current[static_cast<std::size_t>(source)];
    const auto found = std::find(row.begin(), row.end(), output);
    if (found != row.end()) {
        row.erase(found);
    } else {
        row.push_back(output);
        std::sort(row.begin(), row.end());
    }
    return current;
}

} // namespace Routing
