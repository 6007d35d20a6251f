#pragma once

#include <QImage>
#include <QString>

// Still pictures for image cues: any format Qt's image plugins read, turned upright as the
// file's orientation says (a phone photo held sideways), and brought down to a size an output
// can show (no display needs more than 8K; a 100-megapixel scan would hold 400 MB).
// Any thread: the loader calls it on a pool thread so the show never waits for a decode.
namespace PictureFile {

constexpr int kLargestSide = 7680;
// A format that cannot reduce while it decodes (PNG, TIFF …) holds the whole picture for a
// moment: at most this many pixels (a 16-bit 8000 × 6000 photograph is 48 million; 200 million
// at 8 bytes each is 1.6 GB). JPEG decodes reduced and is not bound by it.
constexpr qint64 kMaxDecodedPixels = 200'000'000;

// The picture, premultiplied for drawing, at most `largestSide` pixels on its longer side; a
// null image and `error` (a Japanese message for the operator) when the file is no picture.
QImage read(const QString& path, QString& error, int largestSide = kLargestSide);

// From the file's header only: why read() would refuse it (no picture, too large to decode),
// or empty.
QString check(const QString& path);

} // namespace PictureFile
