#include "app/DetailSection.h"

#include <QDoubleSpinBox>
#include <QLineEdit>

#include "app/NumberField.h"
#include "cue/AppModel.h"

DetailSection::DetailSection(const QString& title, AppModel& model, QWidget* parent)
    : QGroupBox(title, parent), m_model(model) {}

void DetailSection::refresh(const KeyAssignment& a, const MediaInfo* media) {
    m_refreshing = true;
    show(a, media);
    m_refreshing = false;
}

std::optional<KeyCode> DetailSection::selectedCode() const {
    return m_model.document().selectedKey;
}

const KeyAssignment* DetailSection::selectedAssignment() const {
    const auto code = selectedCode();
    if (!code)
        return nullptr;
    const auto& keys = m_model.document().assignments;
    const auto found = keys.find(*code);
    return found == keys.end() ? nullptr : &found->second;
}

void DetailSection::edit(const std::function<void(KeyAssignment&)>& change) {
    const KeyAssignment* current = selectedAssignment();
    if (m_refreshing || !current)
        return;
    KeyAssignment edited = *current;
    change(edited);
    if (edited != *current)
        m_model.editor().update(*selectedCode(), edited);
}

void DetailSection::onCommit(QLineEdit* field, const std::function<void(const QString&)>& commit) {
    connect(field, &QLineEdit::editingFinished, this, [field, commit] { commit(field->text()); });
    connect(field, &QLineEdit::returnPressed, field, [field] { field->clearFocus(); });
}

QDoubleSpinBox* DetailSection::seconds(double maximum) {
    auto* box = new QDoubleSpinBox(this);
    box->setRange(0.0, maximum);
    box->setDecimals(2);
    box->setSingleStep(0.1);
    box->setSuffix(QStringLiteral(" 秒"));
    NumberField::releaseKeysOnEnter(box);
    return box;
}
