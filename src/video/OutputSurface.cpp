#include "video/OutputSurface.h"

#include <QCloseEvent>
#include <QPainter>
#include <QScreen>
#include <QSettings>

namespace {

QString frameKey(int instance) {
    return QStringLiteral("video/windowFrame/%1").arg(instance);
}

} // namespace

OutputSurface::OutputSurface(QString id, Draw draw)
    : QOpenGLWindow(QOpenGLWindow::NoPartialUpdate), m_id(std::move(id)), m_draw(std::move(draw)) {}

std::unique_ptr<OutputSurface> OutputSurface::window(int instanceNumber, Draw draw) {
    std::unique_ptr<OutputSurface> surface(
        new OutputSurface(QStringLiteral("window"), std::move(draw)));
    surface->m_instance = instanceNumber;
    surface->setTitle(QStringLiteral("映像出力 #%1").arg(instanceNumber));
    const QRect frame =
        QSettings().value(frameKey(instanceNumber), QRect(200, 200, 960, 540)).toRect();
    surface->setGeometry(frame);
    surface->show();
    surface->raise();
    return surface;
}

std::unique_ptr<OutputSurface> OutputSurface::display(const QString& id, QScreen* screen,
                                                      Draw draw) {
    std::unique_ptr<OutputSurface> surface(new OutputSurface(id, std::move(draw)));
    // Above everything and on every desktop: a window the window manager does not manage (X11)
    // is stacked over all others and belongs to no desktop; it never takes the keyboard.
    surface->setFlags(Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                      Qt::WindowDoesNotAcceptFocus | Qt::BypassWindowManagerHint);
    surface->cover(screen);
    surface->show();
    surface->raise();
    return surface;
}

void OutputSurface::cover(QScreen* screen) {
    if (this->screen() != screen)
        setScreen(screen);
    if (geometry() != screen->geometry())
        setGeometry(screen->geometry());
}

OutputSurface::~OutputSurface() {
    rememberFrame();
}

void OutputSurface::rememberFrame() {
    if (m_instance > 0 && isVisible())
        QSettings().setValue(frameKey(m_instance), geometry());
}

void OutputSurface::paintGL() {
    QPainter painter(this);
    const bool moving = m_draw(painter, QRect(QPoint(0, 0), size()), m_id);
    painter.end();
    if (moving)
        update(); // the next frame, at the next refresh
}

bool OutputSurface::event(QEvent* event) {
    if (event->type() == QEvent::Close) {
        rememberFrame();
        emit closedByHand(m_id);
    }
    return QOpenGLWindow::event(event);
}
