#pragma once

#include <optional>

#include <QString>
#include <QStringList>

// The questions the editing operations ask the operator: modal alerts, a name, files to open.
// The application answers with real dialogs; tests and headless runs answer by script.
// Main thread; each call returns once answered.
class Interaction {
public:
    virtual ~Interaction() = default;

    // The index of the button chosen, buttons in the order given (the last one cancels).
    virtual int alert(const QString& message, const QString& informative,
                      const QStringList& buttons) = 0;
    // A new name, or none when cancelled.
    virtual std::optional<QString> askName(const QString& title, const QString& current) = 0;
    // Files chosen in an open panel of the given types (extensions), none when cancelled.
    virtual QStringList chooseFiles(const QString& message, const QStringList& types,
                                    bool multiple) = 0;
};

// Answers every question with "cancel": what a run with nobody to ask gets.
class CancellingInteraction : public Interaction {
public:
    int alert(const QString&, const QString&, const QStringList& buttons) override {
        return static_cast<int>(buttons.size()) - 1;
    }
    std::optional<QString> askName(const QString&, const QString&) override { return std::nullopt; }
    QStringList chooseFiles(const QString&, const QStringList&, bool) override { return {}; }
};
