#include "app/KeyFileSection.h"

#include <QFileInfo>
#include <QGridLayout>
#include <QImageReader>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QToolButton>

#include "app/WaveformView.h"
#include "cue/AppModel.h"
#include "model/KeyboardLayout.h"

namespace {

QString duration(double seconds) {
    const auto tenths = static_cast<std::int64_t>(std::llround(seconds * 10));
    return QStringLiteral("%1:%2.%3")
        .arg(tenths / 600)
        .arg((tenths / 10) % 60, 2, 10, QLatin1Char('0'))
        .arg(tenths % 10);
}

QString byteSize(std::int64_t bytes) {
    if (bytes >= 1'000'000)
        return QString::number(static_cast<double>(bytes) / 1e6, 'f', 1) + " MB";
    return QString::number(static_cast<double>(bytes) / 1e3, 'f', 0) + " KB";
}

} // namespace

KeyFileSection::KeyFileSection(AppModel& model, QWidget* parent)
    : DetailSection(QStringLiteral("キー"), model, parent) {
    auto* file = new QGridLayout(this);
    m_keyLabel = new QLabel(this);
    m_keyLabel->setStyleSheet("font-size: 20px; font-weight: bold;");
    m_keyLabel->setMinimumWidth(44);
    file->addWidget(m_keyLabel, 0, 0);
    m_title = new QLineEdit(this);
    m_title->setObjectName("title");
    m_title->setFocusPolicy(Qt::ClickFocus);
    onCommit(m_title,
             [this](const QString& text) { edit([&](KeyAssignment& a) { a.title = text; }); });
    file->addWidget(m_title, 0, 1, 1, 3);
    m_file = new QLabel(this);
    m_file->setTextInteractionFlags(Qt::NoTextInteraction);
    file->addWidget(m_file, 1, 0, 1, 4);
    m_info = new QLabel(this);
    file->addWidget(m_info, 2, 0, 1, 4);
    m_state = new QLabel(this);
    m_state->setWordWrap(true);
    file->addWidget(m_state, 3, 0, 1, 4);
    m_waveform = new WaveformView(this);
    m_waveform->onSeek = [this](double fraction) {
        const auto code = selectedCode();
        if (const ActiveCuePtr cue = code ? m_model.cueEngine().newestRunning(*code) : nullptr)
            m_model.seek(cue->id, fraction);
    };
    file->addWidget(m_waveform, 4, 0, 1, 4);
    file->setRowStretch(4, 1);

    // The key operations, each on the selected key.
    struct Operation {
        QString text;
        void (ShowEditor::*run)(KeyCode);
        int row, column, span;
    };
    const Operation operations[] = {
        {QStringLiteral("差し替え…"), &ShowEditor::replaceFile, 5, 0, 2},
        {QStringLiteral("ファイルを追加…"), &ShowEditor::addFiles, 5, 2, 1},
        {QStringLiteral("名前を変更…"), &ShowEditor::renameKey, 5, 3, 1},
        {QStringLiteral("クリア"), &ShowEditor::clear, 6, 3, 1},
        {QStringLiteral("一覧を開く"), &ShowEditor::openDeckTab, 7, 0, 4},
    };
    for (const Operation& operation : operations) {
        auto* button = unfocusable(new QPushButton(operation.text, this));
        connect(button, &QPushButton::clicked, this, [this, run = operation.run] {
            if (const auto code = selectedCode())
                (m_model.editor().*run)(*code);
        });
        file->addWidget(button, operation.row, operation.column, 1, operation.span);
        if (operation.run == &ShowEditor::openDeckTab)
            m_openDeck = button;
        else
            m_edits.push_back(button);
    }
    m_copy = unfocusable(new QToolButton(this));
    m_copy->setText(QStringLiteral("ほかのページへコピー"));
    m_copy->setPopupMode(QToolButton::InstantPopup);
    m_copy->setMenu(new QMenu(m_copy));
    connect(m_copy->menu(), &QMenu::aboutToShow, this, &KeyFileSection::fillCopyMenu);
    file->addWidget(m_copy, 6, 0, 1, 3);
}

void KeyFileSection::setLocked(bool locked) {
    m_title->setReadOnly(locked);
    m_copy->setEnabled(!locked);
    for (QPushButton* button : m_edits)
        button->setEnabled(!locked);
}

