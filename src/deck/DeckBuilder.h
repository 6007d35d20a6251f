#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include <QString>
#include <QStringList>

#include "deck/Deck.h"

// Turns what a key holds into a deck: a slide file into a folder of slide pictures with its
// manifest (reused while the source is unchanged), a list of files or a single picture into a
// deck of those files; then decodes the sound its items need.
//
// Threading: every function runs on a worker thread (never the main thread: a build renders
// every page) and may take long; `cancel` set from any thread ends it soon with
// DeckError::kCancelled. `progress` is called on the worker thread. Errors are DeckError.
namespace DeckBuilder {

using CancelFlag = std::atomic<bool>;
using Progress = std::function<void(const QString&)>;

// Slide pages are rendered this wide, the height in the page's proportion.
constexpr int kPageWidth = 2560;

// A file that becomes a deck of slides by its extension (any case).
bool isSlideFile(const QString& path);

// The deck of a slide file, built into its cache folder unless one with the same stamp is
// there (or always, with `force`).
std::shared_ptr<Deck> buildSlides(const QString& source, bool force, const Progress& progress,
                                  const CancelFlag* cancel = nullptr);

// A deck of the files in order (pictures, movies, sounds), one item each with its position as
// id; what each one is comes from the file itself.
std::shared_ptr<Deck> buildList(const QStringList& files, const CancelFlag* cancel = nullptr);

// Probes the audio and video items and decodes their sound at `rate` (as the mixer plays it);
// checks that picture items are pictures. What fails is noted in the deck's `failures`.
void loadMedia(Deck& deck, double rate, const CancelFlag* cancel = nullptr);

} // namespace DeckBuilder
