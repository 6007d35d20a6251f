#pragma once

#include "cue/Interaction.h"

class QWidget;

// The editing operations' questions as real dialogs: alerts with the buttons in the order
// given, a name prompt, an open panel. Main thread; each dialog is modal.
class DialogInteraction : public Interaction {
public:
    explicit DialogInteraction(QWidget* parent) : m_parent(parent) {}

    int alert(const QString& message, const QString& informative,
              const QStringList& buttons) override;
    std::optional<QString> askName(const QString& title, const QString& current) override;
    QStringList chooseFiles(const QString& message, const QStringList& types,
                            bool multiple) override;

private:
    QWidget* m_parent;
};
