#pragma once

#include <functional>

#include "cue/Interaction.h"

class QWidget;

// The editing operations' questions as real dialogs: alerts with the buttons in the order
// given, a name prompt, an open panel. Main thread; each dialog is modal.
class DialogInteraction : public Interaction {
public:
    // `showPath`: the open show's file, if it has one (file dialogs start beside it).
    DialogInteraction(QWidget* parent, std::function<std::optional<QString>()> showPath)
        : m_parent(parent), m_showPath(std::move(showPath)) {}

    // Where a file dialog opens: the show's folder, else the last folder a dialog was used in,
    // else the home folder (never the folder the program was started from).
    static QString startFolder(const std::optional<QString>& showPath);
    // Notes the folder of what a dialog returned, for the next one.
    static void remember(const QString& chosen);

    int alert(const QString& message, const QString& informative,
              const QStringList& buttons) override;
    std::optional<QString> askName(const QString& title, const QString& current) override;
    QStringList chooseFiles(const QString& message, const QStringList& types,
                            bool multiple) override;

private:
    QWidget* m_parent;
    std::function<std::optional<QString>()> m_showPath;
};
