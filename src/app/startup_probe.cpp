#include "startup_probe.h"

#include <QCoreApplication>
#include <QEvent>
#include <QTimer>
#include <QWindow>

#include <cstdio>
#include <fstream>
#include <string>

namespace quendral::app {
namespace {

// VmRSS and VmHWM of this process in kB, from /proc/self/status.
std::pair<long, long> residentMemoryKb()
{
    std::ifstream status("/proc/self/status");
    long rss = -1;
    long hwm = -1;
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            rss = std::stol(line.substr(6));
        } else if (line.rfind("VmHWM:", 0) == 0) {
            hwm = std::stol(line.substr(6));
        }
    }
    return {rss, hwm};
}

class FirstExposeProbe final : public QObject {
public:
    explicit FirstExposeProbe(const QElapsedTimer& sinceMain) : _sinceMain(sinceMain) {}

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Expose && !_seen) {
            const auto* window = qobject_cast<QWindow*>(watched);
            if (window != nullptr && window->isExposed()) {
                _seen = true;
                // The expose paints the window; report once that painting is done.
                QTimer::singleShot(0, this, [this] {
                    const auto [rss, hwm] = residentMemoryKb();
                    std::printf("first-show-ms %.3f rss-kb %ld hwm-kb %ld\n",
                                static_cast<double>(_sinceMain.nsecsElapsed()) / 1e6, rss, hwm);
                    std::fflush(stdout);
                    QTimer::singleShot(1500, this, [] {
                        const auto [settledRss, settledHwm] = residentMemoryKb();
                        std::printf("settled rss-kb %ld hwm-kb %ld\n", settledRss, settledHwm);
                        std::fflush(stdout);
                        QCoreApplication::quit();
                    });
                });
            }
        }
        return false;
    }

private:
    QElapsedTimer _sinceMain;
    bool _seen = false;
};

} // namespace

void installStartupProbe(const QElapsedTimer& sinceMain)
{
    if (qEnvironmentVariableIsEmpty("QUENDRAL_BENCH_STARTUP")) {
        return;
    }
    // Watches the whole application: the main window is the first window shown.
    auto* probe = new FirstExposeProbe(sinceMain);
    probe->setParent(QCoreApplication::instance());
    QCoreApplication::instance()->installEventFilter(probe);
}

} // namespace quendral::app
