#include "video/PictureFile.h"

#include <QImageReader>

namespace PictureFile {

QImage read(const QString& path, QString& error, int largestSide) {
    QImageReader reader(path);
    reader.setAutoTransform(true);
    if (!reader.canRead()) {
        error = QStringLiteral("画像として読めません");
        return {};
    }
    const QSize size = reader.size();
    if (size.isValid() && (size.width() > largestSide || size.height() > largestSide))
        reader.setScaledSize(size.scaled(largestSide, largestSide, Qt::KeepAspectRatio));
    QImage image = reader.read();
    if (image.isNull()) {
        error = QStringLiteral("画像を読み込めません（%1）").arg(reader.errorString());
        return {};
    }
    return image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

} // namespace PictureFile
