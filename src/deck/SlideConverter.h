#pragma once

#include <chrono>

#include <QString>

#include "deck/DeckBuilder.h"

// PowerPoint, Keynote and OpenDocument presentations become PDF through LibreOffice Impress run
// headless: every slide exported, hidden ones included (so they keep their place and can be
// listed switched off). One conversion at a time in the whole program — each one starts a whole
// office suite —, in a LibreOffice profile of Vorlin's own, so a LibreOffice the operator has
// open is never touched, and within a time limit (the process group is killed past it).
// Worker thread; throws DeckError with the message for the operator.
namespace SlideConverter {

struct Options {
    QString program; // empty: LibreOffice as installed (soffice on PATH)
    std::chrono::seconds timeLimit{300};
};

// LibreOffice's program, or empty when it is not installed.
QString installedProgram();

// Converts `source` into `folder` as `format` ("pdf" with hidden slides, or "odp") and returns
// the written file's path.
QString convert(const QString& source, const QString& folder, const QString& format,
                const DeckBuilder::CancelFlag* cancel, const Options& options = {});

} // namespace SlideConverter
