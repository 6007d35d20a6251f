#pragma once

#include <QString>

// The show a newcomer hears at once: a few sounds made here (a bell, a looping drone, claps,
// three cues as a list, a fanfare and a sweep on a second page), written as WAV files next to
// a show file in the user's data folder. Main thread.
namespace DemoShow {

// $XDG_DATA_HOME/Vorlin/Demo
QString defaultFolder();

// The demo show's path in `folder`, made (sounds and show) when it is not there yet; an existing
// demo is left as the user changed it. Throws DocumentError when nothing can be written there.
QString create(const QString& folder);

} // namespace DemoShow
