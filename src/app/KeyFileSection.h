#pragma once

#include <vector>

#include <QStringList>

#include "app/DetailSection.h"
#include "cue/MediaInfo.h"

class QLabel;
class QPushButton;
class QLineEdit;
class QToolButton;
class WaveformView;

// The detail panel's first box: the key, its name, its file or files, what the file holds and
// whether it is ready, the waveform with the playing position (a click seeks the key's newest
// cue), and replacing, adding, renaming, clearing and copying to another page. Main thread.
class KeyFileSection : public DetailSection {
public:
    KeyFileSection(AppModel& model, QWidget* parent);

    // The play line of the selected key's cue (moved on the tick's progress beat).
    void refreshPosition();
    // A locked show's key is only shown: the waveform still seeks, the item list still opens.
    void setLocked(bool locked);

protected:
    void show(const KeyAssignment& a, const MediaInfo* media) override;

private:
    void fillCopyMenu();
    // "画像 1920×1080", "12 ページ" or "5 項目", and the file's size.
    static QStringList deckInfo(const KeyAssignment& a, const Deck& deck);
    // The first item's picture where a sound would show its waveform.
    void showThumbnail(const DeckPtr& deck, const KeyAssignment& a);

    QPushButton* m_openDeck = nullptr;
    QLabel* m_keyLabel = nullptr;
    QLineEdit* m_title = nullptr;
    QLabel* m_file = nullptr;
    QLabel* m_info = nullptr;
    QLabel* m_state = nullptr;
    WaveformView* m_waveform = nullptr;
    QToolButton* m_copy = nullptr;
    // Replacing, adding, renaming, clearing.
    std::vector<QPushButton*> m_edits;
};
