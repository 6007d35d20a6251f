#include "cue/AppModel.h"

#include "audio/Routing.h"
#include "video/HeadlessVideoOutput.h"

AppModel::AppModel(std::unique_ptr<VideoOutput> video, QObject* parent)
    : QObject(parent), m_video(video ? std::move(video) : std::make_unique<HeadlessVideoOutput>()),
      m_engine(std::make_unique<CueEngine>(m_document, m_mixer, *m_video, m_live)) {}

AppModel::~AppModel() {
    m_timer.stop();
}

void AppModel::start() {
    m_timer.setTimerType(Qt::PreciseTimer);

    connect(&m_timer, &QTimer::timeout, this, &AppModel::tick, Qt::UniqueConnection);
    m_timer.start();
}

void AppModel::setRouting(KeyCode code, std::optional<RoutingMatrix> matrix,
                          const QString& outputMap) {
    const auto found = m_document.assignments.find(code);
    if (found == m_document.assignments.end())
        return;
    found->second.matrix = std::move(matrix);
    found->second.outputMap = outputMap;
    emit assignmentsChanged();
}

void AppModel::toggleRoute(KeyCode code, std::int64_t source, std::int64_t output) {
    const auto found = m_document.assignments.find(code);
    if (found == m_document.assignments.end())
        return;
    const KeyAssignment& a = found->second;
    const MediaInfo* info = m_document.mediaFor(a);
    const std::int64_t sources = info && info->clip ? info->clip->channelCount : 0;
    const auto shown = Routing::matrix(a.matrix, a.outputMap.toStdString(), sources,
                                       m_engine->outputChannelCount());
    setRouting(code, Routing::toggle(shown, source, output, sources), QString());
}

void AppModel::applyQuickRouting(KeyCode code, const QString& outputMap) {
    setRouting(code, std::nullopt, outputMap);
}
