#include "video/PictureFile.h"

#include <QImageReader>

namespace PictureFile {

namespace {

const QString kNoPicture = QStringLiteral("画像として読めません");
const QString kTooLarge = QStringLiteral("画像が大きすぎます（%1 × %2 ピクセル）");

// Opens the reader for `path` reduced to `largestSide`; why it cannot be read, or empty.
QString prepare(QImageReader& reader, int largestSide) {
    reader.setAutoTransform(true);
    if (!reader.canRead())
        return kNoPicture;
    const QSize size = reader.size();
    if (!size.isValid())
        return {};
    // Every handler takes a scaled size, but only JPEG's decodes reduced (libjpeg's scaling);
    // the others decode whole, then scale.
    const bool reducesWhileDecoding = reader.format() == "jpeg" || reader.format() == "jpg";
    const qint64 pixels = static_cast<qint64>(size.width()) * size.height();
    if (!reducesWhileDecoding && pixels > kMaxDecodedPixels)
        return kTooLarge.arg(size.width()).arg(size.height());
    QSize decoded = size;
    if (size.width() > largestSide || size.height() > largestSide) {
        decoded = size.scaled(largestSide, largestSide, Qt::KeepAspectRatio);
        reader.setScaledSize(decoded);
    }
    // Qt refuses pictures over 256 MB by default; the bound above is ours. Eight bytes a pixel
    // for 16-bit formats, and room for the reduced copy.
    const qint64 held = reducesWhileDecoding ? qint64(decoded.width()) * decoded.height() : pixels;
    reader.setAllocationLimit(static_cast<int>(held * 8 / (1 << 20)) + 64);
    return {};
}

} // namespace

QString check(const QString& path) {
    QImageReader reader(path);
    return prepare(reader, kLargestSide);
}

QImage read(const QString& path, QString& error, int largestSide) {
    QImageReader reader(path);
    error = prepare(reader, largestSide);
    if (!error.isEmpty())
        return {};
    QImage image = reader.read();
    if (image.isNull()) {
        error = QStringLiteral("画像を読み込めません（%1）").arg(reader.errorString());
        return {};
    }
    return image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

} // namespace PictureFile
