// Slide decks: a generated 40-page PDF (16:9 slides of shapes and colour) built into a deck —
// every page rendered 2560 px wide and written as PNG — against pdftoppm doing the same
// (`pdftoppm -png -scale-to-x 2560 -scale-to-y -1`), timed alternately in the same run.
//   speed_ratio    pdftoppm's time ÷ the build's time, median of five alternations (target ≥ 1.6)
//   peak_rss_mb    the process's peak resident memory after the builds
//   reuse_ms       finding the built deck again (source unchanged), median of the runs
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sys/resource.h>

#include <QCoreApplication>
#include <QPainter>
#include <QPdfWriter>

#include "Median.h"
#include "Spawn.h"
#include "deck/DeckBuilder.h"

namespace {

const std::filesystem::path& folder() {
    static const auto dir = std::filesystem::temp_directory_path() / "vorlin-deck-bench";
    return dir;
}

QString fixture() {
    const auto file = folder() / "forty-slides.pdf";
    if (std::filesystem::exists(file))
        return QString::fromStdString(file.string());
    std::filesystem::create_directories(folder());
    QPdfWriter writer(QString::fromStdString(file.string()));
    writer.setPageLayout(
        QPageLayout(QPageSize(QSizeF(960, 540), QPageSize::Point), QPageLayout::Portrait, {}));
    writer.setResolution(72);
    QPainter painter(&writer);
    painter.setRenderHint(QPainter::Antialiasing);
    for (int page = 0; page < 40; ++page) {
        if (page > 0)
            writer.newPage();
        QLinearGradient sky(0, 0, 0, 540);
        sky.setColorAt(0, QColor::fromHsv((page * 37) % 360, 120, 250));
        sky.setColorAt(1, Qt::white);
        painter.fillRect(QRectF(0, 0, 960, 540), sky);
        for (int shape = 0; shape < 60; ++shape) {
            const int x = (shape * 97 + page * 13) % 900, y = (shape * 53 + page * 29) % 500;
            painter.setPen(QPen(QColor::fromHsv((shape * 23) % 360, 200, 180), 3));
            painter.setBrush(QColor::fromHsv((shape * 41 + page) % 360, 160, 230, 160));
            painter.drawEllipse(QRectF(x, y, 40 + shape % 50, 30 + shape % 40));
            painter.drawLine(QPointF(x, y), QPointF(960 - x, 540 - y));
        }
    }
    painter.end();
    return QString::fromStdString(file.string());
}

double seconds(const std::chrono::steady_clock::time_point& start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double runReference(const QString& pdf) {
    const std::string input = pdf.toStdString();
    const std::string out = (folder() / "pdftoppm").string();
    return timedSpawn({"pdftoppm", "-png", "-scale-to-x", "2560", "-scale-to-y", "-1",
                       input.c_str(), out.c_str()});
}

void BM_BuildFortySlides(benchmark::State& state) {
    const QString pdf = fixture();
    std::vector<double> ratios, ours, theirs, reuse;
    for (auto _ : state) {
        for (int round = 0; round < 5; ++round) {
            auto start = std::chrono::steady_clock::now();
            const auto deck = DeckBuilder::buildSlides(pdf, true, {});
            const double built = seconds(start);
            if (deck->manifest.items.size() != 40) {
                state.SkipWithError("the deck has not 40 slides");
                return;
            }
            const double reference = runReference(pdf);
            if (reference <= 0.0) {
                state.SkipWithError("pdftoppm failed (poppler-utils)");
                return;
            }
            start = std::chrono::steady_clock::now();
            DeckBuilder::buildSlides(pdf, false, {});
            reuse.push_back(seconds(start) * 1000.0);
            ours.push_back(built);
            theirs.push_back(reference);
            ratios.push_back(reference / built);
        }
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["ours_s"] = median(ours);
    state.counters["pdftoppm_s"] = median(theirs);
    state.counters["speed_ratio"] = median(ratios);
    state.counters["peak_rss_mb"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
    state.counters["reuse_ms"] = median(reuse);
}

BENCHMARK(BM_BuildFortySlides)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    // The deck cache of this run, not the user's.
    setenv("XDG_DATA_HOME", folder().c_str(), 1);
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
