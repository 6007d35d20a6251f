#pragma once

#include <QImage>
#include <QString>

// Still pictures for image cues: any format Qt's image plugins read, turned upright as the
// file's orientation says (a phone photo held sideways), and brought down to a size an output
// can show (no display needs more than 8K; a 100-megapixel scan would hold 400 MB).
// Any thread: the loader calls it on a pool thread so the show never waits for a decode.
namespace PictureFile {

constexpr int kLargestSide = 7680;

// The picture, premultiplied for drawing, at most `largestSide` pixels on its longer side; a
// null image and `error` (a Japanese message for the operator) when the file is no picture.
QImage read(const QString& path, QString& error, int largestSide = kLargestSide);

} // namespace PictureFile
