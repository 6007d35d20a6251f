#include "app/MonitorView.h"

#include <QPainter>

#include "audio/HostTime.h"
#include "cue/AppModel.h"

MonitorView::MonitorView(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
    // 16:9 at the meters' width when there is room; on a small screen it gives way to the
    // meters below it (the picture is drawn fitted into whatever it has).
    setFixedWidth(320);
    setMinimumHeight(90);
    setMaximumHeight(180);
    setFocusPolicy(Qt::NoFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
    m_frames.setTimerType(Qt::PreciseTimer);
    m_frames.setInterval(33);
    connect(&m_frames, &QTimer::timeout, this, &MonitorView::follow);
    // A cue starting or ending is when pictures may come or go.
    connect(&m_model.live(), &LiveState::cuesChanged, this, &MonitorView::follow);
}

void MonitorView::follow() {
    const bool pictures = m_model.video().hasPictures();
    if (pictures && !m_frames.isActive())
        m_frames.start();
    else if (!pictures)
        m_frames.stop();
    // The last picture's end is drawn once more, as the background.
    if (pictures || m_drewPictures)
        update();
}

void MonitorView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    m_model.video().draw(painter, rect(), HostTime::now(), std::nullopt, PictureDetail::reduced);
    m_drewPictures = m_model.video().hasPictures();
}
