#include "app/DetailPanel.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

#include "app/KeyFileSection.h"
#include "app/PictureSection.h"
#include "app/PlaybackSection.h"
#include "app/RoutingSection.h"
#include "cue/AppModel.h"
#include "model/KeyboardLayout.h"

DetailPanel::DetailPanel(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    m_empty = new QLabel(this);
    m_empty->setAlignment(Qt::AlignCenter);
    m_empty->setWordWrap(true);
    outer->addWidget(m_empty);
    m_body = new QWidget(this);
    outer->addWidget(m_body);
    auto* columns = new QHBoxLayout(m_body);
    columns->setContentsMargins(0, 0, 0, 0);
    m_file = new KeyFileSection(model, m_body);
    columns->addWidget(m_file, 4);
    auto* middle = new QVBoxLayout;
    m_playback = new PlaybackSection(model, m_body);
    m_picture = new PictureSection(model, m_body);
    middle->addWidget(m_playback);
    middle->addWidget(m_picture);
    columns->addLayout(middle, 4);
    m_routing = new RoutingSection(model, m_body);
    columns->addWidget(m_routing, 4);

    connect(&m_model.cueEngine(), &CueEngine::selectedKeyChanged, this, &DetailPanel::refresh);
    connect(&m_model, &AppModel::assignmentsChanged, this, &DetailPanel::refresh);
    connect(&m_model, &AppModel::audioDeviceChanged, this, &DetailPanel::refresh);
    connect(&m_model.media(), &MediaLoader::mediaChanged, this, &DetailPanel::refresh);
    connect(&m_model.session(), &ShowSession::lockChanged, this, &DetailPanel::refresh);
    connect(&m_model.live(), &LiveState::progressChanged, m_file, &KeyFileSection::refreshPosition);
    refresh();
}

RoutingMatrixView& DetailPanel::matrix() {
    return m_routing->matrix();
}

void DetailPanel::refresh() {
    const auto code = m_model.document().selectedKey;
    const auto& keys = m_model.document().assignments;
    const auto found = code ? keys.find(*code) : keys.end();
    const bool assigned = found != keys.end();
    m_body->setVisible(assigned);
    m_empty->setVisible(!assigned);
    if (!assigned) {
        m_empty->setText(
            code
                ? KeyboardLayout::label(*code) +
                      QStringLiteral(" キーは空いています。ファイルをキーにドロップするか、"
                                     "「ファイル › 選択中のキーにファイルを割り当て…」で入れます。")
                : QStringLiteral("キーをクリックすると、ここで設定できます。"));
        return;
    }
    const bool locked = m_model.session().isLocked();
    m_file->setLocked(locked);
    for (QWidget* section : std::initializer_list<QWidget*>{m_playback, m_picture, m_routing})
        section->setEnabled(!locked);
    const KeyAssignment& a = found->second;
    const MediaInfo* media = m_model.media().infoFor(a);
    for (DetailSection* section :
         std::initializer_list<DetailSection*>{m_file, m_playback, m_picture, m_routing})
        section->refresh(a, media);
}
