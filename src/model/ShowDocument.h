#pragma once

#include <map>
#include <optional>
#include <vector>

#include <QString>
#include <QUuid>

#include "model/KeyAssignment.h"
#include "model/KeyPage.h"
#include "model/MidiBinding.h"

// The document half of the model's state: the pages, the working copy of the current page's
// keys and the selection. Every edit goes to `assignments`; the current page's
// own `keys` are brought up to date from it when the page is left and when the show is saved.
// What the keys' files hold at run time is not the document's: see cue/MediaInfo.h.
// Main thread.
struct ShowDocument {
    ShowDocument();

    std::vector<KeyPage> pages; // never empty
    std::size_t currentPage = 0;
    std::map<KeyCode, KeyAssignment> assignments;
    std::optional<KeyCode> selectedKey;
    // What MIDI notes, controllers and program changes do in this show.
    std::vector<MidiBinding> midiBindings;
    // Keys of the current page whose item lists are open as tabs of the deck panel, and the tab
    // shown. Not saved; closed whenever another page or show is loaded.
    std::vector<KeyCode> deckTabs;
    std::optional<KeyCode> activeDeckTab;

    QUuid currentPageID() const;
    // Name of the page with that id, if it still exists.
    std::optional<QString> pageName(const QUuid& id) const;
    // Copies `assignments` into the current page's keys.
    void storeCurrentPage();
    // Makes page `index` current and loads its keys into `assignments`.
    void loadPage(std::size_t index);
    // Every page's assignments, the current page taken from `assignments`.
    std::vector<KeyAssignment> allAssignments() const;
};
