#pragma once

#include <deque>
#include <optional>

#include <QStringList>

#include "cue/Interaction.h"

// Answers the editor's questions from a script, and remembers what it was asked.
class Script : public Interaction {
public:
    std::deque<int> buttons;
    std::deque<std::optional<QString>> names;
    std::deque<QStringList> files;
    QStringList asked;

    int alert(const QString& message, const QString& informative,
              const QStringList& choices) override {
        asked << message << informative << choices.join("|");
        if (buttons.empty())
            return static_cast<int>(choices.size()) - 1;
        const int b = buttons.front();
        buttons.pop_front();
        return b;
    }
    std::optional<QString> askName(const QString& title, const QString&) override {
        asked << title;
        auto n = names.empty() ? std::nullopt : names.front();
        if (!names.empty())
            names.pop_front();
        return n;
    }
    QStringList chooseFiles(const QString& message, const QStringList&, bool) override {
        asked << message;
        auto f = files.empty() ? QStringList{} : files.front();
        if (!files.empty())
            files.pop_front();
        return f;
    }
};
