#include "video/PictureRenderer.h"

#include <algorithm>
#include <array>

#include <QGenericMatrix>
#include <QImage>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QOpenGLShaderProgram>

#include "media/MovieFrame.h"

#ifndef GL_UNPACK_ROW_LENGTH
#define GL_UNPACK_ROW_LENGTH 0x0CF2
#endif
#ifndef GL_RED
#define GL_RED 0x1903
#endif
#ifndef GL_R8
#define GL_R8 0x8229
#endif
#ifndef GL_LUMINANCE
#define GL_LUMINANCE 0x1909
#endif

namespace {

const char* const kVertex = R"(
attribute highp vec2 position;
attribute highp vec2 texCoord;
uniform highp vec4 toClip;
varying highp vec2 uv;
void main() {
    uv = texCoord;
    gl_Position = vec4(position * toClip.xy + toClip.zw, 0.0, 1.0);
}
)";

// Levels less `offset`, times `toRgb`: the stream's range and matrix in one step. The result is
// premultiplied by the layer's opacity, as the blending expects.
const char* const kYuv = R"(
varying highp vec2 uv;
uniform sampler2D planeY;
uniform sampler2D planeU;
uniform sampler2D planeV;
uniform highp mat3 toRgb;
uniform highp vec3 offset;
uniform highp float opacity;
void main() {
    highp vec3 levels = vec3(texture2D(planeY, uv).r, texture2D(planeU, uv).r,
                             texture2D(planeV, uv).r);
    gl_FragColor = vec4(clamp(toRgb * (levels - offset), 0.0, 1.0) * opacity, opacity);
}
)";

const char* const kRgba = R"(
varying highp vec2 uv;
uniform sampler2D picture;
uniform highp float opacity;
uniform highp float premultiplied;
void main() {
    highp vec4 colour = texture2D(picture, uv);
    gl_FragColor = vec4(colour.rgb * mix(colour.a, 1.0, premultiplied), colour.a) * opacity;
}
)";

std::unique_ptr<QOpenGLShaderProgram> program(const char* fragment) {
    auto built = std::make_unique<QOpenGLShaderProgram>();
    built->addShaderFromSourceCode(QOpenGLShader::Vertex, kVertex);
    built->addShaderFromSourceCode(QOpenGLShader::Fragment, fragment);
    built->bindAttributeLocation("position", 0);
    built->bindAttributeLocation("texCoord", 1);
    if (!built->link())
        return nullptr;
    return built;
}

QMatrix3x3 toRgb(const MovieColour& colour) {
    const std::array<double, 9> rows = colour.toRgb();
    float values[9];
    std::transform(rows.begin(), rows.end(), values,
                   [](double value) { return static_cast<float>(value); });
    return QMatrix3x3(values);
}

} // namespace

// A picture's textures: three planes, or one RGBA.
struct PictureRenderer::Upload {
    bool still = false;    // a still picture (keyed by its image's cache key), or a movie's
    std::uint64_t key = 0; // the frame's serial or the image's cache key
    int planes = 0;
    std::array<QSize, 3> sizes;
    std::array<GLuint, 3> textures{};
    bool filled = false; // storage allocated: a new picture of the same shape replaces pixels
};

PictureRenderer::PictureRenderer()
    : m_context(QOpenGLContext::currentContext()), m_yuv(program(kYuv)), m_rgba(program(kRgba)) {
    const QSurfaceFormat format = m_context->format();
    m_singleChannelRed = format.profile() == QSurfaceFormat::CoreProfile ||
                         (m_context->isOpenGLES() && format.majorVersion() >= 3);
    for (auto* built : {m_yuv.get(), m_rgba.get()}) {
        if (!built)
            continue;
        built->bind();
        built->setUniformValue("planeY", 0);
        built->setUniformValue("planeU", 1);
        built->setUniformValue("planeV", 2);
        built->setUniformValue("picture", 0);
        built->release();
    }
}

PictureRenderer::~PictureRenderer() {
    // Texture names belong to their context: with another one current (or none) they are left
    // to their own context's end.
    if (QOpenGLContext::currentContext() != m_context)
        return;
    auto* gl = m_context->functions();
    for (const auto& upload : m_uploads)
        gl->glDeleteTextures(upload->planes, upload->textures.data());
}

