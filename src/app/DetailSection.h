#pragma once

#include <functional>
#include <optional>

#include <QGroupBox>

#include "model/KeyAssignment.h"

class AppModel;
class QDoubleSpinBox;
class QLineEdit;
struct MediaInfo;

// One box of the detail panel, about the selected key. It shows the key when the panel tells
// it to (`refresh`), and every edit of one of its fields goes through the editor at once, so a
// playing voice takes a new volume or loop setting while it sounds. Buttons and boxes never take
// the keyboard; text and number fields do only when clicked into, and Enter hands the keys back
// to the show. Main thread.
class DetailSection : public QGroupBox {
public:
    DetailSection(const QString& title, AppModel& model, QWidget* parent);

    // Shows `a` (the selected key) and its media entry, if any. Edits made by the fields while
    // they are being set are not edits of the operator's and are ignored.
    void refresh(const KeyAssignment& a, const MediaInfo* media);

protected:
    virtual void show(const KeyAssignment& a, const MediaInfo* media) = 0;
    bool isRefreshing() const { return m_refreshing; }

    std::optional<KeyCode> selectedCode() const;
    const KeyAssignment* selectedAssignment() const;
    // Applies `change` to the selected key through the editor, when it changes anything.
    void edit(const std::function<void(KeyAssignment&)>& change);

    // A field's change signal stores its value in one field of the key.
    template <typename Value, typename Sender, typename Signal, typename Field>
    void bind(Sender* sender, Signal signal, Field KeyAssignment::*field) {
        connect(sender, signal, this, [this, field](Value value) {
            edit([&](KeyAssignment& a) { a.*field = static_cast<Field>(value); });
        });
    }
    // Text fields commit when the operator presses Enter or leaves them.
    void onCommit(QLineEdit* field, const std::function<void(const QString&)>& commit);
    QDoubleSpinBox* seconds(double maximum);

    template <typename Widget> static Widget* unfocusable(Widget* widget) {
        widget->setFocusPolicy(Qt::NoFocus);
        return widget;
    }
    // Sets a field's value from the model unless the operator is typing in it.
    template <typename Field, typename Value>
    static void showValue(Field* field, const Value& value) {
        if (field->hasFocus())
            return;
        if constexpr (std::is_same_v<Value, QString>)
            field->setText(value);
        else
            field->setValue(value);
    }

    AppModel& m_model;

private:
    bool m_refreshing = false;
};
