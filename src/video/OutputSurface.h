#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <QImage>
#include <QString>
#include <QWindow>

class QOpenGLContext;
class QScreen;
class PictureRenderer;

// One place pictures are shown: the movable window ("映像出力 #n") or a whole display. It draws
// the composited scene of its output with OpenGL at the display's refresh while pictures move,
// and once when they stop. A display surface has no frame, covers exactly its display, stays
// above every other window on every desktop, never takes the keyboard (key presses stay with
// the main window) and is not hidden when another program is in front.
//
// It owns its OpenGL context and releases it while its window still exists: a context made
// current on a window that is already gone crashes Mesa's GLX on a second X screen, which is
// what QOpenGLWindow's own teardown does. Main thread.
class OutputSurface : public QWindow {
    Q_OBJECT
public:
    // Draws what output `id` shows at host time `now` with the surface's renderer, on an area of
    // its size (`ratio` pixels per unit); returns whether pictures are up (then the next
    // refresh is drawn too).
    using Draw = std::function<bool(PictureRenderer& renderer, const QSize& area, double ratio,
                                    const QString& id, std::uint64_t now)>;
    // A number for what output `id` shows at `now`, and whether pictures are up (so the next
    // refresh must be looked at too). While the number stays the same the refresh is left as
    // it is and the CPU goes to decoding: a 30 fps movie needs 30 draws a second, not the
    // display's 60 or more. A refresh asks both with the same `now`, so the number is that of
    // the picture drawn. None: every refresh is drawn.
    struct Scene {
        std::uint64_t key = 0;
        bool moving = false;
    };
    using SceneKey = std::function<Scene(const QString& id, std::uint64_t now)>;

    // The movable window, its frame remembered per instance.
    static std::unique_ptr<OutputSurface> window(int instanceNumber, Draw draw, SceneKey key = {});
    // A display, covered whole.
    static std::unique_ptr<OutputSurface> display(const QString& id, QScreen* screen, Draw draw,
                                                  SceneKey key = {});
    ~OutputSurface() override;

    const QString& id() const { return m_id; }
    // A display surface: exactly that display's area (again after a change of resolution).
    void cover(QScreen* screen);
    // The pictures changed: draw again at the next refresh.
    void wake() { requestUpdate(); }
    // Draws a frame and reads back what OpenGL drew (for checks and screenshots); null when the
    // surface is not on screen.
    QImage grabFramebuffer();
    // Frames drawn and swapped so far.
    std::int64_t framesDrawn() const { return m_framesDrawn; }

signals:
    // The operator closed the window (the output is no longer wanted).
    void closedByHand(const QString& id);

protected:
    bool event(QEvent* event) override;
    void exposeEvent(QExposeEvent* event) override;

private:
    OutputSurface(QString id, Draw draw, SceneKey key);
    void rememberFrame();
    // Draws the scene at `now` into the back buffer; false when there is nowhere to draw.
    bool paint(std::uint64_t now, bool& moving);
    void render();
    void releaseGL();

    QString m_id;
    Draw m_draw;
    SceneKey m_sceneKey;
    std::optional<std::uint64_t> m_drawnKey; // the scene on screen; none: draw the next refresh
    std::int64_t m_framesDrawn = 0;
    int m_instance = 0; // the window's, for its remembered frame
    std::unique_ptr<QOpenGLContext> m_context;
    std::unique_ptr<PictureRenderer> m_renderer; // of m_context
};
