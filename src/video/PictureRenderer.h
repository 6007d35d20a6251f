#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <QSize>

#include "video/Compositor.h"

class QOpenGLContext;
class QOpenGLShaderProgram;

// Draws what an output shows with OpenGL into the framebuffer bound now: the background, then
// the layers from the deepest up, each placed by the fit rule (Compositor::placement) and drawn
// at its opacity. A movie's picture is uploaded as its planes once, when it is new, and a shader
// turns them into RGB with the stream's own range and matrix; a still picture is uploaded once.
// Nothing is converted or scaled on the CPU.
//
// Threading: made, used and destroyed with its context current (the thread of that context).
class PictureRenderer {
public:
    PictureRenderer();
    ~PictureRenderer();

    PictureRenderer(const PictureRenderer&) = delete;
    PictureRenderer& operator=(const PictureRenderer&) = delete;

    // Draws into a framebuffer of `pixels`, mapping `area` (in the surface's own units, `ratio`
    // pixels each) the way a painter would.
    void draw(std::vector<CompositorLayer> layers, const CompositorLook& look, const QSize& area,
              double ratio);
    // Pictures uploaded and kept for the next draw.
    std::size_t texturesHeld() const { return m_uploads.size(); }
    // Uploads done so far (a picture drawn on two outputs of one context is uploaded once).
    std::int64_t uploads() const { return m_uploadCount; }

private:
    struct Upload;
    // The upload of a layer's picture, made or reused.
    Upload* uploadFor(const CompositorLayer& layer, std::vector<std::unique_ptr<Upload>>& kept);
    void fill(Upload& upload, const CompositorLayer& layer);

    QOpenGLContext* m_context = nullptr; // the one it was made in
    std::unique_ptr<QOpenGLShaderProgram> m_yuv;
    std::unique_ptr<QOpenGLShaderProgram> m_rgba;
    bool m_singleChannelRed = false; // GL_RED textures (a core profile); else GL_LUMINANCE
    std::vector<std::unique_ptr<Upload>> m_uploads; // those of the last draw
    std::int64_t m_uploadCount = 0;
};
