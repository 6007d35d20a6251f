#include "deck/PdfPages.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <mutex>
#include <poppler-qt6.h>
#include <thread>
#include <vector>

#include <QImageWriter>

#include "deck/DeckError.h"

namespace PdfPages {

namespace {

// A low zlib level (Qt maps quality 70 to level 2 of 9) for speed over size: a deck is a cache,
// written once and read back a picture at a time during the show.
constexpr int kPngQuality = 70;
using DeckBuilder::kPageWidth;

std::unique_ptr<Poppler::Document> open(const QString& pdf) {
    std::unique_ptr<Poppler::Document> document = Poppler::Document::load(pdf);
    if (!document)
        throw DeckError(DeckError::kUnreadable);
    if (document->isLocked())
        throw DeckError(DeckError::kLocked);
    document->setRenderHint(Poppler::Document::Antialiasing, true);
    document->setRenderHint(Poppler::Document::TextAntialiasing, true);
    document->setPaperColor(Qt::white);
    return document;
}

const QString kTooManyPages =
    QStringLiteral("ページが多すぎます（%1 ページ。%2 ページまでのファイルにしてください）");

// Whether the page had to be reduced.
bool writePage(Poppler::Document& document, int index, const QString& folder) {
    const std::unique_ptr<Poppler::Page> page = document.page(index);
    if (!page)
        throw DeckError(DeckError::kUnreadable);
    const QSizeF points = page->pageSizeF();
    if (!(points.width() > 0.0) || !(points.height() > 0.0))
        throw DeckError(DeckError::kEmptyPage);
    const QSize size = pictureSize(points);
    const double xres = size.width() * 72.0 / points.width();
    const double yres = size.height() * 72.0 / points.height();
    QImage picture = page->renderToImage(xres, yres, 0, 0, size.width(), size.height());
    if (picture.isNull())
        throw DeckError(DeckError::kNoImage);
    // Slides are opaque: without an alpha channel the PNG is smaller and faster to write.
    picture = picture.convertToFormat(QImage::Format_RGB888);
    QImageWriter writer(folder + '/' + fileName(index + 1), "png");
    writer.setQuality(kPngQuality);
    if (!writer.write(picture))
        throw DeckError(DeckError::kPngFailed);
    return size.width() < kPageWidth;
}

} // namespace

QSize pictureSize(const QSizeF& points) {
    const double aspect = points.height() / points.width();
    if (kPageWidth * aspect <= kMaxHeight)
        return {kPageWidth, std::max(1, static_cast<int>(std::lround(kPageWidth * aspect)))};
    return {std::max(1, static_cast<int>(std::lround(kMaxHeight / aspect))), kMaxHeight};
}

QString fileName(int page) {
    return QStringLiteral("s%1.png").arg(page, 3, 10, QLatin1Char('0'));
}

Rendered render(const QString& pdf, const QString& folder, const DeckBuilder::Progress& progress,
                const DeckBuilder::CancelFlag* cancel) {
    const std::unique_ptr<Poppler::Document> first = open(pdf);
    const int pages = first->numPages();
    if (pages <= 0)
        throw DeckError(DeckError::kUnreadable);
    if (pages > kMaxPages)
        throw DeckError(kTooManyPages.arg(pages).arg(kMaxPages));
    Rendered rendered;
    rendered.pages = pages;

    const int workers =
        std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, std::min(pages, 8));
    std::mutex mutex; // guards the fields below
    int next = 0, done = 0;
    std::exception_ptr failure;
    const auto work = [&](Poppler::Document& document) {
        for (;;) {
            int index = 0;
            {
                std::lock_guard lock(mutex);
                if (failure || next >= pages)
                    return;
                if (cancel && cancel->load()) {
                    failure = std::make_exception_ptr(DeckError(DeckError::kCancelled));
                    return;
                }
                index = next++;
            }
            bool reduced = false;
            try {
                reduced = writePage(document, index, folder);
            } catch (...) {
                std::lock_guard lock(mutex);
                if (!failure)
                    failure = std::current_exception();
                return;
            }
            std::lock_guard lock(mutex);
            ++done;
            if (reduced)
                rendered.reduced.push_back(index + 1);
            if (progress)
                progress(QString::number(done) + '/' + QString::number(pages));
        }
    };
    std::vector<std::thread> threads;
    for (int w = 1; w < workers; ++w) {
        threads.emplace_back([&] {
            try {
                std::unique_ptr<Poppler::Document> own = open(pdf);
                work(*own);
            } catch (...) {
                std::lock_guard lock(mutex);
                if (!failure)
                    failure = std::current_exception();
            }
        });
    }
    work(*first);
    for (std::thread& thread : threads)
        thread.join();
    if (failure)
        std::rethrow_exception(failure);
    std::sort(rendered.reduced.begin(), rendered.reduced.end());
    return rendered;
}

} // namespace PdfPages
