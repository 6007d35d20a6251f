#pragma once

#include <vector>

#include <QSize>

#include "deck/DeckBuilder.h"

// Slide pictures from a PDF with Poppler: every page kPageWidth pixels wide on white, anti-aliased,
// written as folder/s001.png, s002.png, … Pages are rendered on as many threads as there are
// cores, each with its own copy of the document (a Poppler document is not to be shared between
// threads). Worker thread; throws DeckError.
namespace PdfPages {

// A deck of more pages is refused: no show steps through more, and a hostile file could have
// any number.
constexpr int kMaxPages = 2000;
// A page's picture is kPageWidth wide and at most this tall: a taller page is scaled down to fit,
// so one page of any shape costs a bounded amount of memory (2560 × 8192 pixels).
constexpr int kMaxHeight = 8192;

struct Rendered {
    int pages = 0;
    std::vector<int> reduced; // pages (1-based) scaled down to kMaxHeight, in order
};

Rendered render(const QString& pdf, const QString& folder, const DeckBuilder::Progress& progress,
                const DeckBuilder::CancelFlag* cancel);

// The picture size of a page of `points`: kPageWidth wide, unless that makes it taller than
// kMaxHeight.
QSize pictureSize(const QSizeF& points);

// "s%03d.png" of page n (1-based).
QString fileName(int page);

} // namespace PdfPages
