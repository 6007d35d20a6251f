#pragma once

#include "deck/DeckBuilder.h"

// Slide pictures from a PDF with Poppler: every page kPageWidth pixels wide on white, anti-aliased,
// written as folder/s001.png, s002.png, … Pages are rendered on as many threads as there are
// cores, each with its own copy of the document (a Poppler document is not to be shared between
// threads). Worker thread; throws DeckError.
namespace PdfPages {

// The page count.
int render(const QString& pdf, const QString& folder, const DeckBuilder::Progress& progress,
           const DeckBuilder::CancelFlag* cancel);

// "s%03d.png" of page n (1-based).
QString fileName(int page);

} // namespace PdfPages
