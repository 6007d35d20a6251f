#pragma once

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include "model/Prefs.h"

// The main() of a benchmark that runs the program's Qt code: an application object and the
// preferences' defaults, as the program has them. Returns `status`'s answer when the benchmarks
// have run (0 when none is given).
template <typename Status = int (*)()>
int runQtBenchmarks(
    int argc, char** argv, Status status = [] { return 0; }) {
    QCoreApplication app(argc, argv);
    Prefs::registerDefaults();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return status();
}