void KeyFileSection::show(const KeyAssignment& a, const MediaInfo* media) {
    m_keyLabel->setText(KeyboardLayout::label(*selectedCode()));
    m_title->setPlaceholderText(a.displayName());
    showValue(m_title, a.title);
    const QStringList files = a.listSources().value_or(QStringList{a.path});
    m_file->setText(files.size() > 1 ? QStringLiteral("%1 ほか %2 個のファイル")
                                           .arg(QFileInfo(files.first()).fileName())
                                           .arg(files.size() - 1)
                                     : QFileInfo(a.path).fileName());
    m_file->setToolTip(files.join('\n'));

    QStringList info;
    const bool timed = media && (media->probe.hasAudio || media->probe.hasVideo);
    if (media && !media->loading && !media->error && timed) {
        const MediaProbe& probe = media->probe;
        info << duration(probe.duration);
        if (probe.hasVideo)
            info << QStringLiteral("映像 %1×%2").arg(probe.videoWidth).arg(probe.videoHeight);
        if (probe.sourceChannels > 0)
            info << QStringLiteral("%1 ch").arg(probe.sourceChannels)
                 << QString::number(probe.sourceSampleRate / 1000.0, 'g', 4) + " kHz";
        info << byteSize(probe.fileSize);
    }
    if (media && media->deck && !media->loading)
        info << deckInfo(a, *media->deck);
    m_info->setText(info.join(QStringLiteral(" · ")));
    m_openDeck->setEnabled(a.isDeck()); // slides, lists and pictures have an item list
    QString state;
    QString stateStyle;
    if (!media || media->loading) {
        state = media ? media->progressText : QStringLiteral("読み込み待ち");
    } else if (media->error) {
        state = *media->error;
        stateStyle = "color: #e05050; font-weight: bold;";
    } else if (media->audioViaPlayer) {
        state = QStringLiteral("準備完了（音は映像と一緒に再生）");
    } else {
        state = QStringLiteral("準備完了");
    }
    m_state->setText(state);
    m_state->setStyleSheet(stateStyle);
    m_waveform->setPeaks(media && media->clip ? media->clip->peaks : std::vector<float>{},
                         media && media->loading ? media->progressText
                                                 : QStringLiteral("波形なし"));
    showThumbnail(media && !media->loading ? media->deck : nullptr, a);
    refreshPosition();
}

QStringList KeyFileSection::deckInfo(const KeyAssignment& a, const Deck& deck) {
    const auto& items = deck.manifest.items;
    QStringList info;
    if (deck.isList() && items.size() == 1 && items.front().kind == DeckItem::Kind::image) {
        // One picture: its size, read from the file's header.
        const QSize size = QImageReader(deck.pathOf(items.front().file)).size();
        info << (size.isValid() ? QStringLiteral("画像 %1×%2").arg(size.width()).arg(size.height())
                                : QStringLiteral("画像"));
    } else if (deck.isList()) {
        info << QStringLiteral("%1 項目").arg(items.size());
    } else {
        info << QStringLiteral("%1 ページ").arg(items.size());
    }
    if (const qint64 bytes = QFileInfo(a.path).size(); bytes > 0)
        info << byteSize(bytes);
    return info;
}

void KeyFileSection::showThumbnail(const DeckPtr& deck, const KeyAssignment& a) {
    const auto items = deck ? Deck::enabledOnly(deck->itemsFor(a)) : std::vector<DeckItem>{};
    if (items.empty()) {
        m_waveform->setPicture({});
        return;
    }
    const QImage cached = deck->cachedThumbnail(items.front().file);
    m_waveform->setPicture(cached);
    if (!cached.isNull())
        return;
    // Made once on a pool thread; shown if the key selected then still holds this deck.
    deck->fetchThumbnail(items.front(), this, [this, deck](const QImage& picture) {
        const KeyAssignment* now = selectedAssignment();
        const MediaInfo* media = now ? mediaFor(m_model.media().table(), *now) : nullptr;
        if (media && media->deck == deck)
            m_waveform->setPicture(picture);
    });
}

void KeyFileSection::refreshPosition() {
    const auto code = selectedCode();
    const auto& progress = m_model.live().progress();
    const auto found = code ? progress.find(*code) : progress.end();
    const double position = found == progress.end() ? -1.0 : found->second;
    // The line appears and disappears at once; it moves on progress ticks.
    const bool appearsOrGoes = (position < 0.0) != (m_waveform->position() < 0.0);
    if (appearsOrGoes || isRefreshing() || m_model.live().isProgressTick())
        m_waveform->setPosition(position);
}

void KeyFileSection::fillCopyMenu() {
    QMenu* menu = m_copy->menu();
    menu->clear();
    const ShowDocument& doc = m_model.document();
    for (std::size_t i = 0; i < doc.pages.size(); ++i) {
        if (i == doc.currentPage)
            continue;
        menu->addAction(doc.pages[i].name, this, [this, i] {
            if (const auto code = selectedCode())
                m_model.editor().copyKey(*code, i);
        });
    }
    if (menu->isEmpty())
        menu->addAction(QStringLiteral("ほかのページがありません"))->setEnabled(false);
}
