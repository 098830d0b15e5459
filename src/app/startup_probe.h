#pragma once
// For the start-up benchmark (bench/bench_startup) only: with the environment
// variable QUENDRAL_BENCH_STARTUP set, the main window's first showing on
// screen prints the time since main() began and the process's memory, and
// the application quits a moment later (after printing its memory once more,
// settled). Without the variable nothing happens; the application itself
// reads no settings.
#include <QElapsedTimer>

namespace quendral::app {

// Call once the application object exists, before the main window is made.
void installStartupProbe(const QElapsedTimer& sinceMain);

} // namespace quendral::app
