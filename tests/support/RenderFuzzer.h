#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <QString>
#include <QStringList>

// Bad input for `vorlin render`, made up from a seed: damaged and sound media (a float WAV of
// random bytes, an MP3 with flipped bytes, a FLAC cut short, a plain tone), show files with
// values no editor allows and broken JSON, event scripts with disordered, huge and malformed
// lines. Each case runs through the command and is checked for what any input must give: a
// known exit status, a message for every refusal, and output samples that are finite and
// within the bound the volumes allow. A crash or a hang ends the run that found it.
//
// Main thread, with a QCoreApplication. Used by the test suite (a few hundred cases) and by
// the long run of `make bench`.
class RenderFuzzer {
public:
    struct Outcome {
        int cases = 0;
        int rendered = 0;
        int refused = 0;
        std::vector<std::string> failures; // one line per broken promise
        // FNV-1a over every exit status and written WAV: the same seed must give the same
        // digest before and after a change that should not alter what is rendered.
        std::uint64_t digest = 14695981039346656037ull;
    };

    // Writes the media into `folder` (which must exist).
    RenderFuzzer(const std::string& folder, unsigned seed);

    Outcome run(int cases);

private:
    QString show();
    QString events(int& keyDowns);
    void check(const QString& wav, int keyDowns, Outcome& outcome);

    std::string m_folder;
    std::mt19937 m_random;
    QStringList m_media;
};