PictureRenderer::Upload* PictureRenderer::uploadFor(const CompositorLayer& layer,
                                                    std::vector<std::unique_ptr<Upload>>& kept) {
    const bool still = layer.frame == nullptr;
    const std::uint64_t key =
        still ? static_cast<std::uint64_t>(layer.picture->cacheKey()) : layer.frame->serial();
    const auto same = [&](const std::unique_ptr<Upload>& upload) {
        return upload->still == still && upload->key == key;
    };
    if (auto found = std::find_if(kept.begin(), kept.end(), same); found != kept.end())
        return found->get();
    if (auto found = std::find_if(m_uploads.begin(), m_uploads.end(), same);
        found != m_uploads.end()) {
        kept.push_back(std::move(*found));
        m_uploads.erase(found);
        return kept.back().get();
    }
    // A new picture: into the textures of one of the same shape that is no longer shown (the
    // movie's previous picture), or new ones.
    std::array<QSize, 3> sizes{};
    int planes = 1;
    if (still) {
        sizes[0] = layer.picture->size();
    } else {
        planes = layer.frame->layout() == MovieFrame::Layout::yuv ? 3 : 1;
        for (int n = 0; n < planes; ++n)
            sizes[n] = QSize(layer.frame->plane(n).width, layer.frame->plane(n).height);
    }
    auto reusable = std::find_if(m_uploads.begin(), m_uploads.end(), [&](const auto& upload) {
        return upload->still == still && upload->planes == planes && upload->sizes == sizes;
    });
    std::unique_ptr<Upload> upload;
    if (reusable != m_uploads.end()) {
        upload = std::move(*reusable);
        m_uploads.erase(reusable);
    } else {
        upload = std::make_unique<Upload>();
        upload->still = still;
        upload->planes = planes;
        upload->sizes = sizes;
        auto* gl = QOpenGLContext::currentContext()->functions();
        gl->glGenTextures(planes, upload->textures.data());
        for (int n = 0; n < planes; ++n) {
            gl->glBindTexture(GL_TEXTURE_2D, upload->textures[n]);
            gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
            gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
            gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
            gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
        }
    }
    upload->key = key;
    fill(*upload, layer);
    kept.push_back(std::move(upload));
    return kept.back().get();
}

void PictureRenderer::fill(Upload& upload, const CompositorLayer& layer) {
    auto* gl = QOpenGLContext::currentContext()->functions();
    const auto put = [&](int n, const void* pixels, int rowPixels, bool rgba) {
        const GLenum format = rgba ? GL_RGBA : m_singleChannelRed ? GL_RED : GL_LUMINANCE;
        const GLint internal = rgba ? GL_RGBA : m_singleChannelRed ? GL_R8 : GL_LUMINANCE;
        const QSize size = upload.sizes[n];
        gl->glBindTexture(GL_TEXTURE_2D, upload.textures[n]);
        gl->glPixelStorei(GL_UNPACK_ROW_LENGTH, rowPixels);
        if (upload.filled)
            gl->glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, size.width(), size.height(), format,
                                GL_UNSIGNED_BYTE, pixels);
        else
            gl->glTexImage2D(GL_TEXTURE_2D, 0, internal, size.width(), size.height(), 0, format,
                             GL_UNSIGNED_BYTE, pixels);
    };
    gl->glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    if (layer.frame) {
        const bool rgba = layer.frame->layout() == MovieFrame::Layout::rgba;
        for (int n = 0; n < upload.planes; ++n) {
            const MovieFrame::Plane& plane = layer.frame->plane(n);
            put(n, plane.data, rgba ? plane.stride / 4 : plane.stride, rgba);
        }
    } else {
        const QImage image = layer.picture->convertToFormat(QImage::Format_RGBA8888_Premultiplied);
        put(0, image.constBits(), static_cast<int>(image.bytesPerLine() / 4), true);
    }
    gl->glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    gl->glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    upload.filled = true;
    ++m_uploadCount;
}

