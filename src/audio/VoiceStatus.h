#pragma once

#include <vector>

// What the control thread learns of a voice at each snapshot.
struct VoiceStatus {
    // position ÷ clip frames: 0 at the start, at or just above 1 once a voice ran to its end.
    double progress = 0.0;
    bool done = false;
    // Peak per clip channel since the previous snapshot (volume and envelope applied, master not).
    std::vector<float> levels;
};
