#include "video/OutputSurface.h"

#include <QCloseEvent>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QPlatformSurfaceEvent>
#include <QScreen>
#include <QSettings>

#include "audio/HostTime.h"
#include "video/PictureRenderer.h"

namespace {

QString frameKey(int instance) {
    return QStringLiteral("video/windowFrame/%1").arg(instance);
}

} // namespace

OutputSurface::OutputSurface(QString id, Draw draw, SceneKey key)
    : m_id(std::move(id)), m_draw(std::move(draw)), m_sceneKey(std::move(key)) {
    setSurfaceType(QSurface::OpenGLSurface);
}

std::unique_ptr<OutputSurface> OutputSurface::window(int instanceNumber, Draw draw, SceneKey key) {
    std::unique_ptr<OutputSurface> surface(
        new OutputSurface(QStringLiteral("window"), std::move(draw), std::move(key)));
    surface->m_instance = instanceNumber;
    surface->setTitle(QStringLiteral("映像出力 #%1").arg(instanceNumber));
    const QRect frame =
        QSettings().value(frameKey(instanceNumber), QRect(200, 200, 960, 540)).toRect();
    surface->setGeometry(frame);
    // In front of the main window, but never with the keyboard: the show's keys and the menus'
    // shortcuts (Ctrl+Q) stay with the main window.
    surface->setFlag(Qt::WindowDoesNotAcceptFocus);
    surface->show();
    surface->raise();
    return surface;
}

std::unique_ptr<OutputSurface> OutputSurface::display(const QString& id, QScreen* screen, Draw draw,
                                                      SceneKey key) {
    std::unique_ptr<OutputSurface> surface(new OutputSurface(id, std::move(draw), std::move(key)));
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
    if (this->screen() != screen) {
        // A context belongs to its display's screen: a new one is made on the next.
        releaseGL();
        setScreen(screen);
    }
    if (geometry() != screen->geometry())
        setGeometry(screen->geometry());
}

OutputSurface::~OutputSurface() {
    rememberFrame();
    releaseGL();
}

void OutputSurface::releaseGL() {
    m_drawnKey.reset();
    if (!m_context)
        return;
    if (handle() && m_context->makeCurrent(this)) {
        m_renderer.reset();
        m_context->doneCurrent();
    }
    // Without its context current the renderer leaves its textures to the context's end.
    m_renderer.reset();
    m_context.reset();
}

void OutputSurface::rememberFrame() {
    if (m_instance > 0 && isVisible())
        QSettings().setValue(frameKey(m_instance), geometry());
}

bool OutputSurface::paint(std::uint64_t now, bool& moving) {
    if (!isExposed())
        return false;
    if (!m_context) {
        m_context = std::make_unique<QOpenGLContext>();
        m_context->setFormat(requestedFormat());
        m_context->setScreen(screen());
        if (!m_context->create()) {
            m_context.reset();
            return false;
        }
    }
    if (!m_context->makeCurrent(this))
        return false;
    const qreal ratio = devicePixelRatio();
    const QSize pixels = size() * ratio;
    if (!m_renderer)
        m_renderer = std::make_unique<PictureRenderer>();
    m_context->functions()->glViewport(0, 0, pixels.width(), pixels.height());
    moving = m_draw(*m_renderer, size(), ratio, m_id, now);
    return true;
}

void OutputSurface::render() {
    const std::uint64_t now = HostTime::now();
    if (m_sceneKey && isExposed()) {
        const Scene scene = m_sceneKey(m_id, now);
        if (scene.key == m_drawnKey) {
            if (scene.moving)
                requestUpdate(); // pictures are up, none has changed: look again next refresh
            return;
        }
        m_drawnKey = scene.key;
    }
    bool moving = false;
    if (!paint(now, moving))
        return;
    // Paced by the display: the swap waits for its refresh.
    m_context->swapBuffers(this);
    ++m_framesDrawn;
    if (moving)
        requestUpdate(); // the next frame, at the next refresh
}

QImage OutputSurface::grabFramebuffer() {
    bool moving = false;
    if (!paint(HostTime::now(), moving))
        return {};
    const QSize pixels = size() * devicePixelRatio();
    QImage image(pixels, QImage::Format_RGBA8888);
    m_context->functions()->glReadPixels(0, 0, pixels.width(), pixels.height(), GL_RGBA,
                                         GL_UNSIGNED_BYTE, image.bits());
    m_context->swapBuffers(this);
    // OpenGL's rows run bottom-up.
    return image.mirrored();
}

void OutputSurface::exposeEvent(QExposeEvent*) {
    m_drawnKey.reset(); // what was on screen may be gone
    if (isExposed())
        render();
}

bool OutputSurface::event(QEvent* event) {
    switch (event->type()) {
    case QEvent::UpdateRequest:
        render();
        return true;
    case QEvent::Close:
        rememberFrame();
        emit closedByHand(m_id);
        break;
    case QEvent::PlatformSurface:
        // The window is about to lose its native surface: let the context go first.
        if (static_cast<QPlatformSurfaceEvent*>(event)->surfaceEventType() ==
            QPlatformSurfaceEvent::SurfaceAboutToBeDestroyed)
            releaseGL();
        break;
    default:
        break;
    }
    return QWindow::event(event);
}