void PictureRenderer::draw(std::vector<CompositorLayer> layers, const CompositorLook& look,
                           const QSize& area, double ratio) {
    auto* gl = QOpenGLContext::currentContext()->functions();
    gl->glDisable(GL_SCISSOR_TEST);
    gl->glDisable(GL_DEPTH_TEST);
    gl->glClearColor(static_cast<GLfloat>(look.background.redF()),
                     static_cast<GLfloat>(look.background.greenF()),
                     static_cast<GLfloat>(look.background.blueF()), 1.0f);
    gl->glClear(GL_COLOR_BUFFER_BIT);
    gl->glEnable(GL_BLEND);
    gl->glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA); // premultiplied

    Compositor::sortByDepth(layers);
    const QRect whole(QPoint(0, 0), area);
    const QSizeF pixels = QSizeF(area) * ratio;
    std::vector<std::unique_ptr<Upload>> kept;
    for (const CompositorLayer& layer : layers) {
        if (layer.isEmpty() || layer.opacity <= 0.0)
            continue;
        Upload* upload = uploadFor(layer, kept);
        const bool yuv = upload->planes == 3;
        QOpenGLShaderProgram* shader = yuv ? m_yuv.get() : m_rgba.get();
        if (!shader)
            continue;
        shader->bind();
        shader->setUniformValue("toClip",
                                QVector4D(static_cast<float>(2.0 / pixels.width()),
                                          static_cast<float>(-2.0 / pixels.height()), -1.0f, 1.0f));
        shader->setUniformValue("opacity", static_cast<GLfloat>(std::min(layer.opacity, 1.0)));
        if (yuv) {
            const MovieColour& colour = layer.frame->colour();
            shader->setUniformValue("toRgb", toRgb(colour));
            const std::array<double, 3> offsets = colour.offsets();
            shader->setUniformValue("offset", QVector3D(static_cast<float>(offsets[0] / 255.0),
                                                        static_cast<float>(offsets[1] / 255.0),
                                                        static_cast<float>(offsets[2] / 255.0)));
        } else {
            shader->setUniformValue("premultiplied", layer.frame ? 0.0f : 1.0f);
        }
        const QRectF at = Compositor::placement(layer.size(), whole, look.fit);
        // A picture drawn pixel for pixel (a movie of the output's own size, upright) samples
        // its full-size plane without filtering: the same pixels, and a software OpenGL spends
        // much of a frame filtering.
        const QRectF pixelsAt(at.topLeft() * ratio, at.size() * ratio);
        const bool oneToOne = (!layer.frame || layer.frame->rotation == 0) &&
                              pixelsAt.size() == QSizeF(upload->sizes[0]) &&
                              pixelsAt.topLeft() == pixelsAt.topLeft().toPoint();
        for (int n = upload->planes - 1; n >= 0; --n) {
            gl->glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(n));
            gl->glBindTexture(GL_TEXTURE_2D, upload->textures[n]);
            const GLint filter = n == 0 && oneToOne ? GL_NEAREST : GL_LINEAR;
            gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, filter);
            gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, filter);
        }
        const GLfloat x0 = static_cast<GLfloat>(at.left() * ratio);
        const GLfloat y0 = static_cast<GLfloat>(at.top() * ratio);
        const GLfloat x1 = static_cast<GLfloat>(at.right() * ratio);
        const GLfloat y1 = static_cast<GLfloat>(at.bottom() * ratio);
        const GLfloat positions[8] = {x0, y0, x1, y0, x1, y1, x0, y1};
        // The picture's corners in the order of the screen's (top left, clockwise): a picture
        // turned by 90° clockwise shows its bottom-left corner at the top left.
        static constexpr GLfloat kCorners[8] = {0, 0, 1, 0, 1, 1, 0, 1};
        const int turns = layer.frame ? ((layer.frame->rotation / 90) % 4 + 4) % 4 : 0;
        GLfloat coords[8];
        for (int corner = 0; corner < 4; ++corner) {
            const int from = (corner - turns + 4) % 4;
            coords[corner * 2] = kCorners[from * 2];
            coords[corner * 2 + 1] = kCorners[from * 2 + 1];
        }
        shader->enableAttributeArray(0);
        shader->enableAttributeArray(1);
        shader->setAttributeArray(0, positions, 2);
        shader->setAttributeArray(1, coords, 2);
        gl->glDrawArrays(GL_TRIANGLE_FAN, 0, 4);
        shader->disableAttributeArray(0);
        shader->disableAttributeArray(1);
        shader->release();
    }
    gl->glActiveTexture(GL_TEXTURE0);
    // What is no longer shown lets its textures go.
    for (const auto& upload : m_uploads)
        gl->glDeleteTextures(upload->planes, upload->textures.data());
    m_uploads = std::move(kept);
}
